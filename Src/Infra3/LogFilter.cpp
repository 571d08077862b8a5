// LogFilter.cpp: the command language of the log.
//
// A command is a row of a table: option, how many words it may have, what it does. Words that a row
// needs and that are missing, or null, make it no command.
//
// The switches of single modules are asked for by every line while not all modules are on, so they
// are read without a lock: names are only ever added, to short chains behind fixed buckets, and a
// switch is an atomic flag in its name's entry.

#include <strings.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogFile.h"
#include "Infra3/LogSink.h"
#include "Infra3/PlainShared.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

// --- switches of single modules -----------------------------------------------------------------

class CModuleSwitches
{
public:
    /// False when there is no memory for a new name; nothing changes then.
    bool set(const char* module, bool on)
    {
        const CGuard guard(m_mutex);
        if (Entry* const entry = find(module)) {
            entry->on.store(on, std::memory_order_relaxed);
            return true;
        }
        try {
            std::atomic<Entry*>& bucket = bucketOf(module);
            bucket.store(new Entry{module, on, bucket.load(std::memory_order_relaxed)},
                         std::memory_order_release);
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }

    bool isOff(const char* module) const
    {
        const Entry* const entry = find(module);
        return entry != nullptr && !entry->on.load(std::memory_order_relaxed);
    }

private:
    struct Entry
    {
        const std::string module;
        std::atomic<bool> on;
        Entry* const next;
    };

    const std::atomic<Entry*>& bucketOf(std::string_view module) const
    {
        return m_buckets[std::hash<std::string_view>()(module) % m_buckets.size()];
    }
    std::atomic<Entry*>& bucketOf(std::string_view module)
    {
        return const_cast<std::atomic<Entry*>&>(std::as_const(*this).bucketOf(module));
    }

    Entry* find(std::string_view module) const
    {
        Entry* entry = bucketOf(module).load(std::memory_order_acquire);
        while (entry != nullptr && entry->module != module) {
            entry = entry->next;
        }
        return entry;
    }

    CLeafMutex m_mutex; ///< for changes
    std::array<std::atomic<Entry*>, 64> m_buckets = {};
};

CModuleSwitches& moduleSwitches()
{
    return immortal<CModuleSwitches, CModuleSwitches>();
}

// --- the sink -----------------------------------------------------------------------------------

constexpr LogSink sink = {
    [](const char* module) { return moduleSwitches().isOff(module); },
    [](const char* text, size_t length, const Infra_SystemTimeEx& now) {
        logFile().write(text, length, now);
    },
    [] { logFile().close(); },
};

// --- commands -----------------------------------------------------------------------------------

typedef char** Words;

bool isWord(const char* word, const char* expected)
{
    return strcasecmp(word, expected) == 0;
}

bool isOn(const char* word)
{
    return isWord(word, "on");
}

/// The number at the front of `word`; 0 when there is none.
int numberOf(const char* word)
{
    return static_cast<int>(strtol(word, nullptr, 10));
}

/// Bytes of `word` kilobytes. The product wraps in 32 bits; what comes out negative is no limit.
int32_t sizeOf(const char* word)
{
    const int32_t bytes = static_cast<int32_t>(static_cast<uint32_t>(numberOf(word)) * 1024U);
    return bytes < 0 ? 0 : bytes;
}

/// How many old files are kept.
int32_t countOf(const char* word)
{
    const int number = numberOf(word);
    return number < 0 ? 0 : number;
}

void printUsage(Words)
{
    // clang-format off
    static constexpr const char* lines[] = {
        "logfilter command usage:",
        "logfilter -loglevel [levelnum](0-no printlevel, 1-fatal, 2-error, 3-warn, 4-info, 5-trace, 6-debug): set log level",
        "logfilter -logmodule [modulename] [on/off] #turn module's log on/off",
        "logfilter -logmodule [on/off] #turn ALL module's log on/off",
        "logfilter -logpath [logpath/] #logger module's log to logpath or cancel logger(by set path to )",
        "logfilter -logmodulestatistics  [on/off] #turn ALL module's logstatistics func on/off",
        "logfiter -logsize [logsize] #log file max size limited to logsize Kbytes",
        "logfiter -logsavesetting bysize [logsize] [maxnumber]#(logsize-log will save as a new file if log's size reaches to logsize),(maxnumber-total log file)",
        "logfiter -logsavesetting byday [on/off] [maxnumber] #(on-log will save as a new file if date changes),(maxnumber-total log file)",
        "logfiter -logsavesetting none #log file save in the old way",
    };
    // clang-format on
    for (const char* line : lines) {
        puts(line);
    }
}

void setLevel(Words words)
{
    setPrintLogLevel(numberOf(words[1]));
}

void switchAllModules(Words words)
{
    storePlain(Infra_openLog, isWord(words[1], "off") ? CLOSE_LOG : OPEN_ALL);
}

void switchOneModule(Words words)
{
    if (moduleSwitches().set(words[1], isOn(words[2]))) {
        setLogSink(&sink);
        storePlain(Infra_openLog, OPEN_PARITAL);
    }
}

template <uint8_t PrintOptions::*flag, unsigned char Infra_PrintOptions::*flagOfC>
void setField(Words words)
{
    setPrintOption(flag, flagOfC, isOn(words[1]) ? 0 : 1);
}

void setPath(Words words)
{
    try {
        logFile().setPath(words[1]);
        setLogSink(&sink);
    } catch (const std::bad_alloc&) {
        // Without memory the path stays.
    }
}

void setSize(Words words)
{
    logFile().setSizeLimit(sizeOf(words[1]));
}

void setStatistics(Words words)
{
    setLogStatistics(isOn(words[1]));
}

void saveInOldWay(Words words)
{
    if (isWord(words[1], "none")) {
        logFile().saveInOldWay();
    }
}

void saveInNewWay(Words words)
{
    if (isWord(words[1], "bysize")) {
        logFile().saveBySize(sizeOf(words[2]), countOf(words[3]));
    } else if (isWord(words[1], "byday")) {
        logFile().saveByDay(isOn(words[2]), countOf(words[3]));
    }
}

struct Command
{
    const char* option;
    int fewestWords; ///< the option and the values that it looks at
    int mostWords;
    void (*run)(Words words);
};

constexpr Command commands[] = {
    {"-h", 1, 1, printUsage},
    {"-loglevel", 2, INT_MAX, setLevel},
    {"-logmodule", 2, 2, switchAllModules},
    {"-logmodule", 3, INT_MAX, switchOneModule},
    {"-logtime", 2, INT_MAX, setField<&PrintOptions::time, &Infra_PrintOptions::time>},
    {"-logthread", 2, INT_MAX, setField<&PrintOptions::thread, &Infra_PrintOptions::thread>},
    {"-logversion", 2, INT_MAX, setField<&PrintOptions::version, &Infra_PrintOptions::version>},
    {"-logfunction", 2, INT_MAX, setField<&PrintOptions::function, &Infra_PrintOptions::function>},
    {"-logpath", 2, INT_MAX, setPath},
    {"-logsize", 2, INT_MAX, setSize},
    {"-logmodulestatistics", 2, 2, setStatistics},
    {"-logsavesetting", 2, 2, saveInOldWay},
    {"-logsavesetting", 4, 4, saveInNewWay},
};

bool isMeant(const Command& command, int count, Words words)
{
    if (count < command.fewestWords || count > command.mostWords) {
        return false;
    }
    for (int i = 0; i < command.fewestWords; ++i) {
        if (words[i] == nullptr) {
            return false;
        }
    }
    return strcmp(words[0], command.option) == 0;
}

} // namespace

void setLogFilter(int argc, char** argv)
{
    if (argc == 0) {
        printUsage(argv);
        return;
    }
    if (argv == nullptr) {
        return;
    }
    for (const Command& command : commands) {
        if (isMeant(command, argc, argv)) {
            command.run(argv);
            return;
        }
    }
}

} // namespace Infra
} // namespace Tarsel
