#include "Infra/Version.h"

#include <tuple>

#include "CheckIncludeVersionInternal.h"
#include "Infra/CheckIncludeVersion.h"
#include "Infra/Infra3/Version.h"
#include "Infra3/VersionInternal.h"
#include "Support/LogCapture.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
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
    Tarsel::TestSupport::CLogCapture log;
    Tarsel::Infra::libraryVersion().print();
    EXPECT_THAT(log.take(), HasSubstr("[*] Infra 3.0.0.812148 Built in 2019/11/ 8 [*]\n"));
}

TEST(VersionTest, WarnsOfSourcesThatWereChangedLocally)
{
    constexpr char warning[] = "Some [Changed] files are not commit to SVN server. It compied wtih "
                               "local modified files.\n";
    Tarsel::TestSupport::CLogCapture log;
    const CVersion clean("Changed", 1, 0, 0, "812148", "");
    EXPECT_EQ(log.take(), "");
    const CVersion changed("Changed", 1, 0, 0, "812148M", "");
    EXPECT_THAT(log.take(), HasSubstr(warning));
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

/// A register of the test's own. It lives for ever, because its lock has to.
CCheckIncludeVersionInter& makeRegister()
{
    return *new CCheckIncludeVersionInter;
}

/// Logs to standard error, where a dying process is heard.
void logToStandardError()
{
    Tarsel::Infra::setLogPrinter([](const char* text) { fputs(text, stderr); });
}

TEST(CheckIncludeVersionTest, FindsConflictsBetweenLibraries)
{
    IncludeVersion player[] = {{"URL: http://svn.example.com/Infra", "100"},
                               {"URL: http://svn.example.com/Utils", "7"}};
    IncludeVersion recorder[] = {{"URL: http://svn.example.com/Memory", "5"},
                                 {"URL: http://svn.example.com/Infra", "101"}};
    IncludeVersion viewer[] = {{"URL: http://svn.example.com/Utils", "7"}};
    Tarsel::TestSupport::CLogCapture log;
    CCheckIncludeVersionInter& check = makeRegister();

    EXPECT_TRUE(check.match("Player", player, 2));
    EXPECT_THAT(log.take(), AllOf(HasSubstr("check include version:Player\n"),
                                  HasSubstr("URL: http://svn.example.com/Utils 7\n")));
    EXPECT_FALSE(check.match("Recorder", recorder, 2));
    EXPECT_THAT(log.take(), AllOf(HasSubstr("check include version failed\n"),
                                  HasSubstr(" Player URL: http://svn.example.com/Infra 100\n"),
                                  HasSubstr(" Recorder URL: http://svn.example.com/Infra 101\n"),
                                  Not(HasSubstr("Memory 5\nthis"))));
    player[1].version = "8"; // the register keeps copies
    EXPECT_TRUE(check.match("Viewer", viewer, 1));
}

TEST(CheckIncludeVersionDeathTest, SuggestsTheHighestRevisions)
{
    IncludeVersion player[] = {{"URL: http://svn.example.com/Infra", "100"}, {"Local", "3"}};
    IncludeVersion recorder[] = {{"URL: http://svn.example.com/Infra", "101"}};
    CCheckIncludeVersionInter& check = makeRegister();
    const auto report = [&] {
        check.match("Player", player, 2);
        check.match("Recorder", recorder, 1);
        logToStandardError();
        check.checkResult();
    };
    EXPECT_DEATH(report(),
                 AllOf(HasSubstr("CCheckIncludeVersionInter::checkResult error:match error\n"),
                       HasSubstr("]--------include version all start---------\n"),
                       HasSubstr("]Local 3\n"),
                       HasSubstr("]URL: http://svn.example.com/Infra 101\n"),
                       HasSubstr(" ----------------check include report start---------------\n"),
                       HasSubstr(" [Player], include version suggest:\n"),
                       HasSubstr(" \nInfra -r101 http://svn.example.com/Infra\nnull -r3 Local\n"),
                       HasSubstr(" [Recorder], include is ok\n"),
                       HasSubstr(" ------------------------------------\n"),
                       HasSubstr(" ----------------check include report end---------------\n"),
                       HasSubstr("assertion (m_matchFlag) failed")));
}

TEST(CheckIncludeVersionDeathTest, ReportsVersionsThatAreNoNumbers)
{
    IncludeVersion broken[] = {{"URL: a", "12"}, {"URL: b", "12a"}, {nullptr, nullptr}, {"", ""}};
    Tarsel::TestSupport::CLogCapture log;
    CCheckIncludeVersionInter& check = makeRegister();
    EXPECT_FALSE(check.match("Broken", broken, 4));
    EXPECT_THAT(log.take(), AllOf(HasSubstr(" Broken version error\n"), HasSubstr(" URL: b 12a\n"),
                                  HasSubstr(" (null) (null)\n")));
    const auto report = [&] {
        logToStandardError();
        check.checkResult();
    };
    EXPECT_DEATH(report(), AllOf(HasSubstr("checkResult error:self error\n"),
                                 HasSubstr("libname:Broken, url:URL: b version:12a\n"),
                                 HasSubstr("libname:Broken, url:(null) version:(null)\n"),
                                 Not(HasSubstr("url:URL: a ")), HasSubstr("(m_matchFlag) failed")));
}

TEST(CheckIncludeVersionTest, TheLibraryItselfIsConsistent)
{
    Tarsel::TestSupport::CLogCapture log;
    CCheckIncludeVersion::checkResult();
    EXPECT_THAT(log.take(), HasSubstr("CCheckIncludeVersionInter::checkResult successful\n"));
}

} // namespace
