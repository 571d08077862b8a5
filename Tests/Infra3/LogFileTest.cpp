// Log files: where lines go, when a new file is begun, and what goes wrong.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Examples/MemoryFiles/MemoryFileSystem.h"
#include "Infra/Infra3/File.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra3/FileInternal.h"
#include "Infra3/LogFile.h"
#include "Support/ChildProcess.h"
#include "Support/FailingHeap.h"
#include "Support/LogCapture.h"
#include "Support/LogCommand.h"
#include "Support/SystemClock.h"
#include "Support/TemporaryFolder.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::ChildResult;
using TestSupport::CLogCapture;
using TestSupport::command;
using TestSupport::contentOf;
using TestSupport::countOf;
using TestSupport::runInChild;
using TestSupport::setContent;
namespace fs = std::filesystem;

/// Line `number`, of exactly 100 bytes.
std::string lineOf(int number)
{
    char text[120];
    snprintf(text, sizeof(text), "[ ]%06d%*s\n", number, 90, "|");
    return text;
}

std::string linesOf(int first, int last)
{
    std::string lines;
    for (int number = first; number <= last; ++number) {
        lines += lineOf(number);
    }
    return lines;
}

void logLine(int number)
{
    logInfo("%06d%*s\n", number, 90, "|");
}

void logLines(int first, int last)
{
    for (int number = first; number <= last; ++number) {
        logLine(number);
    }
}

/// A folder for the logs of one child, whose lines have no fields, whose day is the 17th of May 2030
/// and whose standard output shows the complaints about the file and nothing else.
class LogFileTest : public testing::Test
{
protected:
    /// Runs `body` in a child and gives what was printed about the file.
    template <typename Body>
    std::string complaintsOf(const Body& body)
    {
        const ChildResult result = runInChild([&] {
            CLogCapture printer;
            setUp();
            printf("BEGIN");
            body();
        });
        EXPECT_TRUE(result.succeeded()) << result.report();
        const std::string output = TestSupport::withoutColors(result.output);
        return output.substr(std::min(output.find("BEGIN") + 5, output.size()));
    }

    /// The same where nothing is to be complained about.
    template <typename Body>
    void run(const Body& body)
    {
        EXPECT_EQ(complaintsOf(body), "");
    }

    static void setUp()
    {
        setenv("TZ", "UTC", 1);
        tzset();
        setDay(0);
        PrintOptions options = {};
        options.time = options.color = options.libName = options.level = 1;
        options.thread = options.version = options.file = options.line = 1;
        setPrintOptions(options);
    }

    /// Noon of the 17th of May 2030 and so many days.
    static void setDay(int days)
    {
        TestSupport::shiftWallClock(1905249600 + 86400 * days - time(nullptr));
    }

    void openLog() const { command({"-logpath", log()}); }
    std::string log() const { return folder.path("app.log"); }
    std::string old(const std::string& end) const { return log() + "_2030-05-17_" + end; }

    /// "NAME:BYTES first line's number" of each file but for "app.log", sorted.
    std::vector<std::string> files() const
    {
        std::vector<std::string> all;
        for (const auto& entry : fs::directory_iterator(folder.path())) {
            const std::string name = entry.path().filename();
            all.push_back(name + ":" + contentOf(entry.path()).substr(3, 6));
        }
        std::sort(all.begin(), all.end());
        return all;
    }

    TestSupport::CTemporaryFolder folder;
};

typedef std::vector<std::string> Names;

TEST_F(LogFileTest, TheOldWayGoesOnWithTheFileThereAndEmptiesItInPlace)
{
    setContent(log(), std::string(1000, 'x'));
    run([&] {
        openLog();
        command({"-logsize", "1"});
        logLine(0);
        EXPECT_EQ(contentOf(log()), std::string(1000, 'x') + lineOf(0));
        logLine(1); // 1100 bytes: full
        EXPECT_EQ(contentOf(log()), lineOf(1));
        logLines(2, 11);
        EXPECT_EQ(contentOf(log()).size(), 1100U);
        logLine(12);
        EXPECT_EQ(contentOf(log()), lineOf(12));
        command({"-logsize", "3000000"}); // 2^31 and more: none
        logLines(13, 40);
        EXPECT_EQ(contentOf(log()), linesOf(12, 40));
        command({"-logsize", "4194305"}); // 2^32 + 1024
        logLine(41);
        EXPECT_EQ(contentOf(log()), lineOf(41));
        EXPECT_EQ(files(), Names({"app.log:000041"}));
    });
}

TEST_F(LogFileTest, BySizeTheOldestGoes)
{
    setContent(log(), lineOf(999));
    run([&] {
        openLog();
        command({"-logsavesetting", "BySize", "1", "3"});
        logLine(0);
        EXPECT_EQ(files(), Names({"app.log:000000", "app.log_2030-05-17_0:000999"}));
        logLines(1, 33);
        EXPECT_EQ(files(), Names({"app.log:000033", "app.log_2030-05-17_1:000000",
                                  "app.log_2030-05-17_2:000011", "app.log_2030-05-17_3:000022"}));
        logLines(34, 60);
        EXPECT_EQ(files(), Names({"app.log:000055", "app.log_2030-05-17_3:000022",
                                  "app.log_2030-05-17_4:000033", "app.log_2030-05-17_5:000044"}));
        EXPECT_EQ(contentOf(old("5")), linesOf(44, 54));
        command({"-logsavesetting", "bysize", "1", "-1"}); // all are kept
        logLines(61, 70);
        command({"-logsavesetting", "none"});
        logLines(71, 77); // the old way again: emptied at the twelfth line
        EXPECT_EQ(files().size(), 5U);
        EXPECT_EQ(contentOf(log()), linesOf(77, 77));
    });
}

TEST_F(LogFileTest, ByDayAFileIsNamedAfterTheDayItWasOpened)
{
    run([&] {
        openLog();
        command({"-logsavesetting", "byday", "on", "0"});
        logLine(1);
        const Infra_SystemTimeEx before = Infra_getCurrentTimeEx();
        setDay(1);
        logLine(2);
        EXPECT_EQ(files(), Names({"app.log:000002", "app.log_2030-05-17_0:000001"}));
        // A line that was laid out before midnight and arrives behind it.
        logFile().write(lineOf(3).c_str(), 100, before);
        logLine(4);
        EXPECT_EQ(contentOf(log()), linesOf(2, 4));
        // The clock is set back: that is another day.
        setDay(0);
        logLine(5);
        EXPECT_EQ(files(), Names({"app.log:000005", "app.log_2030-05-17_0:000001",
                                  "app.log_2030-05-18_0:000002"}));
        // Both rules at once, and by day no more.
        command({"-logsavesetting", "bysize", "1", "0"});
        logLines(6, 16);
        EXPECT_EQ(files().back(), "app.log_2030-05-18_0:000002");
        EXPECT_EQ(contentOf(old("1")), linesOf(5, 15));
        command({"-logsavesetting", "byday", "no", "0"});
        setDay(2);
        logLine(17);
        EXPECT_EQ(contentOf(log()), linesOf(16, 17));
    });
}

TEST_F(LogFileTest, AnOldFileKeepsTheTimeOfItsLastLine)
{
    const fs::file_time_type before = fs::file_time_type::clock::now() - std::chrono::hours(9999);
    setContent(log(), lineOf(900)); // of an earlier run
    fs::last_write_time(log(), before);
    run([&] {
        openLog();
        command({"-logsavesetting", "byday", "on", "0"});
        logLine(1);
        EXPECT_EQ(files(), Names({"app.log:000001", "app.log_2030-05-17_0:000900"}));
        EXPECT_EQ(fs::last_write_time(old("0")), before);
        fs::last_write_time(log(), before);
        setDay(1);
        logLine(2);
        EXPECT_EQ(fs::last_write_time(old("1")), before + std::chrono::nanoseconds(1));
    });
}

TEST_F(LogFileTest, WhatIsNoFileCountsAndStays)
{
    fs::create_directory(log() + ".d");
    fs::last_write_time(log() + ".d", fs::file_time_type());
    run([&] {
        openLog();
        command({"-logsavesetting", "bysize", "1", "2"});
        logLines(0, 22);
        EXPECT_TRUE(fs::exists(log() + ".d"));
        EXPECT_FALSE(fs::exists(old("0")));
        EXPECT_EQ(contentOf(old("1")), linesOf(11, 21));
    });
}

TEST_F(LogFileTest, NumbersEndWithTheHighest)
{
    setContent(old("2147483646"), "");
    const std::string complaints = complaintsOf([&] {
        openLog();
        command({"-logsavesetting", "bysize", "1", "0"});
        logLines(0, 22);
        EXPECT_EQ(contentOf(old("2147483647")), linesOf(0, 10));
        EXPECT_EQ(contentOf(log()), linesOf(11, 22));
    });
    EXPECT_EQ(countOf(complaints, "]rename faild,errno:17, errmesg:File exists\n"), 1);
    EXPECT_EQ(countOf(complaints, "\n"), 1) << complaints;
}

TEST_F(LogFileTest, TheNextNumberFollowsTheHighestOfTheDate)
{
    for (const char* end : {"2", "10", "7.gz", "99999999999", "x", ""}) {
        setContent(old(end), "");
    }
    setContent(log() + "_2030-05-16_50", "");
    setContent(folder.path("my_app.log_2030-05-17_60"), "");
    run([&] {
        openLog();
        command({"-logsavesetting", "bysize", "1", "0"});
        logLines(0, 11);
        EXPECT_EQ(contentOf(old("11")), linesOf(0, 10));
    });
}

TEST_F(LogFileTest, AnyNameMayBeALogsName)
{
    for (const std::string name : {"a b", "100%d_%s", "line\nend", "n_2030-05-17_3", "*"}) {
        run([&] {
            ASSERT_EQ(chdir(folder.path().c_str()), 0);
            command({"-logsavesetting", "bysize", "1", "0"});
            command({"-logpath", name});
            logLines(0, 11);
            EXPECT_EQ(contentOf(folder.path(name)), lineOf(11)) << name;
            EXPECT_EQ(contentOf(folder.path(name + "_2030-05-17_0")), linesOf(0, 10)) << name;
        });
    }
}

TEST_F(LogFileTest, AnotherPathCountsFromTheNextOpening)
{
    run([&] {
        openLog();
        logLine(1);
        command({"-logpath", folder.path("b.log")});
        logLine(2);
        logCleanup();
        logCleanup();
        logLine(3);
        command({"-logpath", ""});
        logLine(4);
        command({"-logpath", folder.path("b.log")});
        logLine(5); // the file is still open
        EXPECT_EQ(contentOf(log()), linesOf(1, 2));
        EXPECT_EQ(contentOf(folder.path("b.log")), lineOf(3) + lineOf(5));
    });
}

TEST_F(LogFileTest, ARotationUnderAnotherPathRenamesWhatIsThere)
{
    const std::string complaints = complaintsOf([&] {
        openLog();
        command({"-logsavesetting", "bysize", "1", "0"});
        logLines(0, 10);
        command({"-logpath", folder.path("b.log")});
        logLine(11); // there is nothing to rename yet
        logLine(12); // now there is
        EXPECT_EQ(contentOf(log()), linesOf(0, 10));
        EXPECT_EQ(contentOf(folder.path("b.log_2030-05-17_0")), lineOf(11));
        EXPECT_EQ(contentOf(folder.path("b.log")), lineOf(12));
        logLines(13, 22);
        command({"-logpath", ""});
        logLine(23); // one is due, and there is no file
        command({"-logpath", folder.path("b.log")});
        logLine(24);
        EXPECT_EQ(contentOf(folder.path("b.log_2030-05-17_1")), linesOf(12, 22));
        EXPECT_EQ(contentOf(folder.path("b.log")), lineOf(24));
    });
    EXPECT_EQ(countOf(complaints, "]rename faild,errno:2, errmesg:No such file or directory\n"), 1);
    EXPECT_EQ(complaints.find("[Src/Infra3/LogFile.cpp:"), 0U) << complaints;
}

TEST_F(LogFileTest, PathsOfDirectoriesSwitchTheFileOff)
{
    const std::string complaints = complaintsOf([&] {
        for (const char* path : {"logs/", "logs\\", "/"}) {
            openLog();
            command({"-logpath", path});
            logLine(1);
        }
        EXPECT_EQ(files(), Names());
    });
    EXPECT_EQ(countOf(complaints, "]logDir is invalid\n"), 3) << complaints;
}

TEST_F(LogFileTest, LinesAreWrittenAsTheyArePrinted)
{
    run([&] {
        openLog();
        logInfo("one");
        logInfo(", two\n");
        logInfo("a%cb\n", 0);
        PrintOptions options;
        getPrintOptions(&options);
        options.tologfile = 1;
        setPrintOptions(options);
        logInfo("not for the file\n");
        options.tologfile = 0;
        setPrintOptions(options);
        Infra_getPrintOption()->tologfile = 1;
        logInfo("nor is this, says C code\n");
        Infra_getPrintOption()->tologfile = 0;
        EXPECT_EQ(contentOf(log()), std::string("[ ]one, two\n[ ]a\0b\n", 19));
        logInfo("%s", std::string(9000, 'y').c_str());
        EXPECT_EQ(contentOf(log()).size(), 19U + 8190);
    });
}

/// Calls of write() that this process has made.
long writesSoFar()
{
    const std::string text = contentOf("/proc/self/io");
    const size_t at = text.find("syscw: ");
    return at == std::string::npos ? -1 : std::stol(text.substr(at + 7));
}

int descriptorOf(const std::string& path)
{
    for (int descriptor = 3; descriptor < 100; ++descriptor) {
        std::error_code none;
        if (fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), none) == path) {
            return descriptor;
        }
    }
    return -1;
}

TEST_F(LogFileTest, TheFileIsOpenToAppendClosedOnExecAndWrittenOnceALine)
{
    const bool isCounted = writesSoFar() >= 0;
    run([&] {
        close(STDIN_FILENO); // as a service does: the log must not take that place
        openLog();
        command({"-logsavesetting", "bysize", "4", "0"});
        logLines(0, 41); // once renamed
        EXPECT_EQ(files().size(), 2U);
        const int descriptor = descriptorOf(log());
        ASSERT_GT(descriptor, STDERR_FILENO);
        EXPECT_NE(fcntl(descriptor, F_GETFL) & O_APPEND, 0);
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
        ASSERT_EQ(truncate(log().c_str(), 0), 0); // from outside: no hole
        const long before = writesSoFar();
        logLines(42, 61);
        EXPECT_TRUE(!isCounted || writesSoFar() == before + 20);
        EXPECT_EQ(contentOf(log()), linesOf(42, 61));
        fs::rename(log(), folder.path("elsewhere")); // as a log rotator does
        logLine(62);
        logCleanup();
        logLine(63);
        EXPECT_EQ(contentOf(folder.path("elsewhere")), linesOf(42, 62));
        EXPECT_EQ(contentOf(log()), lineOf(63));
    });
    if (!isCounted) {
        GTEST_SKIP() << "the system does not count the writes";
    }
}

// --- failures -----------------------------------------------------------------------------------

TEST_F(LogFileTest, ADirectoryThatGoesAndComesBack)
{
    const std::string logs = folder.path("logs");
    const std::string complaints = complaintsOf([&] {
        command({"-logpath", logs + "/app.log"});
        command({"-logsavesetting", "bysize", "1", "0"});
        logLine(0); // not there yet
        fs::create_directory(logs);
        logLines(1, 11);
        fs::remove_all(logs);
        logLine(12); // no listing, no renaming, no file
        logLine(13);
        fs::create_directory(logs);
        logLine(14);
        EXPECT_EQ(contentOf(logs + "/app.log"), lineOf(14));
    });
    EXPECT_EQ(countOf(complaints, "]fopen faild,errno:2, errmesg:No such file or directory\n"), 3);
    EXPECT_EQ(countOf(complaints, "]rename faild,errno:2, errmesg:No such file or directory\n"), 1);
    EXPECT_EQ(countOf(complaints, "[Src/Infra3/LogFileNames.cpp:"), 1);
    EXPECT_EQ(countOf(complaints, "]no such logpath\n"), 1);
    EXPECT_EQ(countOf(complaints, "\n"), 5) << complaints;
}

TEST_F(LogFileTest, WhatIsNoFileIsNeverRenamed)
{
    const std::string complaints = complaintsOf([&] {
        ASSERT_EQ(mkfifo(log().c_str(), 0600), 0);
        openLog();
        command({"-logsavesetting", "bysize", "1", "1"});
        logLines(0, 30); // nobody reads, nobody waits
        EXPECT_TRUE(fs::is_fifo(log()));
        EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 1);
        command({"-logpath", "/dev/full"}); // a rotation is due: it brings the new path
        logLines(0, 30);
        EXPECT_EQ(descriptorOf(log()), -1);
        EXPECT_GT(descriptorOf("/dev/full"), 0);
        setContent(folder.path("b.log"), lineOf(900));
        command({"-logpath", folder.path("b.log")});
        logLines(31, 41);
        EXPECT_EQ(contentOf(folder.path("b.log_2030-05-17_0")), lineOf(900));
        EXPECT_EQ(contentOf(folder.path("b.log")), linesOf(31, 41));
        openLog(); // from a file that is full to the pipe
        logLines(42, 60);
        EXPECT_TRUE(fs::is_fifo(log()));
        EXPECT_EQ(contentOf(folder.path("b.log")), linesOf(31, 41));
        command({"-logpath", "/dev/null"});
        command({"-logsavesetting", "none"});
        logCleanup();
        logLine(31); // as full as the pipe was, and not to be emptied
    });
    EXPECT_EQ(countOf(complaints, "]ftruncate faild,errno:22, errmesg:Invalid argument\n"), 1)
        << complaints;
    EXPECT_EQ(countOf(complaints, "\n"), 1);
}

/// While it lives, the process belongs to a user whom modes of files concern. The folder and what is
/// in it is given to him.
class CNobody
{
public:
    explicit CNobody(const std::string& path) : m_wasRoot(geteuid() == 0)
    {
        if (m_wasRoot) {
            for (const auto& entry : fs::directory_iterator(path)) {
                EXPECT_EQ(chown(entry.path().c_str(), 65534, 65534), 0);
            }
            EXPECT_EQ(chown(path.c_str(), 65534, 65534), 0);
            EXPECT_EQ(seteuid(65534), 0);
        }
    }
    ~CNobody()
    {
        if (m_wasRoot) {
            EXPECT_EQ(seteuid(0), 0);
            prctl(PR_SET_DUMPABLE, 1); // the look for leaks at the end needs it
        }
    }
    CNobody(const CNobody&) = delete;
    CNobody& operator=(const CNobody&) = delete;

private:
    const bool m_wasRoot;
};

TEST_F(LogFileTest, AReadOnlyFileTakesNoLines)
{
    setContent(log(), "kept");
    const std::string complaints = complaintsOf([&] {
        const CNobody nobody(folder.path());
        ASSERT_EQ(chmod(log().c_str(), 0444), 0);
        openLog();
        logLines(0, 1);
        EXPECT_EQ(contentOf(log()), "kept");
        ASSERT_EQ(chmod(log().c_str(), 0644), 0);
        logLine(2);
        EXPECT_EQ(contentOf(log()), "kept" + lineOf(2));
    });
    EXPECT_EQ(countOf(complaints, "]fopen faild,errno:13, errmesg:Permission denied\n"), 2);
    EXPECT_EQ(countOf(complaints, "\n"), 2) << complaints;
}

TEST_F(LogFileTest, ADirectoryThatCannotBeListedLosesNoOldFile)
{
    const std::string complaints = complaintsOf([&] {
        const CNobody nobody(folder.path());
        ASSERT_EQ(chmod(folder.path().c_str(), 0300), 0);
        openLog();
        command({"-logsavesetting", "bysize", "1", "1"});
        logLines(0, 22);
        EXPECT_EQ(contentOf(old("0")), linesOf(0, 10));
        EXPECT_EQ(contentOf(old("1")), linesOf(11, 21));
        fs::rename(old("1"), folder.path("elsewhere"));
        logLines(23, 33); // behind a number that is taken comes none that was given
        EXPECT_EQ(contentOf(old("2")), linesOf(22, 32));
        ASSERT_EQ(chmod(folder.path().c_str(), 0700), 0);
    });
    EXPECT_EQ(countOf(complaints, "]no such logpath\n"), 6) << complaints; // twice a rotation
}

TEST_F(LogFileTest, ADirectoryThatMayNotBeChangedKeepsTheFileGrowing)
{
    const std::string complaints = complaintsOf([&] {
        const CNobody nobody(folder.path());
        openLog();
        command({"-logsavesetting", "bysize", "1", "0"});
        logLines(0, 10);
        ASSERT_EQ(chmod(folder.path().c_str(), 0500), 0);
        logLine(11);
        EXPECT_EQ(contentOf(log()), linesOf(0, 11));
        ASSERT_EQ(chmod(folder.path().c_str(), 0700), 0);
        logLine(12);
        EXPECT_EQ(contentOf(old("0")), linesOf(0, 11));
        EXPECT_EQ(contentOf(log()), lineOf(12));
    });
    EXPECT_EQ(countOf(complaints, "]rename faild,errno:13, errmesg:Permission denied\n"), 1);
    EXPECT_EQ(countOf(complaints, "\n"), 1) << complaints;
}

TEST_F(LogFileTest, AComplaintDoesNotHoldUpWhoHasStandardOutput)
{
    const std::string complaints = complaintsOf([&] {
        command({"-logpath", folder.path("none/app.log")});
        std::thread other([] { logLines(0, 999); });
        for (int number = 0; number < 1000; ++number) {
            flockfile(stdout);
            logLine(number);
            funlockfile(stdout);
        }
        other.join();
    });
    EXPECT_EQ(countOf(complaints, "]fopen faild,errno:2, errmesg:No such file or directory\n"),
              2000);
    EXPECT_EQ(countOf(complaints, "\n"), 2000);
}

TEST_F(LogFileTest, LinksToNothingAmongTheOldFilesLoseNone)
{
    for (const char* end : {"0", "3", "7"}) {
        ASSERT_EQ(symlink("/no/such/target", old(end).c_str()), 0);
    }
    setContent(old("1"), lineOf(900));
    const ChildResult result = runInChild([&] {
        setUp();
        openLog();
        command({"-logsavesetting", "bysize", "1", "0"});
        logLines(0, 44);
    });
    EXPECT_TRUE(result.succeeded());
    // Whatever the listing shows of the folder, nothing is written over, and the lines about the
    // links are on standard output, not in the file.
    EXPECT_EQ(contentOf(old("1")), lineOf(900));
    EXPECT_EQ(contentOf(old("2")), linesOf(0, 10));
    EXPECT_EQ(contentOf(old("4")), linesOf(11, 21));
    EXPECT_EQ(contentOf(old("5")), linesOf(22, 32));
    EXPECT_EQ(contentOf(old("6")), linesOf(33, 43));
    EXPECT_EQ(contentOf(log()), lineOf(44));
    for (const char* end : {"0", "3", "7"}) {
        EXPECT_TRUE(fs::is_symlink(old(end)));
    }
}

TEST_F(LogFileTest, AFileThatMayNotGrowKeepsWholeLines)
{
    run([&] {
        signal(SIGXFSZ, SIG_IGN);
        openLog();
        command({"-logsavesetting", "bysize", "1", "0"});
        const rlimit most = {950, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &most), 0);
        logLines(0, 30); // nine fit, and half of the tenth would
        EXPECT_EQ(contentOf(log()), linesOf(0, 8));
        const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
        logLines(31, 33);
        EXPECT_EQ(contentOf(old("0")), linesOf(0, 8) + linesOf(31, 32));
        EXPECT_EQ(contentOf(log()), lineOf(33));
    });
}

TEST_F(LogFileTest, AFullDiskLosesLinesAndNoFiles)
{
    const std::string disk = folder.path("disk");
    fs::create_directory(disk);
    const std::string complaints = complaintsOf([&] {
        const int space = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
        if (unshare(space) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k") != 0) {
            printf("no disk");
            return;
        }
        const std::string path = disk + "/app.log";
        const auto oldFiles = [&] { return std::distance(fs::directory_iterator(disk), {}) - 2; };
        setContent(disk + "/other", std::string(16384, 'o'));
        command({"-logpath", path});
        command({"-logsavesetting", "bysize", "8", "0"});
        logLines(0, 999);
        const auto before = oldFiles();
        logLines(1000, 1999);
        EXPECT_EQ(oldFiles(), before);
        fs::remove(disk + "/other");
        logLines(2000, 2019);
        std::string all;
        for (int number = 0; number <= oldFiles(); ++number) {
            all += contentOf(path + "_2030-05-17_" + std::to_string(number));
        }
        all += contentOf(path);
        const std::string::size_type whole = all.find(lineOf(2000));
        ASSERT_NE(whole, std::string::npos);
        EXPECT_EQ(all.substr(whole), linesOf(2000, 2019));
        EXPECT_EQ(all.substr(0, whole), linesOf(0, static_cast<int>(whole / 100) - 1));
    });
    if (complaints == "no disk") {
        GTEST_SKIP() << "the system refuses a disk of our own";
    }
    EXPECT_EQ(complaints, "");
}

TEST_F(LogFileTest, WithoutMemoryLinesStayInTheFileThatIsOpen)
{
    TestSupport::expectToSurviveShortage({[&] {
                                              setUp();
                                              setLogPrinter(LogPrinterProc([](const char*) {}));
                                              openLog();
                                              command({"-logsavesetting", "bysize", "1", "2"});
                                              logLines(0, 9);
                                          },
                                          [] { logLines(10, 12); },
                                          [&] {
                                              logLines(13, 13);
                                              EXPECT_EQ(contentOf(old("0")) + contentOf(log()),
                                                        linesOf(0, 13));
                                              fs::remove(log());
                                              fs::remove(old("0"));
                                          },
                                          ""});
}

TEST_F(LogFileTest, WithoutMemoryForTheFirstLineTheDayOfOpeningIsKnown)
{
    TestSupport::expectToSurviveShortage({[&] {
                                              setUp();
                                              setLogPrinter(LogPrinterProc([](const char*) {}));
                                              setContent(log(), lineOf(900));
                                              openLog();
                                              command({"-logsavesetting", "byday", "on", "0"});
                                          },
                                          [] { logLine(1); },
                                          [&] {
                                              setDay(1);
                                              logLine(2);
                                              EXPECT_EQ(contentOf(log()), lineOf(2));
                                              for (const auto& entry :
                                                   fs::directory_iterator(folder.path())) {
                                                  fs::remove(entry.path());
                                              }
                                          },
                                          ""});
}

// --- threads ------------------------------------------------------------------------------------

constexpr int writers = 8;
constexpr int linesOfEach = 1500;

/// Runs body(thread) on eight threads, and `meanwhile` here until they are through.
template <typename Body, typename Meanwhile>
void onThreads(const Body& body, const Meanwhile& meanwhile)
{
    std::atomic<int> running{writers};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < writers; ++thread) {
        threads.emplace_back([&, thread] {
            body(thread);
            --running;
        });
    }
    while (running > 0) {
        meanwhile();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void logFromThread(int thread)
{
    logLines(thread * linesOfEach, (thread + 1) * linesOfEach - 1);
}

/// Every line of every thread stands in one file, whole and once.
void expectEachLineOnce(const std::string& folder)
{
    std::map<std::string, int> counts;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string content = contentOf(entry.path());
        ASSERT_EQ(content.size() % 100, 0U) << entry.path();
        for (size_t at = 0; at < content.size(); at += 100) {
            ++counts[content.substr(at, 100)];
        }
    }
    EXPECT_EQ(counts.size(), static_cast<size_t>(writers * linesOfEach));
    for (int number = 0; number < writers * linesOfEach; ++number) {
        ASSERT_EQ(counts[lineOf(number)], 1) << number;
    }
}

TEST_F(LogFileTest, EveryFileOfManyThreadsEndsWithTheLineThatFilledIt)
{
    run([&] {
        openLog();
        command({"-logsavesetting", "bysize", "8", "0"});
        onThreads(logFromThread, [] { std::this_thread::yield(); });
        for (int number = 0; number < 12000 / 82; ++number) {
            ASSERT_EQ(contentOf(old(std::to_string(number))).size(), 8200U) << number;
        }
        expectEachLineOnce(folder.path());
    });
}

TEST_F(LogFileTest, NoLineIsLostWhileCommandsArrive)
{
    run([&] {
        openLog();
        command({"-logsavesetting", "bysize", "8", "0"});
        int round = 0;
        onThreads(logFromThread, [&] {
            command({"-logsavesetting", "bysize", round % 2 == 0 ? "8" : "20", "0"});
            command({"-logsavesetting", "byday", round % 2 == 0 ? "on" : "off", "0"});
            command({"-logmodule", "Net" + std::to_string(round % 10), "off"});
            command({"-logmodulestatistics", round % 2 == 0 ? "on" : "off"});
            command({"-loglevel", round % 2 == 0 ? "4" : "5"});
            openLog();
            if (++round % 8 == 0) {
                logCleanup();
            }
            std::this_thread::yield();
        });
        EXPECT_GT(round, 0);
        expectEachLineOnce(folder.path());
    });
}

/// Lists and removes on the disk.
class CHookedDisk : public CMemoryFileSystem
{
public:
    explicit CHookedDisk(const std::string& root) : CMemoryFileSystem(root, 1 << 20) {}

    long findfirst(const char* pattern, FileInfo& info) override
    {
        return FileDefaultOpt::instance()->findfirst(pattern, info);
    }
    int findnext(long handle, FileInfo& info) override
    {
        return FileDefaultOpt::instance()->findnext(handle, info);
    }
    int findclose(long handle) override { return FileDefaultOpt::instance()->findclose(handle); }
    int remove(const char* path) override { return FileDefaultOpt::instance()->remove(path); }
};

/// Has another thread do something while the n-th listing is asked for.
class CBusyFileSystem : public CHookedDisk
{
public:
    CBusyFileSystem(const std::string& root, int listing, std::function<void()> meanwhile)
        : CHookedDisk(root), m_listing(listing), m_meanwhile(std::move(meanwhile))
    {}

    long findfirst(const char* pattern, FileInfo& info) override
    {
        if (--m_listing == 0) {
            std::thread(m_meanwhile).join();
        }
        return CHookedDisk::findfirst(pattern, info);
    }

private:
    std::atomic<int> m_listing;
    const std::function<void()> m_meanwhile;
};

TEST_F(LogFileTest, WhateverComesWhileAHookRunsNoLineIsLost)
{
    const struct
    {
        std::function<void()> meanwhile;
        int lines;               ///< from 100 on
        std::string together[2]; ///< lines of one file, for each of the two listings
    } cases[] = {
        {[&] {
             logLine(100);
             logCleanup();
         },
         1,
         {lineOf(100) + lineOf(11), lineOf(11) + lineOf(100)}},
        {[&] {
             command({"-logpath", folder.path("b.log")});
             logCleanup();
         },
         0,
         {lineOf(900) + lineOf(11), lineOf(900) + lineOf(12)}},
        {[&] {
             command({"-logpath", folder.path("b.log")});
             logLine(100);
             logCleanup();
             logLine(101);
         },
         2,
         {lineOf(900) + lineOf(101) + lineOf(11), lineOf(900) + lineOf(101) + lineOf(12)}},
    };
    for (const auto& [meanwhile, lines, together] : cases) {
        for (const int listing : {1, 2}) { // for the number, for the limit
            setContent(folder.path("b.log"), lineOf(900));
            run([&, meanwhile = meanwhile] {
                CBusyFileSystem busy(folder.path(), listing, meanwhile);
                hookFileSystem(folder.path().c_str(), &busy);
                openLog();
                command({"-logsavesetting", "bysize", "1", "5"});
                logLines(0, 12);
                command({"-logpath", ""});
                hookFileSystem(folder.path().c_str(), nullptr);
            });
            std::string all;
            int found = 0;
            for (const auto& entry : fs::directory_iterator(folder.path())) {
                found += countOf(contentOf(entry.path()), together[listing - 1]);
                all += contentOf(entry.path());
                fs::remove(entry.path());
            }
            for (int number = 0; number <= 12; ++number) {
                EXPECT_EQ(countOf(all, lineOf(number)), 1) << number;
            }
            EXPECT_EQ(countOf(all, lineOf(900)), 1);
            EXPECT_EQ(countOf(all, "[ ]0001"), lines);
            EXPECT_EQ(all.size(), 1400U + 100 * static_cast<size_t>(lines));
            EXPECT_EQ(found, 1) << listing;
        }
    }
}

/// Lists and removes on the disk, under a lock of its own, and has something to say meanwhile. The
/// lock is recursive, for the line of access() may be the one that has a listing asked for.
class CTalkingFileSystem : public CHookedDisk
{
public:
    using CHookedDisk::CHookedDisk;

    long findfirst(const char* pattern, FileInfo& info) override
    {
        const std::lock_guard<std::recursive_mutex> guard(m_lock);
        logInfo("listing is asked for\n");
        return CHookedDisk::findfirst(pattern, info);
    }
    int remove(const char* path) override
    {
        const std::lock_guard<std::recursive_mutex> guard(m_lock);
        logInfo("removing is asked for\n");
        return CHookedDisk::remove(path);
    }
    int access(const char*, int) override
    {
        const std::lock_guard<std::recursive_mutex> guard(m_lock);
        logLine(m_next++); // waits for the log file, if that is what it takes
        return 0;
    }
    int linesOfItsOwn() const { return m_next - writers * linesOfEach; }

private:
    std::recursive_mutex m_lock;
    int m_next = writers * linesOfEach;
};

TEST_F(LogFileTest, AHookedFileSystemMayLogUnderItsOwnLock)
{
    run([&] {
        CTalkingFileSystem talking(folder.path());
        hookFileSystem(folder.path().c_str(), &talking);
        openLog();
        command({"-logsavesetting", "bysize", "8", "0"});
        onThreads(
            [&](int thread) {
                for (int i = 0; i < linesOfEach; ++i) {
                    logLine(thread * linesOfEach + i);
                    if (i % 5 == 0) {
                        CFile::access(folder.path("x").c_str(), 0);
                    }
                    if (i % 500 == 0) {
                        logCleanup();
                    }
                }
            },
            [] { std::this_thread::yield(); });
        hookFileSystem(folder.path().c_str(), nullptr);
        std::string all;
        for (const auto& entry : fs::directory_iterator(folder.path())) {
            all += contentOf(entry.path());
        }
        EXPECT_EQ(all.find("asked for"), std::string::npos); // said inside of the log file
        EXPECT_EQ(talking.linesOfItsOwn(), writers * linesOfEach / 5);
        EXPECT_EQ(countOf(all, "|\n"), writers * (linesOfEach + linesOfEach / 5));
        EXPECT_EQ(countOf(all, lineOf(0)) + countOf(all, lineOf(11999)), 2);
        EXPECT_GT(files().size(), 20U);

        command({"-logsavesetting", "bysize", "8", "3"});
        hookFileSystem(folder.path().c_str(), &talking);
        const size_t before = files().size();
        logLines(20000, 20100); // one or two rotations: one file goes for each that comes
        EXPECT_EQ(files().size(), before);
    });
}

TEST_F(LogFileTest, ForkedChildrenLogIntoTheSameFile)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS();
    run([&] {
        setLogPrinter(LogPrinterProc([](const char*) {})); // one without a lock of its own
        openLog();
        int children = 0;
        onThreads(logFromThread, [&] {
            const pid_t child = fork();
            if (child == 0) {
                alarm(20);
                logLine(50000 + children);
                _exit(0);
            }
            int status = 0;
            waitpid(child, &status, 0);
            EXPECT_EQ(status, 0);
            ++children;
        });
        const std::string content = contentOf(log());
        EXPECT_EQ(content.size(), 100U * (writers * linesOfEach + static_cast<size_t>(children)));
        EXPECT_EQ(countOf(content, "[ ]05"), children);
    });
}

} // namespace
} // namespace Infra
} // namespace Tarsel
