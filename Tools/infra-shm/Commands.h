#ifndef INFRA_TOOLS_SHM_COMMANDS_H
#define INFRA_TOOLS_SHM_COMMANDS_H

#include <chrono>
#include <cstdint>
#include <string>

#include "Output.h"

struct Options
{
    std::string file;                     ///< of a saved pool; empty: the pool that there is
    std::chrono::milliseconds wait{2000}; ///< for the mutex
    std::chrono::milliseconds interval{1000};
    bool all = false;
    bool watch = false;
    bool force = false;
    uint64_t size = 0;
    uint32_t pageSize = 1024;
    uint32_t orders = 0;
};

// Each command prints what it found or did, and gives the exit code; it throws CFailure when it
// cannot be carried out.

int listPools(COutput& output, const Options& options);
int showPool(COutput& output, const Options& options);
int checkPoolNow(COutput& output, const Options& options);
int repairPoolNow(COutput& output, const Options& options);
int reapPool(COutput& output, const Options& options);
int createPool(COutput& output, const Options& options);
int removePool(COutput& output, const Options& options);
int savePool(COutput& output, const Options& options);

#endif
