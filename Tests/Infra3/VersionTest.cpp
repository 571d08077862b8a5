#include "Infra/Version.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>

#include "CheckIncludeVersionInternal.h"
#include "Infra/CheckIncludeVersion.h"
#include "Infra/Infra3/Version.h"
#include "Infra3/VersionInternal.h"
#include "Support/ChildProcess.h"
#include "Support/LogCapture.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace
{

using namespace Tarsel::TestSupport;
using testing::HasSubstr;
typedef CCheckIncludeVersion::IncludeVersion IncludeVersion;

TEST(VersionTest, ReadsRevisionAndDateOfARecord)
{
    const struct
    {
        const char* svnString;
        int svn;      // of the namespaced record
        int olderSvn; // of the older one
    } revisions[] = {
        {"812148M", 812148, 812148},
        {"812148", 812148, 812148},
        {"$Rev: 77 $", 77, 77},
        {"100:812148", 100, 812148},
        {"r15", 15, 0},
        {"", 0, 0},
        {nullptr, 0, 0},
    };
    for (const auto& revision : revisions) {
        const Tarsel::Infra::CVersion record("Lib", 1, 2, 3, revision.svnString, "Nov  8 2019");
        EXPECT_EQ(record.svn, revision.svn);
        EXPECT_EQ(CVersion("Lib", 1, 2, 3, revision.svnString, "").svn, revision.olderSvn);
    }
    const struct
    {
        const char* dateString;
        int year, month, day;
    } dates[] = {
        {"Nov  8 2019", 2019, 11, 8}, {"Jan 31 2020", 2020, 1, 31},
        {"Foo  1 2020", 2020, 13, 1}, {"Dec", 0, 12, 0},
        {"Dec 24", 0, 12, 24},        {"No", 0, 13, 0},
        {nullptr, 0, 13, 0},
    };
    for (const auto& date : dates) {
        const Tarsel::Infra::CVersion record("Lib", 1, 2, 3, "1", date.dateString);
        EXPECT_EQ(std::tuple(record.date.year, record.date.month, record.date.day),
                  std::tuple(date.year, date.month, date.day));
        EXPECT_EQ(std::tuple(record.date.hour, record.date.wday, record.date.isdst),
                  std::tuple(0, 0, 0));
    }
    const Tarsel::Infra::CVersion longName("0123456789012345678901234567890123456789", 1, 2, 3, "1",
                                           "");
    EXPECT_STREQ(longName.name, "0123456789012345678901234567890");
}

TEST(VersionTest, PrintsTheLibrarysOwnRecord)
{
    CLogCapture log;
    Tarsel::Infra::libraryVersion().print();
    CVersion("Older", 1, 2, 3, "77", "Dec 24 2020").print();
    EXPECT_EQ(log.takeLeveled(), "info|[*] Infra 3.0.0.812148 Built in 2019/11/ 8 [*]\n"
                                 "info|[*] Older 1.2.3.77 Built in 2020/12/24 [*]\n");
}

TEST(VersionTest, WarnsOfSourcesThatWereChangedLocally)
{
    CLogCapture log;
    const CVersion clean("Changed", 1, 0, 0, "812148", "");
    EXPECT_EQ(log.take(), "");
    const CVersion changed("Changed", 1, 0, 0, "812148M", "");
    EXPECT_EQ(log.takeLeveled(),
              "info|Some [Changed] files are not commit to SVN server. It compied "
              "wtih local modified files.\n");
}

TEST(VersionTest, MatchesVersionsOfRegisteredLibraries)
{
    EXPECT_TRUE(CVersion::matchEqual("INFRA2", 2, 0, 0));
    EXPECT_FALSE(CVersion::matchEqual("Infra2", 2, 0, 1));
    EXPECT_TRUE(CVersion::matchNotLessThan("infra2", 1, 9, 9));
    EXPECT_TRUE(CVersion::matchNotLessThan("infra2", 2, 0, 0));
    EXPECT_FALSE(CVersion::matchNotLessThan("infra2", 2, 0, 1));
    EXPECT_FALSE(CVersion::matchNotLessThan("infra2", 3, 0, 0));
    EXPECT_TRUE(CVersion::matchEqual("Nobody", 1, 1, 1));
    EXPECT_TRUE(CVersion::matchNotLessThan(nullptr, 1, 1, 1));

    const CVersion first("Twice", 1, 0, 0, "1", "");
    const CVersion second("Twice", 1, 5, 0, "1", "");
    EXPECT_FALSE(CVersion::matchEqual("Twice", 1, 0, 0)); // every entry of the name counts
    EXPECT_TRUE(CVersion::matchNotLessThan("Twice", 1, 0, 0));
    EXPECT_FALSE(CVersion::matchNotLessThan("Twice", 1, 2, 0));
}

TEST(VersionTest, KeepsTheApplicationsBuildDate)
{
    EXPECT_EQ(Tarsel::Infra::CVersion::appDate.year, 2000);
    EXPECT_EQ(CVersion::appDate.day, 1);
    CVersion::setAppDate("Feb  3 2021");
    EXPECT_EQ(CVersion::appDate.month, 2);
    EXPECT_EQ(Tarsel::Infra::CVersion::appDate.month, 1); // each class has its own
    CVersion::setAppDate("Jan  1 2000");
}

/// What was logged, with "P" for the address of `object`.
std::string withoutAddress(std::string text, const void* object)
{
    char address[32];
    snprintf(address, sizeof(address), "%p", object);
    for (size_t at = text.find(address); at != std::string::npos; at = text.find(address)) {
        text.replace(at, strlen(address), 1, 'P');
    }
    return text;
}

/// What a child logs that ends in the assertion of a report.
template <typename Body>
std::string logOfReport(Body body)
{
    const ChildResult child = runInChild(body);
    EXPECT_EQ(child.signal, SIGABRT) << child.report();
    EXPECT_THAT(child.errorOutput, HasSubstr("assertion (m_matchFlag) failed"));
    return leveled(withoutColors(child.output));
}

TEST(CheckIncludeVersionTest, FindsConflictsBetweenLibraries)
{
    IncludeVersion player[] = {{"URL: http://svn.example.com/Infra", "100"},
                               {"URL: http://svn.example.com/Utils", "7"}};
    IncludeVersion recorder[] = {{"URL: http://svn.example.com/Memory", "5"},
                                 {"URL: http://svn.example.com/Infra", "101"}};
    IncludeVersion viewer[] = {{"URL: http://svn.example.com/Utils", "7"}};
    CLogCapture log;
    CCheckIncludeVersionInter check;

    EXPECT_TRUE(check.match("Player", player, 2));
    EXPECT_EQ(log.takeLeveled(), "info|check include version:Player\n"
                                 "info|URL: http://svn.example.com/Infra 100\n"
                                 "info|URL: http://svn.example.com/Utils 7\n");
    EXPECT_FALSE(check.match("Recorder", recorder, 2));
    EXPECT_EQ(withoutAddress(log.takeLeveled(), &check),
              "info|check include version:Recorder\n"
              "info|URL: http://svn.example.com/Memory 5\n"
              "info|URL: http://svn.example.com/Infra 101\n"
              "error|this:P check include version failed\n"
              "error|this:P Player URL: http://svn.example.com/Infra 100\n"
              "error|this:P Recorder URL: http://svn.example.com/Infra 101\n");
    player[1].version = "8"; // the register keeps copies
    EXPECT_TRUE(check.match("Viewer", viewer, 1));
}

TEST(CheckIncludeVersionTest, ThereMayBeAnyNumberOfRegisters)
{
    IncludeVersion records[] = {{"URL: a", "1"}};
    CLogCapture log;
    for (int round = 0; round < 100; ++round) {
        CCheckIncludeVersionInter check;
        EXPECT_TRUE(check.match("Player", records, 1));
    }
}

TEST(CheckIncludeVersionTest, SuggestsTheHighestRevisionsAndEndsTheProcess)
{
    IncludeVersion player[] = {{"URL: http://svn.example.com/Infra", "100"}, {"Local", "3"}};
    IncludeVersion recorder[] = {{"URL: http://svn.example.com/Infra", "101"}};
    CCheckIncludeVersionInter check;
    {
        CLogCapture log;
        check.match("Player", player, 2);
        check.match("Recorder", recorder, 1);
    }
    EXPECT_EQ(withoutAddress(logOfReport([&] { check.checkResult(); }), &check),
              "error|this:P CCheckIncludeVersionInter::checkResult error:match error\n"
              "info|--------include version all start---------\n"
              "info|Local 3\n"
              "info|URL: http://svn.example.com/Infra 101\n"
              "info|--------include version all end---------\n"
              "error|this:P ----------------check include report start---------------\n"
              "error|this:P [Player], include version suggest:\n"
              "error|this:P \n"
              "Infra -r101 http://svn.example.com/Infra\n"
              "null -r3 Local\n"
              "error|this:P ------------------------------------\n"
              "error|this:P [Recorder], include is ok\n"
              "error|this:P ------------------------------------\n"
              "error|this:P ----------------check include report end---------------\n");
}

TEST(CheckIncludeVersionTest, ReportsVersionsThatAreNoNumbersAndEndsTheProcess)
{
    IncludeVersion broken[] = {{"URL: a", "12"}, {"URL: b", "12a"}, {nullptr, nullptr}, {"", ""}};
    const std::string log = logOfReport([&] {
        static CCheckIncludeVersion* const check = new CCheckIncludeVersion("Broken", broken, 4);
        fprintf(stdout, "check is %p\n", static_cast<void*>(check));
        CCheckIncludeVersion::checkResult();
    });
    const size_t address = log.find("check is ");
    ASSERT_NE(address, std::string::npos);
    void* check = nullptr;
    ASSERT_EQ(sscanf(log.c_str() + address, "check is %p", &check), 1);
    const std::string plain =
        withoutAddress(withoutAddress(log, CCheckIncludeVersionInter::instance()), check);
    EXPECT_EQ(plain, "info|check include version:Broken\n"
                     "info|URL: a 12\n"
                     "info|URL: b 12a\n"
                     "info|(null) (null)\n"
                     "info| \n"
                     "error|this:P Broken version error\n"
                     "error|this:P URL: b 12a\n"
                     "error|this:P (null) (null)\n"
                     "error|this:P  \n"
                     "error|this:P check include version failed, assert\n"
                     "check is P\n"
                     "error|this:P CCheckIncludeVersionInter::checkResult error:self error\n"
                     "error|this:P ----------------check include report start---------------\n"
                     "error|libname:Broken, url:URL: b version:12a\n"
                     "error|libname:Broken, url:(null) version:(null)\n"
                     "error|libname:Broken, url: version:\n"
                     "error|this:P ----------------check include report end---------------\n");
}

TEST(CheckIncludeVersionTest, TheLibraryItselfIsConsistent)
{
    CLogCapture log;
    CCheckIncludeVersion::checkResult();
    EXPECT_EQ(log.takeLeveled(), "info|CCheckIncludeVersionInter::checkResult successful\n");
}

TEST(VersionTest, TheLibraryDeclaresItselfOnceWhenItIsLoaded)
{
    const ChildResult child = runInChild([] {
        execl("/proc/self/exe", "loaded", "--gtest_filter=-*", nullptr);
        FAIL() << "cannot run this program again";
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    const std::string log = leveled(withoutColors(child.output));
    constexpr char declaration[] =
        "info|check include version:Infra\n"
        "info|URL: http://svn.example.com/infra/trunk/Include/Infra 812148\n"
        "info|URL: http://svn.example.com/infra/trunk/Include/Infra/Infra3 812140\n"
        "info|URL: http://svn.example.com/infra/trunk/Include/Memory 811973\n"
        "info|URL: http://svn.example.com/infra/trunk/Include/Component 810266\n"
        "info|URL: http://svn.example.com/infra/trunk/Include/Utils 811502\n"
        "info|Some [Infra2] files are not commit to SVN server. It compied wtih local modified "
        "files.\n";
    EXPECT_THAT(log, HasSubstr(declaration));
    EXPECT_EQ(countOf(log, "check include version:"), 1);
    EXPECT_EQ(countOf(log, "Some ["), 1);
}

} // namespace
