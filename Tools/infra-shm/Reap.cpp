// Reap.cpp: dropping what dead processes held.
//
// A process id is all that a reference says of its holder. So a holder whose number went to a new
// process passes for alive, and from outside the pid namespace of the pool's processes nobody may
// reap.

#include <poll.h>
#include <sys/shm.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <optional>
#include <set>

#include "Commands.h"
#include "Common/Failure.h"
#include "LivePool.h"

namespace
{

/// What was dropped, by process.
typedef std::map<pid_t, size_t> Dropped;

struct Reaped
{
    Dropped references;
    std::vector<pid_t> living; ///< holders
    size_t onTheirWay = 0;     ///< blocks that only hand-overs keep
};

/// The references of dead holders, by process; the living ones and what else remains go to `reaped`.
Dropped findDead(const PoolView& view, Reaped* reaped)
{
    Dropped dead;
    std::set<pid_t> living;
    reaped->onTheirWay = 0;
    for (const Block& block : view.blocks) {
        for (const Holder& holder : block.holders) {
            if (holder.life == Life::dead) {
                dead[holder.pid] += holder.references;
            } else {
                living.insert(holder.pid);
            }
        }
        reaped->onTheirWay += block.holders.empty() ? 1 : 0;
    }
    reaped->living.assign(living.begin(), living.end());
    return dead;
}

PoolView lookAt(CLivePool& pool, std::chrono::milliseconds wait)
{
    const CSnapshot snapshot = pool.look(wait);
    if (!snapshot.isSound() || !snapshot.faults().empty()) {
        throw CFailure("refused: the pool is not sound; see infra-shm check");
    }
    return viewOf(snapshot);
}

/// From another pid namespace all holders look dead.
void requireOwnPids(const Pool& pool)
{
    const std::vector<pid_t> users = processesWithSegment(pool.control.id);
    if (pool.control.creator == 0 || !std::all_of(users.begin(), users.end(), sharesPidsWithUs)) {
        throw CFailure(
            "refused: the pool is used in another pid namespace, so nobody here can tell "
            "which of its holders are dead");
    }
}

/// A call drops one reference a block, so there is one for as many as a process had to a block.
Reaped reapNow(CLivePool& pool, std::chrono::milliseconds wait)
{
    Reaped reaped;
    Dropped left = findDead(lookAt(pool, wait), &reaped);
    if (!left.empty()) {
        requireOwnPids(pool.segments());
    }
    while (!left.empty()) {
        for (const auto& [pid, references] : left) {
            pool.releaseByPid(pid, wait);
        }
        const Dropped before = left;
        left = findDead(lookAt(pool, wait), &reaped);
        for (const auto& [pid, references] : before) {
            const auto still = left.find(pid);
            reaped.references[pid] += references - (still != left.end() ? still->second : 0);
        }
    }
    return reaped;
}

void tell(COutput& output, const Reaped& reaped, bool isLine)
{
    if (output.isJson()) {
        Json dropped = Json::array();
        for (const auto& [pid, references] : reaped.references) {
            dropped.push_back({{"pid", pid}, {"references", references}});
        }
        output.json({{"reaped", dropped}, {"blocksOnTheirWay", reaped.onTheirWay}}, isLine);
        return;
    }
    for (const auto& [pid, references] : reaped.references) {
        output.text(textOf("process %d is dead: %zu references dropped\n", static_cast<int>(pid),
                           references));
    }
    if (reaped.onTheirWay != 0 && !isLine) {
        output.text(textOf("%zu blocks are kept by hand-overs alone, until those expire\n",
                           reaped.onTheirWay));
    }
}

// Watching ---------------------------------------------------------------------------------------

CDescriptor signalsToEnd()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return CDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
}

enum class Woken
{
    byDeath,
    byTime,
    toEnd
};

/// Sleeps until one of the processes dies, new ones may hold something, or the tool is to end.
Woken waitForDeath(const CDescriptor& end, const std::vector<pid_t>& living,
                   std::chrono::milliseconds interval)
{
    std::vector<CDescriptor> processes;
    std::vector<pollfd> waited = {{end.get(), POLLIN, 0}};
    for (const pid_t pid : living) {
        CDescriptor process = openProcess(pid);
        if (process.ok()) {
            waited.push_back({process.get(), POLLIN, 0});
            processes.push_back(std::move(process));
        }
    }
    const int count = poll(waited.data(), waited.size(), static_cast<int>(interval.count()));
    if (waited.front().revents != 0) {
        return Woken::toEnd;
    }
    return count > 0 ? Woken::byDeath : Woken::byTime;
}

/// What the system counts of a segment's coming and going. A process that dies detaches: while all of
/// this is as it was, nobody has died, and nobody has to wait for a look into the pool.
struct Traffic
{
    unsigned long attached;
    pid_t last;
    time_t lastAttach;
    time_t lastDetach;

    bool operator==(const Traffic&) const = default;
};

Traffic trafficOf(const Segment& segment)
{
    shmid_ds state = {};
    shmctl(segment.id, IPC_STAT, &state);
    return {state.shm_nattch, state.shm_lpid, state.shm_atime, state.shm_dtime};
}

/// False when the pool could not be looked at now.
bool reapOrTell(COutput& output, CLivePool& pool, std::chrono::milliseconds wait,
                std::vector<pid_t>* living)
{
    try {
        const Reaped reaped = reapNow(pool, wait);
        if (!reaped.references.empty()) {
            tell(output, reaped, true);
        }
        *living = reaped.living;
        return true;
    } catch (const CBusy& busy) {
        fprintf(stderr, "infra-shm: %s\n", busy.what());
        living->clear(); // what can be told of it is told after the interval
        return false;
    }
}

} // namespace

int reapPool(COutput& output, const Options& options)
{
    const Pool segments = currentPool();
    CLivePool pool(segments);
    if (!options.watch) {
        tell(output, reapNow(pool, options.wait), false);
        return exitSound;
    }
    const CDescriptor end = signalsToEnd();
    bool goesOn = true;
    std::vector<pid_t> living;
    std::optional<Traffic> seen; // with which nobody has died that is not reaped
    while (goesOn && isStillCurrent(segments.control)) {
        const Traffic now = trafficOf(segments.control);
        if (seen != now) {
            seen =
                reapOrTell(output, pool, options.wait, &living) ? std::optional(now) : std::nullopt;
        }
        const Woken woken = waitForDeath(end, living, options.interval);
        goesOn = woken != Woken::toEnd;
        if (woken == Woken::byDeath) {
            seen.reset(); // it may have detached before, while it still counted as alive
        }
    }
    if (goesOn) {
        if (output.isJson()) {
            output.json({{"removed", true}}, true);
        } else {
            output.text("the pool was removed\n");
        }
    }
    return exitSound;
}
