// infra-log as its users run it, on lines that the library made.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Infra/Infra3/PrintLog.h"
#include "Support/Eventually.h"
#include "Support/RunTool.h"

using namespace Tarsel::Infra;
using nlohmann::json;
using Tarsel::TestSupport::eventually;
using Tarsel::TestSupport::Ran;
using Tarsel::TestSupport::runTool;
using testing::HasSubstr;

namespace fs = std::filesystem;

namespace
{

std::string* s_printed = nullptr;

void keepPrinted(const char* text)
{
    *s_printed += text;
}

class LogTool : public testing::Test
{
protected:
    LogTool()
    {
        std::string path = (fs::temp_directory_path() / "infra-log.XXXXXX").string();
        m_directory = mkdtemp(path.data());
        m_log = (m_directory / "app.log").string();
    }
    ~LogTool() override { fs::remove_all(m_directory); }

    void write(const std::string& name, const std::string& text, bool append = false) const
    {
        std::ofstream(m_directory / name, append ? std::ios::app : std::ios::trunc) << text;
    }
    /// Makes the file look as if changed last at noon of that day in November 2026.
    void setDay(const std::string& name, int day) const
    {
        struct tm noon = {};
        noon.tm_year = 2026 - 1900;
        noon.tm_mon = 10;
        noon.tm_mday = day;
        noon.tm_hour = 12;
        noon.tm_isdst = -1;
        const timespec times[2] = {{mktime(&noon), 0}, {mktime(&noon), 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (m_directory / name).c_str(), times, 0), 0);
    }
    Ran tool(const std::string& arguments, const char* errors = " 2>&1") const
    {
        return runTool("cd '" + m_directory.string() + "' && " INFRA_LOG_TOOL " " + arguments +
                       errors);
    }
    std::vector<json> records(const std::string& arguments) const
    {
        std::istringstream lines(tool(arguments + " --json").output);
        std::vector<json> all;
        for (std::string line; std::getline(lines, line);) {
            all.push_back(json::parse(line, nullptr, false));
        }
        return all;
    }
    std::string messages(const std::string& arguments) const
    {
        std::string all;
        for (const json& record : records(arguments)) {
            all += record["message"].get<std::string>() + "|";
        }
        return all;
    }

    fs::path m_directory;
    std::string m_log;
};

std::string line(int number, const char* time = "10:00:00")
{
    char text[64];
    snprintf(text, sizeof(text), "[%s info App 7 a.cpp:1]%d\n", time, number);
    return text;
}

} // namespace

TEST_F(LogTool, ReadsWhatTheLibraryPrintsWithAnyOptions)
{
    std::string printed;
    s_printed = &printed;
    setLogPrinter(keepPrinted);
    std::vector<json> expected;
    constexpr unsigned choices = 1u << 10;
    for (unsigned choice = 0; choice < choices; ++choice) {
        const auto chosen = [choice](int bit) { return (choice >> bit & 1) != 0; };
        PrintOptions options = {};
        options.color = 1;
        options.date = chosen(0);
        options.millisecond = chosen(1);
        options.level = chosen(2);
        options.libName = chosen(3);
        options.version = chosen(4);
        options.thread = chosen(5);
        options.file = options.line = chosen(6);
        options.function = chosen(7);
        options.style = chosen(8);
        options.time = chosen(9);
        if (!options.style && options.time && options.thread && options.file && options.level) {
            continue; // nothing is left by which a line could be told from text
        }
        setPrintOptions(options);
        logFilter(logLevelWarn, "My Net", "/src/Sub.Dir/worker.cpp", "work", 120, "812M", "%u\n",
                  choice);
        json record = json::object();
        if (!options.level) {
            record["level"] = "warn";
        }
        if (!options.libName) {
            record["module"] = "My Net";
        }
        if (!options.version) {
            record["revision"] = "812M";
        }
        if (!options.thread) {
            record["thread"] = gettid();
        }
        if (!options.file) {
            record["file"] = "worker.cpp";
            record["line"] = 120;
        }
        if (options.function) {
            record["function"] = "work";
        }
        record["message"] = std::to_string(choice);
        expected.push_back(record);
    }
    setLogPrinter(nullptr);
    setPrintOptions({});
    write("app.log", printed);

    std::vector<json> got = records("app.log");
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); ++i) {
        const unsigned choice =
            static_cast<unsigned>(std::stoul(expected[i]["message"].get<std::string>()));
        EXPECT_EQ(got[i].contains("time"), (choice >> 9 & 1) == 0) << got[i];
        got[i].erase("time");
        EXPECT_EQ(got[i], expected[i]);
    }
}

TEST_F(LogTool, TellsRecordsFromTheirText)
{
    const std::string head = "[10:00:00 info Infra:8M 4711 w.cpp:1]";
    const struct
    {
        const char* text;
        std::string messages; // each with a bar behind it
    } cases[] = {
        {"one\ntwo\n\n[1,2] three\n", "one\ntwo\n\n[1,2] three|"},
        {"a\n[10:00:01 and then] b\n", "a\n[10:00:01 and then] b|"},
        {"a\n[warn] b\n[] c\n[", "a\n[warn] b\n[] c\n[|"},
        {"a\n[10:00:01 warn Net 5 x.cpp:2 operator[]]b\n", "a|b|"},
        {"a\n\033[32;40m[10:00:01 warn Net 5 x.cpp:2]b\n\033[0m", "a|b|"},
        {"a\n\033[31mred\033[0m\n\033[0m\n", "a\n\033[31mred\033[0m\n\033[0m|"},
        {"a\n[10:00:01 warn ]b\n[10:00:01 ]c\n", "a|b|c|"},
        {"a\n[25:00:01 warn Net 5 x.cpp:2]b\n", "a\n[25:00:01 warn Net 5 x.cpp:2]b|"},
        {"\xff\xfe\n", "\xef\xbf\xbd\xef\xbf\xbd|"},
    };
    for (const auto& one : cases) {
        write("app.log", head + one.text);
        EXPECT_EQ(messages("app.log"), one.messages) << one.text;
        if (std::string(one.text).find('\033') == std::string::npos) {
            const std::string text = head + one.text;
            EXPECT_EQ(tool("app.log").output, text + (text.back() == '\n' ? "" : "\n"));
        }
    }

    // What the log had to cut has no line end.
    std::string printed;
    s_printed = &printed;
    setLogPrinter(keepPrinted);
    logInfo("%s\n", std::string(9000, 'x').c_str());
    logInfo("next\n");
    setLogPrinter(nullptr);
    write("app.log", printed);
    const std::vector<json> cut = records("app.log");
    ASSERT_EQ(cut.size(), 2u);
    EXPECT_EQ(cut[1]["message"], "next");

    // A record of many lines comes in parts, and each of them is filtered like the first.
    write("app.log", head + "first\n" + std::string(3 << 20, 'y') + "\nlast\n" + head + "other\n");
    EXPECT_EQ(tool("-m Infra app.log").output.size(), fs::file_size(m_log));
    EXPECT_EQ(tool("-m Net app.log").output, "");
}

TEST_F(LogTool, ReadsRenamedFilesInTheOrderInWhichTheyWereWritten)
{
    write("app.log_2026-11-22_10", line(4));
    write("app.log_2026-11-22_2", line(3) + "it goes");
    write("app.log_2026-11-22_9999999999999999999999", line(99));
    write("app.log_2025-12-31_0", line(1));
    write("app.log_2026-11-22_2.bak", line(98));
    write("other.log", line(97));
    write("app.log", line(5));
    EXPECT_EQ(messages("app.log"), "1|3\nit goes|4|5|");
    EXPECT_EQ(messages("--no-renamed app.log"), "5|");
    EXPECT_EQ(messages("app.log_2026-11-22_10 app.log_2026-11-22_2"), "3\nit goes|4|");
    EXPECT_EQ(messages("app.log app.log_2026-11-22_10 other.log"), "1|3\nit goes|4|5|97|");
    EXPECT_EQ(messages("--no-renamed app.log app.log_2025-12-31_0"), "1|5|");
    EXPECT_EQ(messages("- <app.log"), "5|");
    fs::remove(m_log);
    EXPECT_EQ(messages("app.log"), "1|3\nit goes|4|");

    for (const char* const bad : {"app.log_2025-12-31_1", "app.log_2026-11-22_11"}) {
        fs::create_directory(m_directory / bad);
    }
    write("app.log", line(5));
    const Ran others = tool("app.log", "");
    EXPECT_EQ(others.code, 2);
    EXPECT_EQ(others.output, line(1) + line(3) + "it goes\n" + line(4) + line(5));
    EXPECT_EQ(tool("app.log app.log_2025-12-31_1", " 2>&1 >/dev/null").output,
              "infra-log: app.log_2025-12-31_1: Is a directory\n"
              "infra-log: app.log_2026-11-22_11: Is a directory\n");
    EXPECT_EQ(tool("app.log_2025-12-31_1 app.log_2026-11-22_10", "").output, line(4));
    EXPECT_EQ(tool("--no-renamed app.log").code, 0);

    const Ran missing = tool("nowhere.log other.log");
    EXPECT_EQ(missing.code, 2);
    EXPECT_THAT(missing.output, HasSubstr("nowhere.log: there is no such file"));
    EXPECT_THAT(missing.output, HasSubstr("]97\n")); // the rest is printed all the same
    EXPECT_EQ(tool("other.log", " >/dev/full 2>&1").code, 2);
    for (const char* const wrong :
         {"", "--level loud other.log", "--since yesterday other.log", "--thread x other.log", ".",
          "--since 2026-11-2310:04 other.log", "--since 2026-11-23T other.log",
          "--until 10:04:60 other.log", "-f other.log app.log", "-f -", "-f app.log_2025-12-31_0",
          "no/such/directory.log"}) {
        EXPECT_EQ(tool(wrong).code, 2) << wrong;
    }
}

TEST_F(LogTool, FiltersByLevelModuleThreadAndTime)
{
    write("app.log_2026-11-20_0", "[22:00:00 fatal Net 1 a.cpp:1]a\n"
                                  "[23:59:59.999 error Disk 2 a.cpp:1]b\n"
                                  "[00:00:00 warn Net:8M 2 a.cpp:1]c\nmore\n"
                                  "[12:00:00 trace Disk 1 a.cpp:1]d\n"
                                  "[ Net 3 a.cpp:1]e\n");
    setDay("app.log_2026-11-20_0", 21);
    const std::string log = " app.log_2026-11-20_0";
    const struct
    {
        const char* arguments;
        const char* messages;
    } cases[] = {
        {"", "a|b|c\nmore|d|e|"},
        {"-l error", "a|b|"},
        {"--level 3", "a|b|c\nmore|"},
        {"-m Net", "a|c\nmore|e|"},
        {"-m Net -m Disk -t 2", "b|c\nmore|"},
        {"--since 2026-11-21", "c\nmore|d|"},
        {"--since '2026-11-20 23:59:59.999' --until 2026-11-21T00:00", "b|c\nmore|"},
        {"--until 2026-11-20T22:00", "a|"},
        {"--since 2026-11-22", ""},
        {"-t 9", ""},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(messages(one.arguments + log), one.messages) << one.arguments;
    }
    // What an earlier run had left is named after the day on which it was found.
    write("late.log_2026-11-20_0", line(1, "23:00:00") + line(2, "01:00:00"));
    setDay("late.log_2026-11-20_0", 18);
    EXPECT_EQ(records("late.log").front()["time"], "2026-11-17T23:00:00.000");
    // A file that is written now ends on the day on which it was changed last.
    write("app.log", line(1, "23:00:00") + line(2, "01:00:00"));
    struct tm parts = {};
    const time_t now = time(nullptr);
    localtime_r(&now, &parts);
    char today[32];
    strftime(today, sizeof(today), "%Y-%m-%dT01:00:00.000", &parts);
    EXPECT_EQ(records("--no-renamed app.log").back()["time"], today);
}

TEST_F(LogTool, FollowsALogThroughItsRenamings)
{
    write("app.log", line(0));
    const std::string output = (m_directory / "output").string();
    const std::string command = "cd '" + m_directory.string() +
                                "' && exec " INFRA_LOG_TOOL " -f --interval 0.002 app.log >" +
                                output;
    const pid_t follower = fork();
    if (follower == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    const auto printed = [&output] {
        std::ifstream file(output);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    std::string expected = line(0);
    const auto add = [&](int number) {
        write("app.log", line(number), true);
        expected += line(number);
    };
    const auto isShown = [&] { return printed() == expected; };
    EXPECT_TRUE(eventually(isShown));
    int number = 0;
    for (int round = 0; round < 200; ++round) { // faster than it looks
        for (int i = 0; i < 3; ++i) {
            add(++number);
        }
        fs::rename(m_log, m_log + "_2026-11-22_" + std::to_string(round));
    }
    EXPECT_TRUE(eventually(isShown)) << printed();
    for (int i = 0; i < 3; ++i) {
        add(++number);
    }
    EXPECT_TRUE(eventually(isShown)) << printed();
    EXPECT_TRUE(eventually([&] { // shorter than what was read: it begins again
        write("app.log", "");
        write("app.log", line(1001), true);
        return printed().size() > expected.size();
    }));
    EXPECT_EQ(printed().substr(0, expected.size() + line(1001).size()), expected + line(1001));
    kill(follower, SIGKILL);
    waitpid(follower, nullptr, 0);
}
