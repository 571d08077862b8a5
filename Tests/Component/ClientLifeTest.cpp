// Clients and threads, the clock, the end of the process, and fork.

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <barrier>
#include <cstdio>
#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Component/ObjectTable.h"
#include "Component/Session.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/Time.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FreshProcess.h"
#include "Support/SystemClock.h"

namespace
{

using namespace Tarsel::Component;
using namespace Tarsel::TestSupport;
using Tarsel::Infra::CSemaphore;
using Tarsel::Infra::CTime;

typedef IClient::ClientInternal Record;

// The clock.

/// A client whose login failed: only the list knows of it.
IClient* makeIdle(uint32_t port)
{
    IClient* const client = ClientFactory::createAndMakeClientObject("Dev", serverAt(port));
    CComponentHelper::release(client);
    return client;
}

/// Puts the clock forward to where every client that nobody uses now is idle. It stands still then.
void leapFiveMinutes()
{
    freezeMonotonicClock((CTime::getCurrentMilliSecond() + 300002) * 1000);
}

/// The clock stands where it is put, so the check that the timer runs beside ours sees the same. It
/// never goes back, which would end the process.
void dropIdleClients()
{
    const uint64_t startMs = CTime::getCurrentMilliSecond();
    const auto checkAt = [startMs](uint64_t sinceStartMs) {
        freezeMonotonicClock((startMs + sinceStartMs) * 1000);
        CClientInstanceList::instance()->removeIdleClientInstance(0);
        return CSession::s_alive.load();
    };
    freezeMonotonicClock(startMs * 1000);
    CSessionFactory factory("Dev");
    IClient* const held = ClientFactory::createAndMakeClientObject("Dev", serverAt(1));
    IClient* const retried = makeIdle(2);
    IClient* const later = makeIdle(3);
    makeIdle(4);
    IClient* const handedOut = makeIdle(5); // as a look-up by user does, login or not
    ClientFactory::getAndMakeClientInstance("Dev", serverAt(5));
    ClientFactory::markClientUsing(handedOut);
    EXPECT_EQ(clientCountsOf(handedOut), (ClientCounts{1, 1, 1, true}));
    IClient* none = nullptr;
    auto* const wrapper = static_cast<IClient::IFactory*>(
        CComponentHelper::getComponentFactory("Client", "Dev", -1, none));
    IClient* const byFactory = wrapper->create(serverAt(6));
    IClient* const loggedIn = sessionFor("Dev", serverAt(7));

    EXPECT_EQ(checkAt(0), 7);
    EXPECT_EQ(checkAt(300000), 7);
    later->m_internal->retryTime = startMs + 300002; // set while the next check begins
    EXPECT_TRUE(clientLogin(retried));
    retried->m_internal->state = Record::created;
    EXPECT_EQ(checkAt(300001), 6); // the fourth
    EXPECT_EQ(CSession::s_logouts, 1);
    EXPECT_EQ(CClientInstanceList::instance()->findClientInstance("Dev", serverAt(4)), nullptr);

    EXPECT_EQ(CComponentHelper::release(held), 1); // idle all the time, but held
    EXPECT_EQ(checkAt(300001), 5);
    EXPECT_EQ(checkAt(600000), 5);
    EXPECT_EQ(checkAt(600001), 4); // the one that was tried again
    EXPECT_EQ(checkAt(600002), 4);
    EXPECT_EQ(checkAt(600003), 3);
    EXPECT_EQ(checkAt(100000000), 3);
    for (IClient* used : {handedOut, byFactory, loggedIn}) {
        EXPECT_TRUE(clientCountsOf(used).isListed);
        EXPECT_EQ(CComponentHelper::release(used), 0);
    }
}

TEST(IdleTest, WhatNobodyUsesForMoreThanFiveMinutesGoes)
{
    INFRA_IN_FRESH_PROCESS(dropIdleClients);
}

TEST(IdleTest, TheTimerDropsIdleClients)
{
    CSessionFactory factory("Dev");
    makeIdle(8);
    leapFiveMinutes();
    EXPECT_TRUE(eventually([] { return CSession::s_alive == 0; }));
}

// Threads.

struct Told
{
    void onStatus(void*, ClassID, TComPtr<IClient> client, IClient::Status, int) // NOLINT
    {
        count += client ? 1 : 0;
    }
    std::atomic<int> count{0};
};

TEST(ClientThreadTest, WhileAThreadLogsInOthersComeAndGo)
{
    CSessionFactory factory("Dev");
    CSemaphore entered(0);
    CSemaphore mayEnd(0);
    factory.plan.login = [&] {
        entered.post();
        mayEnd.pend();
        return true;
    };
    std::thread slow([] { CComponentHelper::release(sessionFor("Dev", serverAt(20))); });
    entered.pend();
    factory.plan.login = [] { return true; };
    CComponentHelper::release(sessionFor("Dev", serverAt(21)));
    mayEnd.post();
    slow.join();
    EXPECT_EQ(CSession::s_alive, 0);
}

/// Each round on a server of its own, so that the threads meet at every step of a first login.
TEST(ClientThreadTest, OneThreadLogsInForAllThatAsk)
{
    constexpr uint32_t rounds = 6000;
    CSessionFactory factory("Dev");
    std::atomic<int> logins{0};
    factory.plan.login = [&logins] {
        if (++logins % 2 == 0) { // the others wait; else they come at its end
            std::this_thread::yield();
        }
        return true;
    };
    std::vector<std::array<CSession*, 3>> found(rounds);
    std::barrier together(3);
    onThreads(3, [&](int thread) {
        for (uint32_t round = 0; round < rounds; ++round) {
            together.arrive_and_wait();
            volatile uint32_t delay = round * static_cast<uint32_t>(thread) % 400;
            while (delay > 0) {
                delay = delay - 1;
            }
            found[round][static_cast<size_t>(thread)] = sessionFor("Dev", serverAt(100 + round));
        }
    });
    for (const auto& clients : found) {
        EXPECT_THAT(clients, testing::Each(clients[0]));
        EXPECT_EQ(clientCountsOf(clients[0]), (ClientCounts{3, 1, 1, true}));
        EXPECT_EQ(clients[0]->logins, 1);
        for (CSession* client : clients) {
            CComponentHelper::release(client);
        }
    }
    EXPECT_EQ(CSession::s_alive, 0);
}

/// A session that breaks at any time, and works again when it was logged in. Each thread remembers
/// what it was told last.
struct CBrittle : CSession
{
    using CSession::CSession;
    bool isBroken() override
    {
        std::this_thread::yield(); // others may log in and break it again
        s_loginsSeen = logins;
        return s_wasBroken = broken;
    }
    bool login() override
    {
        broken = false;
        return CSession::login();
    }
    /// True when the calling thread knows of no login behind the failure that it saw.
    bool isKnownToBeBroken() const { return s_wasBroken && logins == s_loginsSeen; }

    static inline thread_local bool s_wasBroken = false;
    static inline thread_local int s_loginsSeen = 0;
};

TEST(ClientThreadTest, NobodyIsHandedASessionThatIsKnownToBeBroken)
{
    struct CBrittleFactory : CSessionFactory
    {
        using CSessionFactory::CSessionFactory;
        IClient* create(const ServerInfo&) override { return new CBrittle(plan); }
    } factory("Dev");
    auto* const kept = static_cast<CBrittle*>(sessionFor("Dev", serverAt(22)));
    std::atomic<bool> done{false};
    std::thread breaker([&] {
        while (!done) {
            kept->broken = true;
        }
    });
    onThreads(4, [&](int) {
        for (int round = 0; round < 5000; ++round) {
            EXPECT_EQ(sessionFor("Dev", serverAt(22)), kept);
            EXPECT_FALSE(kept->isKnownToBeBroken());
            CComponentHelper::release(kept);
        }
    });
    done = true;
    breaker.join();
    EXPECT_GT(kept->logins, 1);
    CComponentHelper::release(kept);
}

TEST(ClientThreadTest, AClientOfATableOrTheRegistryIsAliveWhoeverReleasesItMeanwhile)
{
    struct CAny : Detail::key_base
    {
        bool same_as(IUnknown*) const override { return true; }
    };
    Detail::CObjectTable table;
    registerComponent("BusySession",
                      [](const ServerInfo*) -> IUnknown* { return new CSession(SessionPlan()); });
    onThreads(4, [&table](int) {
        for (int round = 0; round < 1000; ++round) {
            IUnknown* const shared = getComponentInstance("BusySession", nullptr);
            table.lock();
            IUnknown* client = table.find(CAny());
            if (client == nullptr) {
                client = new CSession(SessionPlan());
                table.insert(client);
            }
            table.unlock();
            EXPECT_FALSE(static_cast<CSession*>(client)->broken);
            EXPECT_FALSE(static_cast<CSession*>(shared)->broken);
            CComponentHelper::release(client);
            CComponentHelper::release(shared);
        }
    });
    EXPECT_EQ(table.count(), 0u);
    EXPECT_EQ(CSession::s_alive, 0);
}

TEST(ClientThreadTest, SharingBreakingAbortingAndCheckingGoOnAtOnce)
{
    CSessionFactory factory("Dev");
    std::atomic<int> attempts{0};
    factory.plan.login = [&attempts] { return ++attempts % 5 != 0; };
    std::atomic<bool> done{false};
    std::thread checker([&done] {
        while (!done) {
            CClientInstanceList::instance()->removeIdleClientInstance(0);
        }
    });
    Told told[6];
    onThreads(6, [&factory, &told](int thread) {
        for (int round = 0; round < 400; ++round) {
            const uint32_t port = 30 + static_cast<uint32_t>(round % 3);
            const TComPtr<IClient> client(sessionFor("Dev", serverAt(port)), nullptr, 0);
            if (!client) {
                continue;
            }
            IClient* byUser = nullptr;
            CComponentHelper::getComponentFactory("Recorder", "Dev", 7, byUser);
            CComponentHelper::release(byUser);
            const IClient::StatusProc proc(&Told::onStatus, &told[thread]);
            client->attachStatusProc(proc);
            if (round % 16 == thread) {
                client->saveUserName("same");
                static_cast<CSession*>(client.get())->broken = round % 32 == thread;
                client->abort(round);
            }
            client->detachStatusProc(proc);
            ServerInfo server = {};
            client->getServerInfo(server);
            EXPECT_GT(strlen(server.userName), 0u);
            (void)factory.instance(7);
        }
    });
    done = true;
    checker.join();
    EXPECT_GT(told[0].count, 0);
    // What is left are clients whose last login failed: nobody but the list has them.
    for (uint32_t port = 30; port < 33; ++port) {
        for (const char* user : {"user", "same"}) {
            ServerInfo server = serverAt(port);
            server.userName = user;
            while (IClient* left = ClientFactory::getAndMakeClientInstance("Dev", server)) {
                EXPECT_EQ(clientCountsOf(left), (ClientCounts{2, 1, 0, true}));
                CComponentHelper::release(left);
                CComponentHelper::release(left);
            }
        }
    }
    EXPECT_EQ(CSession::s_alive, 0);
}

// The end of the process.

TEST(ClientExitTest, ClientsThatAreLeftStayAsTheyAre)
{
    const ChildResult child = runInChild([] {
        // Lives until after the exit handlers, and says what has become of the clients.
        struct Late
        {
            ~Late() { fprintf(stderr, "%d alive\n", CSession::s_alive.load()); }
        };
        static Late late;
        static CSessionFactory factory("Dev");
        factory.plan.logout = [] { fprintf(stderr, "logged out\n"); };
        sessionFor("Dev", serverAt(40));
        ClientFactory::createAndMakeClientObject("Dev", serverAt(41));
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_EQ(child.errorOutput, "2 alive\n");
}

TEST(ClientExitTest, ClientsMayBeReleasedAndAskedForBehindTheExitHandlers)
{
    const ChildResult child = runInChild([] {
        // Statics end in the order opposite to that of their making: this one behind the list.
        struct Late
        {
            ~Late()
            {
                CComponentHelper::release(client);
                CSession* const another = sessionFor("Dev", serverAt(43));
                CComponentHelper::release(another);
                fprintf(stderr, "%d made, %d alive, %d logged out\n", CSession::s_made.load(),
                        CSession::s_alive.load(), CSession::s_logouts.load());
            }
            CSessionFactory factory{"Dev"};
            CSession* client = nullptr;
        };
        CSession::s_made = CSession::s_logouts = 0;
        static Late s_late;
        s_late.factory.plan.logout = [] { Tarsel::Infra::logInfo("a logout may log\n"); };
        s_late.client = sessionFor("Dev", serverAt(42));
    });
    EXPECT_EQ(child.exitCode, 0) << child.report();
    EXPECT_THAT(child.errorOutput, testing::HasSubstr("2 made, 0 alive, 2 logged out\n"));
    EXPECT_EQ(countOf(child.output, "a logout may log"), 2);
}

TEST(ClientExitTest, TheProcessMayExitInALogoutOfTheIdleCheck)
{
    const ChildResult child = runInChild([] {
        CSessionFactory factory("Dev");
        factory.plan.logout = [] { exit(3); };
        makeIdle(44);
        leapFiveMinutes();
        pause();
    });
    EXPECT_EQ(child.exitCode, 3) << child.report();
}

// fork.

TEST(ClientForkTest, TheChildOfABusyProcessCanUseClients)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS();
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not support new threads in the child of such a fork";
#endif
    CSessionFactory factory("Dev");
    CSession* const kept = sessionFor("Dev", serverAt(50));
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (uint32_t port = 50; port < 52; ++port) {
        threads.emplace_back([port, &done] {
            while (!done) {
                CComponentHelper::release(sessionFor("Dev", serverAt(port)));
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(20);
            CSession* const again = sessionFor("Dev", serverAt(50));
            CSession* const another = sessionFor("Dev", serverAt(52));
            const bool isDropped = CComponentHelper::release(another) == 0;
            // The idle check runs again.
            makeIdle(53);
            const int alive = CSession::s_alive;
            leapFiveMinutes();
            const bool goes = eventually([alive] { return CSession::s_alive < alive; });
            _exit(again == kept && isDropped && goes ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
    }
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(CComponentHelper::release(kept), 0);
}

} // namespace
