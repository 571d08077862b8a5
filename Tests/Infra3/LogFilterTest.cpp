// The command language of the log. What it does to log files is tested in LogFileTest.cpp.

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra/Infra3/PrintLog.h"
#include "Support/ChildProcess.h"
#include "Support/LogCapture.h"
#include "Support/LogCommand.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::ChildResult;
using TestSupport::CLogCapture;
using TestSupport::command;
using TestSupport::inChild;
using TestSupport::runInChild;

TEST(LogCommandTest, NoWordsAndHelpAlonePrintTheUsage)
{
    const std::string usage =
        "logfilter command usage:\n"
        "logfilter -loglevel [levelnum](0-no printlevel, 1-fatal, 2-error, 3-warn, 4-info, "
        "5-trace, 6-debug): set log level\n"
        "logfilter -logmodule [modulename] [on/off] #turn module's log on/off\n"
        "logfilter -logmodule [on/off] #turn ALL module's log on/off\n"
        "logfilter -logpath [logpath/] #logger module's log to logpath or cancel logger(by set "
        "path to )\n"
        "logfilter -logmodulestatistics  [on/off] #turn ALL module's logstatistics func on/off\n"
        "logfiter -logsize [logsize] #log file max size limited to logsize Kbytes\n"
        "logfiter -logsavesetting bysize [logsize] [maxnumber]#(logsize-log will save as a new "
        "file if log's size reaches to logsize),(maxnumber-total log file)\n"
        "logfiter -logsavesetting byday [on/off] [maxnumber] #(on-log will save as a new file if "
        "date changes),(maxnumber-total log file)\n"
        "logfiter -logsavesetting none #log file save in the old way\n";
    const ChildResult result = runInChild([] {
        printf("BEGIN");
        setLogFilter(0, nullptr);
        command({"-h"});
        command({"-h", "more"});
        setLogFilter(-1, nullptr);
        setLogFilter(1, nullptr);
    });
    EXPECT_EQ(result.output.substr(result.output.find("BEGIN")), "BEGIN" + usage + usage);
}

/// All that a command can change, but for the file.
std::string settings()
{
    PrintOptions options;
    getPrintOptions(&options);
    const Infra_PrintOptions& forC = *Infra_getPrintOption();
    std::string text = std::to_string(getPrintLogLevel()) + std::to_string(Infra_openLog);
    for (const int flag : {+options.time, +forC.time, +options.thread, +forC.thread,
                           +options.version, +forC.version, +options.function, +forC.function}) {
        text += static_cast<char>('0' + flag);
    }
    return text;
}

TEST(LogCommandTest, EachOptionSetsItsOwnValue)
{
    const struct
    {
        std::vector<const char*> words; ///< null words too
        const char* expected;           ///< from level 4, OPEN_ALL and no flag
    } cases[] = {
        {{"-loglevel", "2"}, "2200000000"},
        {{"-loglevel", " 3x", "more", nullptr}, "3200000000"},
        {{"-loglevel", "word"}, "0200000000"},
        {{"-loglevel"}, "4200000000"},
        {{"-loglevel", nullptr}, "4200000000"},
        {{"-LogLevel", "2"}, "4200000000"},
        {{"-logtime", "off"}, "4211000000"},
        {{"-logthread", "anything", "more"}, "4200110000"},
        {{"-logversion", "off"}, "4200001100"},
        {{"-logfunction", "off"}, "4200000011"},
        {{"-logfunction", "On"}, "4200000000"},
        {{"-logtime"}, "4200000000"},
        {{"-logmodule", "OFF"}, "4000000000"},
        {{"-logmodule", "anything"}, "4200000000"},
        {{"-logmodule"}, "4200000000"},
        {{"-logmodule", nullptr}, "4200000000"},
        {{"-logmodule", nullptr, "off"}, "4200000000"},
        {{"-logmodule", "Net", nullptr}, "4200000000"},
        {{"-logmodule", "Net", "off"}, "4100000000"},
        {{"-logmodule", "Net", "off", "more", nullptr}, "4100000000"},
        {{nullptr, "2"}, "4200000000"},
        {{"", ""}, "4200000000"},
        {{"-logpath"}, "4200000000"},
        {{"-logpath", nullptr}, "4200000000"},
        {{"-logsize"}, "4200000000"},
        {{"-logsize", nullptr}, "4200000000"},
        {{"-logmodulestatistics"}, "4200000000"},
        {{"-logmodulestatistics", nullptr}, "4200000000"},
        {{"-logsavesetting"}, "4200000000"},
        {{"-logsavesetting", nullptr}, "4200000000"},
        {{"-logsavesetting", "bysize", "1"}, "4200000000"},
        {{"-logsavesetting", "bysize", nullptr, "1"}, "4200000000"},
        {{"-logsavesetting", "byday", "on", nullptr}, "4200000000"},
        {{"-logsavesetting", "bysize", "1", "1", "1"}, "4200000000"},
    };
    for (const auto& each : cases) {
        inChild([&] {
            std::vector<char*> words;
            for (const char* word : each.words) {
                words.push_back(const_cast<char*>(word));
            }
            setLogFilter(static_cast<int>(words.size()), words.data());
            EXPECT_EQ(settings(), each.expected) << (words[0] == nullptr ? "null" : words[0]);
        });
    }
}

TEST(LogCommandTest, FieldsAreWrittenIntoBothRecordsAndNothingElseIs)
{
    inChild([] {
        Infra_getPrintOption()->style = 1; // by C code: in this record only
        PrintOptions options = {};
        command({"-logthread", "off"});
        getPrintOptions(&options);
        EXPECT_EQ(Infra_getPrintOption()->style, 1);
        EXPECT_EQ(options.style, 0);
        EXPECT_EQ(options.thread, 1);
        EXPECT_EQ(Infra_getPrintOption()->thread, 1);
    });
}

TEST(LogCommandTest, ModulesAreSwitchedOneByOneAndAllAtOnce)
{
    inChild([] {
        CLogCapture log;
        const auto printed = [&log] {
            logLibName(logLevelWarn, "Net", "net ");
            logLibName(logLevelWarn, "net", "lower ");
            logLibName(logLevelWarn, "Disk", "disk ");
            logFilter(logLevelWarn, nullptr, "f", "g", 1, "", "null\n");
            return log.take();
        };
        command({"-logmodule", "Net", "off"});
        EXPECT_EQ(printed(), "lower disk null\n");
        command({"-logmodule", "Disk", "nothing that says on"});
        EXPECT_EQ(printed(), "lower null\n");
        EXPECT_GT(Infra_logFilter(logLevelWarn, "Net", "f", "g", 1, "", "C code is not asked\n"),
                  0);
        command({"-logmodule", "on"});
        EXPECT_EQ(printed(), "net lower disk null\n");
        command({"-logmodule", "Other", "off"}); // the others are still off
        EXPECT_EQ(printed(), "lower null\n");
        command({"-logmodule", "Net", "ON"});
        EXPECT_EQ(printed(), "net lower null\n");
        command({"-logmodule", "off"});
        EXPECT_EQ(printed(), "");
    });
}

TEST(LogCommandTest, StatisticsCountWhileTheyAreOn)
{
    inChild([] {
        CLogCapture log;
        logLibName(logLevelWarn, "Net", "before\n");
        command({"-logmodulestatistics", "ON"});
        const int length = logLibName(logLevelWarn, "Net", "counted\n");
        command({"-logmodulestatistics", "on", "one word too many"});
        command({"-logmodulestatistics", "of"});
        logLibName(logLevelWarn, "Net", "after\n");
        EXPECT_EQ(getLogStatistics().size(), 1U);
        EXPECT_EQ(getLogStatistics().at("Net").printedBytes, static_cast<uint64_t>(length));
    });
}

TEST(LogCommandTest, CommandsArriveWhileThreadsLog)
{
    inChild([] {
        CLogCapture log;
        std::atomic<bool> over{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&over] {
                while (!over) {
                    logLibName(logLevelInfo, "Module7", "x\n");
                    logLibName(logLevelInfo, "Always", "y\n");
                }
            });
        }
        for (int i = 0; i < 2000; ++i) {
            const std::string value = i % 2 == 0 ? "off" : "on";
            command({"-logmodule", "Module" + std::to_string(i % 300), value});
            command({i % 3 == 0 ? "-logtime" : "-logfunction", value});
            command({"-logmodulestatistics", value});
            log.clear();
        }
        over = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
        // 300 names are in the table: the even ones off, the odd ones on.
        log.clear();
        logLibName(logLevelInfo, "Module298", "off\n");
        logLibName(logLevelInfo, "Module299", "on\n");
        EXPECT_EQ(log.text(), "on\n");
    });
}

} // namespace
} // namespace Infra
} // namespace Tarsel
