// infra-shm as its users run it, on pools of real processes.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Memory/ShareMem/Layout.h"
#include "ShareMem/SharePool.h"
#include "Support/Eventually.h"
#include "Support/RunTool.h"

using namespace Tarsel::Memory;
using nlohmann::json;
using Tarsel::TestSupport::ChildResult;
using Tarsel::TestSupport::poolParam;
using Tarsel::TestSupport::Ran;
using Tarsel::TestSupport::runTool;
using Tarsel::TestSupport::runWithPools;
using testing::HasSubstr;

namespace
{

constexpr size_t poolSize = 1 << 20;
constexpr size_t pageSize = 1024;

/// Runs the tool; the output is both of its outputs together, or the standard one alone.
Ran tool(const std::string& arguments, const char* errors = " 2>&1")
{
    return runTool(INFRA_SHM_TOOL " " + arguments + errors);
}

json toolJson(const std::string& arguments)
{
    const Ran ran = tool(arguments + " --json", " 2>/dev/null");
    EXPECT_EQ(ran.code, 0) << ran.output;
    return json::parse(ran.output, nullptr, false);
}

IMemPool* makePool()
{
    EXPECT_TRUE(IMemPool::initMemPool(poolParam(poolSize, pageSize)));
    return IMemPool::loadMemPool(poolParam(poolSize, pageSize));
}

size_t takeBlock(IMemPool* pool, size_t size)
{
    size_t offset = 0;
    EXPECT_TRUE(pool->getOffset(pool->allocMem(size), offset));
    return offset;
}

uint32_t freeSize()
{
    uint32_t size = 0;
    IMemPool::getMemFreeSize(size);
    return size;
}

/// A process that does something and then stays until it is killed.
class CHolder
{
public:
    template <typename Work>
    explicit CHolder(const Work& work)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        fflush(stdout);
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, "holder");
            work();
            EXPECT_EQ(write(ready[1], "", 1), 1);
            pause();
            _exit(0);
        }
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
    }
    ~CHolder() { die(); }
    CHolder(const CHolder&) = delete;
    CHolder& operator=(const CHolder&) = delete;

    pid_t pid() const { return m_pid; }
    /// Killed, and not waited for: what is left of it is a zombie.
    void becomeZombie()
    {
        kill(m_pid, SIGKILL);
        siginfo_t state = {};
        waitid(P_PID, static_cast<id_t>(m_pid), &state, WEXITED | WNOWAIT);
    }
    void die()
    {
        if (m_pid != 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = 0;
        }
    }

private:
    pid_t m_pid = 0;
};

/// The segments as this test's process has mapped them for itself.
ShareMem::Layout mapPool()
{
    ShareMem::Mapping parts[2] = {};
    const char* const names[] = {controlSegment, dataSegment};
    for (int i = 0; i < 2; ++i) {
        shmid_ds state = {};
        const int id = shmget(strToKey(names[i]), 0, 0);
        EXPECT_EQ(shmctl(id, IPC_STAT, &state), 0);
        parts[i] = {static_cast<uint8_t*>(shmat(id, nullptr, 0)), state.shm_segsz};
    }
    ShareMem::Layout layout = {};
    EXPECT_TRUE(findZones(parts[0], parts[1], &layout));
    return layout;
}

unsigned mutexWord(const ShareMem::Layout& layout)
{
    return __atomic_load_n(
        reinterpret_cast<const unsigned*>(&layout.mutexes()[0].m_lock.__data.__lock),
        __ATOMIC_ACQUIRE);
}

constexpr unsigned ownerDiedBit = 0x40000000;
constexpr unsigned waitersBit = 0x80000000;

void lockMutex()
{
    getProcessMutex(0)->lock(getProcessMutex(0));
}

const char* const scratchFile = "pool.saved";

TEST(ShmTool, WithoutAPoolEachCommandSaysSo)
{
    const ChildResult child = runWithPools([] {
        EXPECT_EQ(tool("list").output, "no pools\n");
        EXPECT_EQ(tool("list --json").output, "[]\n");
        for (const char* command : {"show", "check", "repair", "reap", "remove", "save nowhere",
                                    "check --file /no/such/file", "check --file /dev/null"}) {
            const Ran ran = tool(command);
            EXPECT_EQ(ran.code, 2) << command;
            EXPECT_THAT(ran.output, HasSubstr("infra-shm: ")) << command;
        }
        for (const char* wrong : {"", "shwo", "create", "create much", "create 1M --page 100",
                                  "create 1M --page 32", "create 10 --page 64", "create 4G"}) {
            EXPECT_EQ(tool(wrong).code, 2) << wrong;
        }
        EXPECT_EQ(tool("--help").code, 0);
        EXPECT_EQ(shmget(strToKey(controlSegment), 0, 0), -1);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShmTool, LeavesSegmentsOfOthersAlone)
{
    const ChildResult child = runWithPools([] {
        const int id = shmget(strToKey(controlSegment), 4096, IPC_CREAT | 0600);
        char* const bytes = static_cast<char*>(shmat(id, nullptr, 0));
        memset(bytes, 'x', 4096);
        for (const char* command :
             {"show", "check", "repair", "reap", "remove --force", "save nowhere", "create 1M"}) {
            EXPECT_EQ(tool(command).code, 2) << command;
        }
        EXPECT_EQ(tool("list").output, "no pools\n");
        EXPECT_EQ(std::string(bytes, 4096), std::string(4096, 'x'));
        EXPECT_EQ(shmget(strToKey(controlSegment), 0, 0), id);

        // The name of the pages is not enough either.
        shmctl(id, IPC_RMID, nullptr);
        EXPECT_EQ(tool("create 1M").code, 0);
        shmctl(shmget(strToKey(dataSegment), 0, 0), IPC_RMID, nullptr);
        const int small = shmget(strToKey(dataSegment), (1 << 20) - 4096, IPC_CREAT | 0600);
        for (const char* command : {"show", "check", "repair", "reap", "remove --force"}) {
            EXPECT_EQ(tool(command).code, 2) << command;
        }
        EXPECT_EQ(shmget(strToKey(dataSegment), 0, 0), small);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShmTool, MakesListsAndRemovesAPool)
{
    const ChildResult child = runWithPools([] {
        EXPECT_EQ(tool("create 300K --page 2K --orders 3").code, 0);
        EXPECT_EQ(tool("create 300K").code, 2); // there is one
        json pools = toolJson("list");
        ASSERT_EQ(pools.size(), 1u);
        EXPECT_EQ(pools[0]["control"]["key"], strToKey(controlSegment));
        EXPECT_EQ(pools[0]["data"]["size"], 300 * 1024);
        EXPECT_EQ(pools[0]["data"]["attached"], 0);
        EXPECT_EQ(pools[0]["control"]["creator"]["state"], "dead");
        const json shown = toolJson("show");
        EXPECT_EQ(shown["pages"], 150);
        EXPECT_EQ(shown["orders"].size(), 3u);
        EXPECT_EQ(shown["freePages"], 150);

        // A pool that is in use loses its name only when that is meant, and can be told by no name.
        CHolder user([] {
            IMemPool::loadMemPool(poolParam(0, 0));
            mapPool(); // once more
        });
        EXPECT_EQ(
            tool("remove").output,
            "infra-shm: refused: the pool is used by 1 process (--force removes its name, and "
            "leaves it to them)\n");
        EXPECT_EQ(tool("check").code, 0);
        pools = toolJson("list");
        EXPECT_EQ(
            pools[0]["control"]["processes"],
            json::parse(R"([{"pid": )" + std::to_string(user.pid()) + R"(, "name": "holder"}])"));
        EXPECT_EQ(tool("remove --force").code, 0);
        EXPECT_EQ(tool("check").code, 2);
        pools = toolJson("list");
        ASSERT_EQ(pools.size(), 1u);
        EXPECT_EQ(pools[0]["control"]["removed"], true);
        EXPECT_EQ(pools[0]["data"]["size"], 300 * 1024);
        user.die();
        EXPECT_EQ(tool("list").output, "no pools\n");
        EXPECT_EQ(tool("create 1M").code, 0);
        EXPECT_EQ(tool("remove").code, 0);
        EXPECT_EQ(shmget(strToKey(dataSegment), 0, 0), -1);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShmTool, ShowsBlocksWithTheirHolders)
{
    const ChildResult child = runWithPools([] {
        IMemPool* const pool = makePool();
        const size_t own = takeBlock(pool, 3000); // four pages
        size_t shared = 0;
        CHolder alive([&] { EXPECT_NE(pool->getMem(own), nullptr); });
        CHolder dead([&] {
            size_t size = 1;
            pool->incDeliverRef(pool->allocMem(size)); // what it holds, it holds on its way, too
        });
        dead.becomeZombie();
        shared = takeBlock(pool, 1);
        void* const sent = pool->getMem(shared);
        EXPECT_TRUE(pool->incDeliverRef(sent));
        EXPECT_TRUE(pool->freeMem(sent));
        EXPECT_TRUE(pool->freeMem(sent)); // only its hand-over keeps it

        const json shown = toolJson("show");
        EXPECT_EQ(shown["copy"], "consistent");
        EXPECT_EQ(shown["mutex"]["state"], "free");
        EXPECT_EQ(shown["size"], poolSize);
        EXPECT_EQ(shown["freePages"], freeSize() / pageSize);
        ASSERT_EQ(shown["blocks"].size(), 3u);
        int seen = 0;
        for (const json& block : shown["blocks"]) {
            const size_t page = block["page"];
            const char sign = shown["picture"].get<std::string>()[page];
            if (block["offset"] == own) {
                EXPECT_EQ(block["pages"], 4);
                EXPECT_EQ(shown["picture"].get<std::string>().substr(page, 4), "####");
                ASSERT_EQ(block["holders"].size(), 2u);
                EXPECT_EQ(block["holders"][0]["pid"], alive.pid());
                EXPECT_EQ(block["holders"][0]["state"], "alive");
                EXPECT_EQ(block["holders"][0]["name"], "holder");
                EXPECT_EQ(block["holders"][1]["pid"], getpid());
            } else if (block["offset"] == shared) {
                EXPECT_EQ(sign, '>');
                EXPECT_EQ(block["handOvers"], 1);
                EXPECT_THAT(block["passesToExpire"], testing::AnyOf(1, 2)); // the timer runs
                EXPECT_TRUE(block["holders"].empty());
            } else {
                EXPECT_EQ(sign, 'x');
                EXPECT_EQ(block["holders"][0]["pid"], dead.pid());
                EXPECT_EQ(block["holders"][0]["state"], "dead");
            }
            ++seen;
        }
        EXPECT_EQ(seen, 3);
        // Three nodes and three references of 64 bytes.
        ASSERT_EQ(shown["smallObjectPages"].size(), 1u);
        EXPECT_EQ(shown["smallObjectPages"][0]["used"], 6);
        EXPECT_EQ(shown["smallObjectPages"][0]["objects"], 16);

        const Ran text = tool("show");
        EXPECT_EQ(text.code, 0);
        EXPECT_THAT(text.output, HasSubstr("1024 pages of 1024 bytes, 11 orders"));
        EXPECT_THAT(text.output, HasSubstr("(dead)"));
        EXPECT_THAT(text.output, HasSubstr("small objects: 6 of 16 in 1 page\n"));
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShmTool, ChecksAndRepairs)
{
    const ChildResult child = runWithPools([] {
        IMemPool* const pool = makePool();
        takeBlock(pool, 1);
        ShareMem::Layout layout = mapPool();
        EXPECT_EQ(tool("check").output, "sound\n");

        // Nobody reads these.
        layout.nodes()->prev = 7;
        layout.info->padding = 1;
        ++pageDescriptors(layout.info)[1].idx;
        EXPECT_EQ(tool("check").output, "reference list: its head has a previous element\n"
                                        "the padding of the page zone is not 0\n"
                                        "page 1 has another number, 2\n");
        PageDes& first = pageDescriptors(layout.info)[0];
        ++first.idx;
        first.list.prev = 12345;
        orderHead(layout.info, 3)->next = noOffset;
        layout.smallPages()->next = 99;
        const Ran check = tool("check --json", "");
        EXPECT_EQ(check.code, 1);
        EXPECT_EQ(json::parse(check.output)["sound"], false);
        EXPECT_THAT(tool("check").output,
                    HasSubstr("small-object page list: no element at 99, after 0\n"));
        EXPECT_THAT(tool("reap").output, HasSubstr("refused: the pool is not sound"));
        EXPECT_EQ(tool("repair").output, "sound\n");
        EXPECT_EQ(tool("check").code, 0);

        layout.info->pageNum *= 2; // that much is not there
        EXPECT_EQ(tool("check").code, 1);
        for (const char* command : {"show", "repair", "reap"}) {
            EXPECT_EQ(tool(command).code, 2) << command;
        }
        layout.info->pageNum /= 2;
        layout.buddyZone->initFlag = 0;
        EXPECT_EQ(tool("check").code, 2);
        layout.buddyZone->initFlag = zoneReady;
        EXPECT_EQ(tool("check").code, 0);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShmTool, RefusesWhileALivingProcessIsInsideAndRepairsAfterItsDeath)
{
    const ChildResult child = runWithPools([] {
        // Nobody but these uses the pool: a process with a timer in it would repair at once.
        EXPECT_EQ(tool("create 1M").code, 0);
        const ShareMem::Layout layout = mapPool();
        CHolder holder([] {
            IMemPool::loadMemPool(poolParam(0, 0));
            lockMutex();
        });
        const std::string inside = "held by process " + std::to_string(holder.pid()) + " (holder)";
        for (const char* command : {"check", "repair", "reap"}) {
            const Ran ran = tool(std::string(command) + " --wait 0.05");
            EXPECT_EQ(ran.code, 2) << command;
            EXPECT_THAT(ran.output, HasSubstr(inside)) << command;
        }
        EXPECT_THAT(tool("show --wait 0.05").output, HasSubstr(inside));

        // It dies while somebody waits, who then does not take over.
        FILE* const waiting = popen(INFRA_SHM_TOOL " check --wait 50 2>&1", "r");
        EXPECT_TRUE(
            Tarsel::TestSupport::eventually([&] { return (mutexWord(layout) & waitersBit) != 0; }));
        holder.die();
        char line[256] = {};
        EXPECT_NE(fgets(line, sizeof(line), waiting), nullptr);
        EXPECT_THAT(line, HasSubstr("the owner of mutex 0 died inside: a repair is due"));
        EXPECT_EQ(WEXITSTATUS(pclose(waiting)), 1);
        EXPECT_NE(mutexWord(layout) & ownerDiedBit, 0u);
        EXPECT_EQ(tool("check").code, 1);
        EXPECT_THAT(tool("show").output, HasSubstr("a repair is due"));
        EXPECT_NE(mutexWord(layout) & ownerDiedBit, 0u);

        EXPECT_EQ(toolJson("repair")["sound"], true);
        EXPECT_EQ(mutexWord(layout), 0u);
        EXPECT_EQ(tool("check").code, 0);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShmTool, ReapsTheDeadAndNobodyElse)
{
    const ChildResult child = runWithPools([] {
        IMemPool* const pool = makePool();
        const size_t own = takeBlock(pool, 1);
        const uint32_t before = freeSize();
        CHolder dead([&] {
            pool->getMem(own);
            pool->getMem(own);
            takeBlock(pool, 5000);
            lockMutex();
        });
        dead.becomeZombie(); // inside the mutex at that
        const json reaped = toolJson("reap");
        EXPECT_EQ(reaped["reaped"], json::parse(R"([{"pid": )" + std::to_string(dead.pid()) +
                                                R"(, "references": 3}])"));
        EXPECT_EQ(freeSize(), before);
        EXPECT_EQ(toolJson("show")["blocks"].size(), 1u);
        EXPECT_EQ(tool("reap").output, "");
        EXPECT_EQ(tool("check").code, 0);

        // Watching: one that is dead already, then one that dies while it is watched; it is the
        // death that wakes, because the interval never ends.
        CHolder first([&] { takeBlock(pool, 1); });
        CHolder second([&] { takeBlock(pool, 1); });
        first.becomeZombie();
        FILE* const watch =
            popen("exec " INFRA_SHM_TOOL " reap --watch --interval 3600 --json", "r");
        char line[256] = {};
        ASSERT_NE(fgets(line, sizeof(line), watch), nullptr);
        EXPECT_EQ(json::parse(line)["reaped"][0]["pid"], first.pid());
        second.becomeZombie();
        ASSERT_NE(fgets(line, sizeof(line), watch), nullptr);
        EXPECT_EQ(json::parse(line)["reaped"][0]["pid"], second.pid());
        EXPECT_EQ(freeSize(), before);
        const json user = toolJson("list")[0]["control"]["processes"];
        for (const json& process : user) {
            if (process["name"] == "infra-shm") {
                kill(process["pid"], SIGTERM);
            }
        }
        EXPECT_EQ(pclose(watch), 0);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShmTool, ReapsNothingWhereItCannotTellTheDead)
{
    const ChildResult child = runWithPools([] {
        EXPECT_EQ(tool("create 1M").code, 0);
        std::vector<bool> isDeadHere(5000);
        for (size_t pid = 2; pid < isDeadHere.size(); ++pid) {
            isDeadHere[pid] = kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
        }
        bool* const isPossible = static_cast<bool*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        // A pid namespace, the first process in it, and one whose number there is nobody's here.
        CHolder maker([&] {
            *isPossible = unshare(CLONE_NEWPID) == 0;
            if (!*isPossible) {
                return;
            }
            new CHolder([&] {
                for (pid_t pid = 0; !isDeadHere[static_cast<size_t>(pid)];) {
                    CHolder* const next = new CHolder([&] {
                        if (isDeadHere[static_cast<size_t>(getpid())]) {
                            takeBlock(IMemPool::loadMemPool(poolParam(0, 0)), 1);
                        }
                    });
                    pid = next->pid();
                }
            });
        });
        if (!*isPossible) {
            printf("no permission for a pid namespace\n");
            return;
        }
        EXPECT_THAT(tool("reap").output, HasSubstr("refused: the pool is used in another pid"));
        EXPECT_EQ(toolJson("show")["blocks"].size(), 1u);
        maker.die();
        EXPECT_TRUE(Tarsel::TestSupport::eventually(
            [] { return toolJson("list")[0]["control"]["attached"] == 0; }));
        EXPECT_EQ(tool("reap").code, 0);
        EXPECT_EQ(toolJson("show")["blocks"].size(), 0u);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

/// Takes, shares and gives back blocks until it is killed.
void work()
{
    IMemPool* const pool = IMemPool::loadMemPool(poolParam(0, 0));
    std::mt19937 random(static_cast<unsigned>(getpid()));
    std::vector<void*> held;
    for (;;) {
        const size_t offset = random() % 1024 * pageSize;
        size_t size = random() % 3000 + 1;
        void* const got = random() % 4 == 0 ? pool->getMem(offset) : pool->allocMem(size);
        if (got != nullptr) {
            held.push_back(got);
        }
        if (held.size() > 40) {
            std::swap(held[random() % held.size()], held.back());
            pool->freeMem(held.back());
            held.pop_back();
        }
    }
}

TEST(ShmTool, LooksAtAPoolAtWorkAndClearsUpAfterItsWorkers)
{
    const ChildResult child = runWithPools([] {
        EXPECT_EQ(tool("create 1M").code, 0);
        for (int round = 0; round < 8; ++round) {
            std::vector<pid_t> workers;
            fflush(stdout);
            for (int i = 0; i < 3; ++i) {
                workers.push_back(fork());
                if (workers.back() == 0) {
                    prctl(PR_SET_PDEATHSIG, SIGKILL);
                    EXPECT_NE(freopen("/dev/null", "w", stdout), nullptr);
                    work();
                }
            }
            EXPECT_TRUE(Tarsel::TestSupport::eventually(
                [] { return toolJson("show")["blocks"].size() > 60; }));
            for (int i = 0; i < 5; ++i) {
                EXPECT_EQ(tool("check --wait 20").output, "sound\n");
                EXPECT_EQ(tool("reap --wait 20").output, "");
            }
            for (const pid_t worker : workers) {
                kill(worker, SIGKILL);
                waitpid(worker, nullptr, 0);
            }
            EXPECT_GE(toolJson("reap")["reaped"].size(), 2u) << round; // one holds at most 41
            const json left = toolJson("show");
            EXPECT_EQ(left["freePages"], 1024) << round;
            EXPECT_EQ(left["blocks"].size(), 0u) << round;
            EXPECT_EQ(tool("check").output, "sound\n") << round;
        }
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShmTool, ASavedPoolIsReadLikeALivingOne)
{
    const ChildResult child = runWithPools([] {
        char folder[] = "/tmp/infra-shm-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        ASSERT_EQ(chdir(folder), 0);
        IMemPool* const pool = makePool();
        takeBlock(pool, 100000);
        EXPECT_EQ(tool(std::string("save ") + scratchFile).code, 0);
        EXPECT_EQ(tool("save /dev/full/pool").code, 2);
        EXPECT_EQ(mkfifo("pool.pipe", 0600), 0);
        EXPECT_EQ(symlink(scratchFile, "pool.link"), 0);
        EXPECT_EQ(tool("save pool.pipe").code, 2); // it stays what it is
        EXPECT_EQ(tool("save pool.link").code, 0);
        struct stat state = {};
        EXPECT_TRUE(lstat("pool.pipe", &state) == 0 && S_ISFIFO(state.st_mode));
        EXPECT_TRUE(lstat("pool.link", &state) == 0 && S_ISLNK(state.st_mode));
        unlink("pool.pipe");
        unlink("pool.link");
        EXPECT_EQ(tool("remove --force").code, 0);
        const std::string fromFile = std::string(" --file ") + scratchFile;
        EXPECT_EQ(tool("check" + fromFile).output, "sound\n");
        const json shown = toolJson("show" + fromFile);
        EXPECT_EQ(shown["blocks"][0]["pages"], 128);
        EXPECT_EQ(shown["blocks"][0]["holders"][0]["state"], "unknown");

        // Whatever is in a file, it is read to its end and no further.
        std::ifstream saved(scratchFile, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(saved), {}};
        std::mt19937 random(1);
        int found = 0;
        for (int i = 0; i < 60; ++i) {
            std::string damaged = bytes;
            for (int hits = 0; hits < 40; ++hits) {
                // The head, the zones, the first and the last descriptors.
                const size_t places[] = {random() % 32, 4096 + random() % 2000,
                                         4096 + 70000 + random() % 4000,
                                         4096 + random() % (bytes.size() - 4096)};
                damaged[places[i % 2 == 0 ? 1 + random() % 3 : random() % 4]] =
                    static_cast<char>(random());
            }
            damaged.resize(i % 10 == 9 ? random() % damaged.size() : damaged.size());
            std::ofstream("damaged", std::ios::binary) << damaged;
            for (const char* command : {"check --file damaged", "show --all --file damaged"}) {
                const Ran ran = tool(command);
                EXPECT_GE(ran.code, 0) << i;
                EXPECT_LE(ran.code, 2) << i;
                // A sanitizer's report ends a program with a code like ours.
                EXPECT_EQ(ran.output.find("Sanitizer"), std::string::npos) << ran.output;
                EXPECT_EQ(ran.output.find("runtime error"), std::string::npos) << ran.output;
                found += ran.code == 1 ? 1 : 0;
            }
        }
        EXPECT_GT(found, 0);
        for (const char* name : {scratchFile, "damaged"}) {
            unlink(name);
        }
        EXPECT_EQ(rmdir(folder), 0); // and nothing else was left
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

} // namespace
