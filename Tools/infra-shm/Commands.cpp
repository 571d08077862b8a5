// Commands.cpp: what each command does, but for reaping (Reap.cpp).

#include "Commands.h"

#include <sys/shm.h>

#include "Common/Failure.h"
#include "Infra3/Arithmetic.h"
#include "LivePool.h"
#include "Memory/ShareMemory.h"

using Tarsel::Memory::IMemPool;

namespace
{

CSnapshot snapshotFor(const Options& options)
{
    return options.file.empty() ? CSnapshot::take(currentPool(), options.wait)
                                : CSnapshot::load(options.file);
}

void requireInitialised(const CSnapshot& snapshot)
{
    if (!snapshot.isInitialised()) {
        throw CFailure("no pool: its zones are not, or not yet, initialised");
    }
}

/// What is wrong with a sound or unsound pool, a line each.
std::vector<std::string> faultsOf(const CSnapshot& snapshot)
{
    if (snapshot.moment() == Moment::ownerDied) {
        return {"the owner of mutex 0 died inside: a repair is due"};
    }
    if (!snapshot.isSound()) {
        return {"the page zone describes pages that are not there"};
    }
    return snapshot.faults();
}

int tellFaults(COutput& output, const std::vector<std::string>& faults)
{
    if (output.isJson()) {
        output.json({{"sound", faults.empty()}, {"faults", faults}});
    } else if (faults.empty()) {
        output.text("sound\n");
    } else {
        for (const std::string& fault : faults) {
            output.text(fault + "\n");
        }
    }
    return faults.empty() ? exitSound : exitFaults;
}

/// A process has as many mappings as it likes. Those whose maps we may not read, or that are in
/// another IPC namespace, are known by their mappings only.
std::string usersText(const Segment& segment)
{
    const size_t processes = processesWithSegment(segment.id).size();
    return processes != 0 ? plural(processes, "process", "es")
                          : plural(segment.attached, "mapping") + " of processes unknown";
}

} // namespace

int listPools(COutput& output, const Options& /*options*/)
{
    const std::vector<Pool> pools = allPools();
    if (output.isJson()) {
        Json all = Json::array();
        for (const Pool& pool : pools) {
            all.push_back(jsonOf(pool));
        }
        output.json(all);
        return exitSound;
    }
    for (const Pool& pool : pools) {
        output.text(textOf(pool));
    }
    if (pools.empty()) {
        output.text("no pools\n");
    }
    return exitSound;
}

int showPool(COutput& output, const Options& options)
{
    const CSnapshot snapshot = snapshotFor(options);
    requireInitialised(snapshot);
    if (!snapshot.isSound()) {
        throw CFailure("the page zone describes pages that are not there");
    }
    const PoolView view = viewOf(snapshot);
    if (output.isJson()) {
        Json value = snapshot.isFromFile() ? Json::object() : jsonOf(currentPool());
        value["copy"] = momentText(snapshot.moment());
        if (!snapshot.isFromFile()) {
            value["mutex"] = jsonOf(snapshot.mutex());
        }
        value.update(jsonOf(view));
        output.json(value);
        return exitSound;
    }
    if (snapshot.isFromFile()) {
        output.text("file      " + options.file + "\n");
    } else {
        output.text(textOf(currentPool()));
        output.text("mutex 0   " + mutexText(snapshot.mutex()) + "\n");
    }
    if (snapshot.moment() != Moment::locked) {
        output.text(textOf("copy      %s\n", momentText(snapshot.moment())));
    }
    output.text(textOf(view, options.all));
    return exitSound;
}

int checkPoolNow(COutput& output, const Options& options)
{
    const CSnapshot snapshot = snapshotFor(options);
    requireInitialised(snapshot);
    if (snapshot.moment() == Moment::busy) {
        throw CFailure("not checked: " + (snapshot.isFromFile()
                                              ? std::string(momentText(snapshot.moment()))
                                              : "mutex 0 is " + mutexText(snapshot.mutex())));
    }
    if (snapshot.moment() == Moment::noPermission) {
        throw CFailure("not checked: no permission to lock the pool");
    }
    return tellFaults(output, faultsOf(snapshot));
}

int repairPoolNow(COutput& output, const Options& options)
{
    CLivePool pool(currentPool());
    pool.repair(options.wait);
    return tellFaults(output, faultsOf(pool.look(options.wait)));
}

int createPool(COutput& output, const Options& options)
{
    if (!Tarsel::Infra::isPowerOfTwo(options.pageSize) || options.pageSize < smallBlockSize) {
        throw CFailure("a page has 64 bytes or more, and a power of two of them");
    }
    if (options.size < options.pageSize || options.size > UINT32_MAX) {
        throw CFailure("a pool has one page or more, and less than 4 GiB");
    }
    for (const char* name : {controlSegment, dataSegment}) {
        if (isNameTaken(name)) {
            throw CFailure("there is a segment " + keyText(strToKey(name)) + " already");
        }
    }
    IMemPool::PoolParam param = {};
    param.poolType = IMemPool::PT_ShareMemory;
    param.poolSize = options.size;
    param.chunkSize = options.pageSize;
    param.orderNum = options.orders;
    if (!IMemPool::initMemPool(param)) {
        throw CFailure("the pool cannot be made");
    }
    IMemPool::loadMemPool(param)->destroy();
    const Pool pool = currentPool();
    if (output.isJson()) {
        output.json(jsonOf(pool));
    } else {
        output.text(textOf(pool));
    }
    return exitSound;
}

int removePool(COutput& output, const Options& options)
{
    const Pool pool = currentPool();
    const size_t attached = pool.control.attached;
    if (attached != 0 && !options.force) {
        throw CFailure("refused: the pool is used by " + usersText(pool.control) +
                       " (--force removes its name, and leaves it to them)");
    }
    for (const Segment& segment : {*pool.data, pool.control}) {
        if (shmctl(segment.id, IPC_RMID, nullptr) != 0) {
            throw CFailure::ofSystem("segment " + std::to_string(segment.id));
        }
    }
    if (output.isJson()) {
        output.json({{"removed", {pool.control.id, pool.data->id}}, {"attached", attached}});
    }
    return exitSound;
}

int savePool(COutput& output, const Options& options)
{
    const Pool pool = currentPool();
    const CSnapshot snapshot = CSnapshot::take(pool, options.wait);
    requireInitialised(snapshot);
    snapshot.save(options.file, pool);
    if (output.isJson()) {
        output.json({{"file", options.file},
                     {"copy", momentText(snapshot.moment())},
                     {"mutex", jsonOf(snapshot.mutex())}});
    } else if (snapshot.moment() != Moment::locked) {
        output.text(textOf("copy      %s\nmutex 0   %s\n", momentText(snapshot.moment()),
                           mutexText(snapshot.mutex()).c_str()));
    }
    return exitSound;
}
