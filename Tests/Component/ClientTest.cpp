// Clients: what every step counts, whom a look-up finds, how sessions are logged in, and what a
// client tells.

#include <csignal>
#include <sstream>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Component/ObjectTable.h"
#include "Component/Session.h"
#include "Infra/Infra3/Time.h"
#include "Support/ChildProcess.h"
#include "Support/FailingHeap.h"
#include "Support/LogCapture.h"

namespace
{

using namespace Tarsel::Component;
using namespace Tarsel::TestSupport;
using Tarsel::Infra::CTime;
using Tarsel::Infra::getLastError;
using Tarsel::Infra::setLastError;

typedef IClient::ClientInternal Record;

class ClientTest : public testing::Test
{
protected:
    ClientTest() : made(CSession::s_made), logouts(CSession::s_logouts)
    {
        CClientInstanceList::instance(); // what it starts has lines of its own
    }
    ~ClientTest() override { EXPECT_EQ(CSession::s_alive, 0); }

    int madeHere() const { return CSession::s_made - made; }
    int logoutsHere() const { return CSession::s_logouts - logouts; }

    CSessionFactory factory{"Dev"};

private:
    const int made;
    const int logouts;
};

TEST_F(ClientTest, CountsOfAClientThatLookUpsMakeAndShare)
{
    const ServerInfo server = serverAt(1);
    IClient* client = nullptr;
    EXPECT_EQ(CComponentHelper::getComponentFactory("Recorder", "Dev", server, client),
              factory.recorders());
    EXPECT_EQ(clientCountsOf(client), (ClientCounts{1, 1, 1, true}));
    EXPECT_EQ(client->m_internal->state, Record::logined);

    EXPECT_EQ(sessionFor("Dev", server), client);
    EXPECT_EQ(clientCountsOf(client), (ClientCounts{2, 1, 1, true}));
    IClient* byUser = nullptr;
    EXPECT_EQ(CComponentHelper::getComponentFactory("Recorder", "Dev", 7, byUser),
              factory.recorders());
    EXPECT_EQ(byUser, client);
    EXPECT_EQ(clientCountsOf(client), (ClientCounts{3, 1, 1, true}));

    EXPECT_EQ(CComponentHelper::release(client), 2);
    EXPECT_EQ(CComponentHelper::release(client), 1);
    EXPECT_EQ(logoutsHere(), 0);
    EXPECT_EQ(CComponentHelper::release(client), 0);
    EXPECT_EQ(logoutsHere(), 1);
    EXPECT_EQ(CSession::s_alive, 0);
    EXPECT_EQ(madeHere(), 1);
}

TEST_F(ClientTest, CountsOfAClientWhoseLoginFailsAtFirst)
{
    const ServerInfo server = serverAt(2);
    bool succeeds = false;
    factory.plan.login = [&succeeds] { return succeeds; };
    IClient* const kept = ClientFactory::createAndMakeClientObject("Dev.Sub", server);
    EXPECT_EQ(clientCountsOf(kept), (ClientCounts{2, 1, 0, true}));
    EXPECT_EQ(kept->m_internal->state, Record::created);
    EXPECT_EQ(CComponentHelper::release(kept), 1);
    EXPECT_EQ(clientCountsOf(kept), (ClientCounts{1, 1, 0, true}));

    EXPECT_EQ(sessionFor("Dev", server), nullptr);
    EXPECT_EQ(clientCountsOf(kept), (ClientCounts{1, 1, 0, true}));
    EXPECT_EQ(kept->m_internal->state, Record::created);
    EXPECT_EQ(ClientFactory::getAndMakeClientInstance("Dev", server), kept);
    EXPECT_EQ(clientCountsOf(kept), (ClientCounts{2, 1, 0, true}));
    EXPECT_EQ(ClientFactory::createAndMakeClientObject("Dev", server), kept);
    EXPECT_EQ(clientCountsOf(kept), (ClientCounts{3, 1, 0, true}));
    EXPECT_EQ(CComponentHelper::release(kept), 2);
    EXPECT_EQ(CComponentHelper::release(kept), 1);

    succeeds = true;
    EXPECT_EQ(sessionFor("Dev", server), kept);
    EXPECT_EQ(clientCountsOf(kept), (ClientCounts{1, 1, 1, true}));
    EXPECT_EQ(CComponentHelper::release(kept), 0);
    EXPECT_EQ(madeHere(), 1);
    EXPECT_EQ(logoutsHere(), 1);
}

TEST_F(ClientTest, CountsOfAClientThatAUserMakesThroughTheFactory)
{
    const ServerInfo server = serverAt(3);
    IClient* none = nullptr;
    IFactoryUnknown* const found =
        CComponentHelper::getComponentFactory("Client", "Dev", server, none);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(CComponentHelper::getComponentFactory("Client", "Dev", 5, none), found);
    EXPECT_STREQ(found->clsid(), "Dev");
    auto* const wrapper = dynamic_cast<IClient::IFactory*>(found);
    ASSERT_NE(wrapper, nullptr);
    EXPECT_NE(wrapper, &factory);

    IClient* const client = wrapper->create(server);
    EXPECT_EQ(clientCountsOf(client), (ClientCounts{1, 1, 1, true}));
    EXPECT_EQ(client->m_internal->state, Record::created);
    EXPECT_EQ(CComponentHelper::makeComponentObject(client), client);
    EXPECT_EQ(wrapper->create(server), client);
    EXPECT_EQ(clientCountsOf(client), (ClientCounts{2, 1, 1, true}));
    EXPECT_EQ(sessionFor("Dev", server), client);
    EXPECT_EQ(clientCountsOf(client), (ClientCounts{3, 1, 1, true}));
    EXPECT_EQ(wrapper->instance(7), client); // takes none
    EXPECT_EQ(factory.instance(8), nullptr);
    EXPECT_EQ(getRefCount(client), 3);
    for (int left = 2; left >= 0; --left) {
        EXPECT_EQ(ClientFactory::releaseClientObject(client), left);
    }
    EXPECT_EQ(logoutsHere(), 1);
}

TEST_F(ClientTest, AClientThatIsReleasedByItselfOrDeletedIsListedNoMore)
{
    sessionFor("Dev", serverAt(4))->release();
    EXPECT_EQ(logoutsHere(), 0);
    EXPECT_EQ(CSession::s_alive, 0);
    delete sessionFor("Dev", serverAt(4));
    CComponentHelper::release(sessionFor("Dev", serverAt(4)));
    EXPECT_EQ(madeHere(), 3);
}

TEST_F(ClientTest, AClientLeavesAllThatShareItWithItsLastReference)
{
    registerComponent("SharedSession",
                      [](const ServerInfo*) -> IUnknown* { return new CSession(SessionPlan()); });
    const struct
    {
        int (*release)(IUnknown*);
        int logouts;
    } ways[] = {{CComponentHelper::release, 1}, {[](IUnknown* one) { return one->release(); }, 0}};
    for (const auto& way : ways) {
        const int before = logoutsHere();
        IUnknown* const instance = getComponentInstance("SharedSession", nullptr);
        EXPECT_EQ(getComponentInstance("SharedSession", nullptr), instance);
        EXPECT_EQ(way.release(instance), 1);
        EXPECT_EQ(way.release(instance), 0);
        EXPECT_EQ(CSession::s_alive, 0);
        IUnknown* const anew = getComponentInstance("SharedSession", nullptr);
        EXPECT_EQ(countsOf(anew), (Counts{1, 0}));

        Detail::CObjectTable table;
        IClient* const listed = sessionFor("Dev", serverAt(15));
        table.lock();
        table.insert(anew); // counts it as handed out
        table.insert(listed);
        table.unlock();
        EXPECT_EQ(way.release(listed), 1);
        EXPECT_EQ(way.release(listed), 0);
        EXPECT_EQ(table.count(), 1u);
        EXPECT_EQ(way.release(anew), 0);
        EXPECT_EQ(table.count(), 0u);
        EXPECT_EQ(CClientInstanceList::instance()->findClientInstance("Dev", 7), nullptr);
        TComPtr<IUnknown>(getComponentInstance("SharedSession", nullptr), nullptr, 0).reset();
        EXPECT_EQ(CSession::s_alive, 0);
        EXPECT_EQ(logoutsHere() - before, 3 * way.logouts + 1);
    }
}

TEST_F(ClientTest, AClientWithoutAReferenceIsPassedOver)
{
    CSession* const ending = sessionFor("Dev", serverAt(16));
    EXPECT_EQ(decreaseRefCount(ending), 0);
    EXPECT_EQ(factory.instance(7), nullptr);
    EXPECT_EQ(ClientFactory::getAndMakeClientInstance("Dev", 7), nullptr);
    CSession* const next = sessionFor("Dev", serverAt(16));
    EXPECT_NE(next, ending);
    EXPECT_EQ(factory.instance(7), next);
    ending->destroy();
    EXPECT_EQ(CComponentHelper::release(next), 0);
}

// Finding.

TEST_F(ClientTest, AFactoryThatMakesASecondClientForAServerIsReported)
{
    struct CNesting : CSessionFactory
    {
        using CSessionFactory::CSessionFactory;
        IClient* create(const ServerInfo& server) override
        {
            if (nests) {
                nests = false;
                inner = ClientFactory::createAndMakeClientObject("Nesting", server);
            }
            return CSessionFactory::create(server);
        }
        bool nests = false;
        IClient* inner = nullptr;
    } nesting("Nesting");
    IClient* none = nullptr;
    auto* const wrapper = static_cast<IClient::IFactory*>(
        CComponentHelper::getComponentFactory("Client", "Nesting", -1, none));
    CLogCapture log;
    for (const bool byFactory : {true, false}) {
        nesting.nests = true;
        IClient* const outer =
            byFactory ? wrapper->create(serverAt(17))
                      : ClientFactory::createAndMakeClientObject("Nesting", serverAt(17));
        EXPECT_NE(outer, nesting.inner);
        EXPECT_TRUE(clientCountsOf(outer).isListed);
        char line[128];
        snprintf(line, sizeof(line),
                 "error|this:%p remote client instance:%p has been in CClientInstanceList "
                 "already.\n",
                 static_cast<void*>(wrapper), static_cast<void*>(nesting.inner));
        EXPECT_EQ(log.takeLeveled(), line);
        for (IClient* client : {outer, nesting.inner}) {
            while (CComponentHelper::release(client) > 0) {
            }
        }
    }
}

TEST(ClientHashTest, EveryNumberOfAServerCounts)
{
    ServerInfo server = {};
    server.loginType = 128;
    const size_t hash = clientHash(server);
    server.loginSession = 1;
    EXPECT_NE(clientHash(server), hash);
}

TEST_F(ClientTest, AServerIsTheSameWhenAllThatCountsIsEqual)
{
    typedef std::function<void(ServerInfo&)> Change;
    const struct
    {
        const char* field;
        Change change;
        bool isSame;
    } cases[] = {
        {"nothing", [](ServerInfo&) {}, true},
        {"serverAddress", [](ServerInfo& s) { s.serverAddress = "other"; }, false},
        {"serverPort", [](ServerInfo& s) { s.serverPort = 1; }, false},
        {"userName", [](ServerInfo& s) { s.userName = "other"; }, false},
        {"password", [](ServerInfo& s) { s.password = "other"; }, false},
        {"random", [](ServerInfo& s) { s.random = "other"; }, false},
        {"loginType", [](ServerInfo& s) { s.loginType = 1; }, false},
        {"loginMode", [](ServerInfo& s) { s.loginMode = 1; }, false},
        {"loginSession", [](ServerInfo& s) { s.loginSession = 1; }, false},
        {"clientType", [](ServerInfo& s) { s.clientType = "other"; }, false},
        {"clientAddress", [](ServerInfo& s) { s.clientAddress = "other"; }, false},
        {"targetID", [](ServerInfo& s) { s.targetID = "other"; }, false},
        {"proxyToken", [](ServerInfo& s) { s.proxyToken = "other"; }, false},
        {"socketType", [](ServerInfo& s) { s.socketType = 1; }, false},
        {"mediaPort", [](ServerInfo& s) { s.mediaPort = 1; }, false},
        {"passwordType", [](ServerInfo& s) { s.passwordType = "other"; }, false},
        {"authorityType", [](ServerInfo& s) { s.authorityType = "other"; }, false},
        {"encryption", [](ServerInfo& s) { s.encryption = 1; }, false},
        {"authorityInfo", [](ServerInfo& s) { s.authorityInfo = "other"; }, true},
        {"passiveSocket", [](ServerInfo& s) { s.passiveSocket = 1; }, true},
        {"stochastic", [](ServerInfo& s) { s.stochastic = "other"; }, true},
        {"loginTimeout", [](ServerInfo& s) { s.loginTimeout = 1; }, true},
        {"resv", [](ServerInfo& s) { s.resv = 1; }, true},
        {"texts from elsewhere", [](ServerInfo& s) { s.random = ""; }, true},
    };
    CSession* const kept = sessionFor("Dev", ServerInfo{});
    for (const auto& different : cases) {
        ServerInfo server = {};
        different.change(server);
        EXPECT_EQ(clientIsSameAs(kept, "Dev", server), different.isSame) << different.field;
        CSession* const found = sessionFor("Dev", server);
        EXPECT_EQ(found == kept, different.isSame) << different.field;
        // What was asked for can be read back, and found again.
        ServerInfo read = {};
        found->getServerInfo(read);
        EXPECT_EQ(ClientFactory::getAndMakeClientInstance("Dev", read), found);
        CComponentHelper::release(found);
        CComponentHelper::release(found);
    }
    CComponentHelper::release(kept);
}

TEST_F(ClientTest, AClassFitsWhenItsNameBeginsAsTheOneAskedFor)
{
    CSessionFactory longer("Device");
    CSession* const client = sessionFor("Device", serverAt(5));
    const struct
    {
        const char* asked;
        bool fits;
    } cases[] = {{"Device", true}, {"Dev", true},       {"D.ev", true},        {"", true},
                 {nullptr, true},  {".anything", true}, {"Device.Talk", true}, {"Devices", false},
                 {"dev", false}};
    for (const auto& name : cases) {
        EXPECT_EQ(clientIsSameAs(client, name.asked, serverAt(5)), name.fits) << name.asked;
        EXPECT_EQ(clientIsSameAs(client, name.asked, 7), name.fits) << name.asked;
    }
    EXPECT_FALSE(clientIsSameAs(client, "Device", 8));
    EXPECT_EQ(sessionFor("Dev", serverAt(5)), client);
    EXPECT_EQ(ClientFactory::createAndMakeClientObject("Dev.Sub", serverAt(5)), client);
    for (int left = 2; left >= 0; --left) {
        EXPECT_EQ(CComponentHelper::release(client), left);
    }
}

TEST_F(ClientTest, TheFirstInTheListIsFound)
{
    CSessionFactory local("Local");
    IClient* const first = ClientFactory::createAndMakeClientObject("Local", serverAt(6));
    IClient* const second = ClientFactory::createAndMakeClientObject("Local", serverAt(6));
    EXPECT_NE(first, second); // a class of that name shares nothing
    EXPECT_TRUE(clientCountsOf(second).isListed);
    EXPECT_EQ(CClientInstanceList::instance()->findClientInstance("Local", serverAt(6)), first);
    EXPECT_EQ(CClientInstanceList::instance()->findClientInstance("Local", 7), first);
    first->m_internal->state = Record::broken;
    EXPECT_EQ(CClientInstanceList::instance()->findClientInstance("Local", serverAt(6)), second);
    EXPECT_EQ(ClientFactory::getAndMakeClientInstance("Local", serverAt(6)), first);
    CComponentHelper::release(first);
    first->m_internal->state = Record::created;

    // A name that is saved changes who is found, not the order.
    second->saveUserName("new");
    ServerInfo renamed = serverAt(6);
    renamed.userName = "new";
    EXPECT_EQ(CClientInstanceList::instance()->findClientInstance("Local", renamed), second);
    EXPECT_EQ(CClientInstanceList::instance()->findClientInstance("Local", serverAt(6)), first);
    first->saveUserName("new");
    EXPECT_EQ(CClientInstanceList::instance()->findClientInstance("Local", renamed), first);
    for (IClient* client : {first, second}) {
        CComponentHelper::release(client);
        CComponentHelper::release(client);
    }
    EXPECT_EQ(logoutsHere(), 2);
}

TEST_F(ClientTest, AKnownClientIsFoundWithoutMemory)
{
    ServerInfo server = serverAt(7);
    server.serverAddress = "an address of more than sixteen characters";
    CSession* const client = sessionFor("Dev", server);
    {
        const CMemoryShortage shortage(1, Shortage::lasting);
        EXPECT_EQ(sessionFor("Dev", server), client);
        EXPECT_FALSE(CMemoryShortage::wasFelt());
    }
    CComponentHelper::release(client);
    CComponentHelper::release(client);
}

TEST_F(ClientTest, WhatCannotBeMadeIsNullWithALastErrorAndALine)
{
    CLogCapture log;
    const std::string longest(300, 'x');
    for (const char* name : {"Unknown", "", static_cast<const char*>(nullptr), longest.c_str()}) {
        setLastError(0);
        EXPECT_EQ(ClientFactory::createAndMakeClientObject(name, ServerInfo{}), nullptr);
        EXPECT_EQ(getLastError(), 0x10030002);
    }
    factory.plan.isMade = false;
    setLastError(0);
    EXPECT_EQ(ClientFactory::createAndMakeClientObject("Dev", ServerInfo{}), nullptr);
    EXPECT_EQ(getLastError(), 0x10030003);
    EXPECT_EQ(log.take(), "");
    EXPECT_EQ(sessionFor("Dev", ServerInfo{}), nullptr);
    EXPECT_EQ(log.takeLeveled(), "error|iid:Recorder could not been got because clientInstance "
                                 "could not be created.\n");
    IClient* none = nullptr;
    auto* const wrapper = static_cast<IClient::IFactory*>(
        CComponentHelper::getComponentFactory("Client", "Dev", -1, none));
    setLastError(0);
    EXPECT_EQ(wrapper->create(ServerInfo{}), nullptr);
    EXPECT_EQ(CComponentHelper::getComponentFactory("Recorder", "Dev", 12345, none), nullptr);
    EXPECT_EQ(getLastError(), 0);

    factory.plan.isMade = true;
    const ServerInfo server = serverAt(8);
    CSession* const client = sessionFor("Dev", server);
    const struct
    {
        const char* iid;
        int error;
    } cases[] = {{"NoInterface", 0x10030000}, {"NoRecorder", 0x10030001}};
    CSessionFactory other("Else");
    other.recorders()->registerFactory("NoRecorder");
    for (const auto& missing : cases) {
        none = client;
        EXPECT_EQ(CComponentHelper::getComponentFactory(missing.iid, "Dev", server, none), nullptr);
        EXPECT_EQ(getLastError(), missing.error);
        EXPECT_EQ(none, nullptr);
        EXPECT_EQ(CComponentHelper::getComponentFactory(missing.iid, "Dev", 7, none), nullptr);
        EXPECT_EQ(getRefCount(client), 1);
    }
    // A factory that was taken out: the client comes alone.
    factory.recorders()->unregisterFactory("Recorder");
    EXPECT_EQ(CComponentHelper::getComponentFactory("Recorder", "Dev", server, none), nullptr);
    EXPECT_EQ(none, client);
    CComponentHelper::release(client);
    CComponentHelper::release(client);
    factory.unregisterFactory("Client");
    EXPECT_EQ(CComponentHelper::getComponentFactory("Client", "Dev", -1, none), nullptr);
    EXPECT_EQ(ClientFactory::createAndMakeClientObject("Dev", server), nullptr);
}

TEST_F(ClientTest, MisuseEndsTheProcess)
{
    struct CNoClientFactory : IFactoryUnknown
    {
        const char* clsid() override { return "NoClient"; }
    } noClient;
    noClient.registerFactory("Client");
    const auto replaceFactory = [] {
        alignas(CSessionFactory) static char place[sizeof(CSessionFactory)];
        IFactoryUnknown* const clients = new (place) CSessionFactory("Clients");
        ClientFactory::wrapClientFactory(clients);
        clients->~IFactoryUnknown();
        ClientFactory::wrapClientFactory(new (place) CNoClientFactory);
    };
    CSession bare((SessionPlan()));
    const struct
    {
        std::function<void()> body;
        const char* text;
    } cases[] = {
        {[] { ClientFactory::createAndMakeClientObject("NoClient", ServerInfo{}); },
         "(m_original != NULL)"},
        {replaceFactory, "(m_original != NULL)"},
        {[] { ClientFactory::releaseClientObject(nullptr); }, "(client != NULL)"},
        {[&bare] { bare.abort(0); }, "(m_internal) failed in abort"},
        {[&bare] { bare.setCustomData(nullptr); }, "(m_internal)"},
        {[&bare] { clientLogin(&bare); }, "(client != NULL && client->m_internal != NULL)"},
        {[] { clientGetAndMarkUsing(nullptr); }, "(client != NULL && client->m_internal != NULL)"},
        {[&bare] {
             clientCreateInternal(&bare, "Dev", ServerInfo{}, false);
             clientCreateInternal(&bare, "Dev", ServerInfo{}, false);
         },
         "(client != NULL && client->m_internal == NULL)"},
    };
    for (const auto& misuse : cases) {
        const ChildResult child = runInChild(misuse.body);
        EXPECT_EQ(child.signal, SIGABRT);
        EXPECT_THAT(child.errorOutput, testing::HasSubstr(misuse.text));
    }
    noClient.unregisterFactory("Client");
}

// Sessions.

/// What look-ups said since the last time; the threads that have just started speak, too.
std::string linesOfLookUps(CLogCapture& log)
{
    std::istringstream lines(log.takeLeveled());
    std::string found;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("iid:") != std::string::npos || line.find("Factory()") != std::string::npos) {
            found += line;
        }
    }
    return found;
}

TEST_F(ClientTest, ABrokenSessionIsLoggedInAgain)
{
    CLogCapture log;
    Tarsel::Infra::setPrintLogLevel(6);
    const ServerInfo server = serverAt(9);
    bool succeeds = true;
    factory.plan.login = [&succeeds] { return succeeds; };
    CSession* const client = sessionFor("Dev", server);
    CTime loggedIn;
    EXPECT_TRUE(client->getLoginTime(loggedIn));
    EXPECT_GE(loggedIn.year, 2020);
    client->m_internal->retryTime = 1;
    sessionFor("Dev", server);
    EXPECT_EQ(client->logins, 1);
    EXPECT_GT(client->m_internal->retryTime, 1u);

    client->broken = true;
    sessionFor("Dev", server);
    EXPECT_EQ(client->logins, 2);
    EXPECT_EQ(client->m_internal->state, Record::logined);
    EXPECT_EQ(getRefCount(client), 3);

    succeeds = false;
    EXPECT_EQ(sessionFor("Dev", server), nullptr);
    EXPECT_EQ(client->m_internal->state, Record::broken);
    EXPECT_EQ(linesOfLookUps(log), "trace|iid:Recorder could not been got because re-log failed.");
    EXPECT_EQ(sessionFor("Dev", server), nullptr);
    EXPECT_EQ(linesOfLookUps(log), "trace|iid:Recorder could not been got because log failed.");
    client->broken = false;
    EXPECT_EQ(sessionFor("Dev", server), nullptr); // the state says so, not the session
    EXPECT_EQ(client->logins, 5);
    succeeds = true;
    EXPECT_EQ(sessionFor("Dev", server), client);
    EXPECT_EQ(client->m_internal->state, Record::logined);

    log.clear();
    client->m_internal->state = static_cast<Record::State>(3);
    EXPECT_EQ(sessionFor("Dev", server), nullptr);
    EXPECT_EQ(linesOfLookUps(log), "error|Infra.getComponentFactory(): client state is unknown!");
    for (int left = 3; left >= 0; --left) {
        EXPECT_EQ(CComponentHelper::release(client), left);
    }

    succeeds = false;
    EXPECT_EQ(sessionFor("Dev", serverAt(10)), nullptr);
    EXPECT_EQ(linesOfLookUps(log),
              "trace|iid:Recorder could not been generated because log failed.");
    CComponentHelper::release(
        CClientInstanceList::instance()->findClientInstance("Dev", serverAt(10)));
}

TEST_F(ClientTest, NoLineHoldsAPassword)
{
    CLogCapture log;
    Tarsel::Infra::setPrintLogLevel(6);
    ServerInfo server = serverAt(11);
    server.userName = nullptr;
    factory.plan.login = [] { return false; };
    sessionFor("Dev", server);
    IClient* const client = CClientInstanceList::instance()->findClientInstance("Dev", server);
    ServerInfo lent = {};
    client->getServerInfo(lent);
    client->saveUserName("x");
    client->saveUserName("y");
    CComponentHelper::release(client);
    factory.plan.isMade = false;
    sessionFor("Dev", server);
    EXPECT_FALSE(log.contains("passw0rd"));
    EXPECT_TRUE(log.contains("could not been got"));
}

TEST_F(ClientTest, NoFreedMemoryHoldsAPassword)
{
    ServerInfo server = serverAt(18);
    server.proxyToken = "of a length for which one text of all of them has to grow more than once";
    for (const char* password : {"dl9!short", "dl9!a password that needs a block of its own"}) {
        server.password = password;
        const CSecretWatch watch(password);
        CSession* const client = sessionFor("Dev", server);
        client->saveUserName("another user");
        CComponentHelper::release(client);
        EXPECT_EQ(watch.found(), 0);
    }
}

// What a client tells.

TEST_F(ClientTest, ItDescribesItsServerAsItWasAskedForAndSavesAUserNameOnce)
{
    CLogCapture log;
    ServerInfo asked = {};
    asked.serverAddress = "address";
    asked.userName = "the user of the first day";
    asked.encryption = 1;
    asked.stochastic = "s";
    CSession* const client = sessionFor("Dev", asked);
    ServerInfo server = {};
    server.loginTimeout = 12;
    server.resv = 5;
    server.reserved[0] = 3;
    EXPECT_TRUE(client->getServerInfo(server));
    EXPECT_STREQ(server.serverAddress, "address");
    EXPECT_STREQ(server.userName, "the user of the first day");
    EXPECT_STREQ(server.password, "");
    EXPECT_STREQ(server.stochastic, "s");
    EXPECT_EQ(server.encryption, 1);
    EXPECT_EQ(std::make_tuple(server.loginTimeout, server.resv + 0, server.reserved[0]),
              std::make_tuple(12, 5, 3));

    const char* const lent = server.userName;
    EXPECT_TRUE(client->saveUserName(nullptr));
    EXPECT_STREQ(lent, "the user of the first day");
    EXPECT_EQ(log.take(), "");
    EXPECT_TRUE(client->getServerInfo(server));
    EXPECT_STREQ(server.userName, "");
    EXPECT_TRUE(client->saveUserName("another"));
    char lines[256];
    snprintf(lines, sizeof(lines),
             "warn|this:%p userName of client is a null string!\n"
             "warn|this:%p username of client has already saved.\n",
             static_cast<void*>(client), static_cast<void*>(client));
    EXPECT_EQ(log.takeLeveled(), lines);
    EXPECT_EQ(client->m_internal->userName, "");
    CComponentHelper::release(client);
}

TEST_F(ClientTest, WhatAClassDoesNotOfferIsRefused)
{
    CSession bare((SessionPlan()));
    CTime time;
    ServerChallenge challenge;
    const std::function<bool()> operations[] = {
        [&] { return bare.checkAuthority("a"); },
        [&] { return bare.getCurrentTime(time); },
        [&] { return bare.setCurrentTime(time, 0); },
        [&] { return bare.loginAgain(ServerInfo::none); },
        [&] { return bare.checkAuthorityString("a"); },
        [&] { return bare.loginFirst(); },
        [&] { return bare.getChallenge(challenge); },
    };
    for (const auto& operation : operations) {
        setLastError(0);
        EXPECT_FALSE(operation());
        EXPECT_EQ(getLastError(), 0x10030010);
    }
}

TEST_F(ClientTest, ACallOnBehalfOfAUserIsKnownToItsThread)
{
    CSession* const first = sessionFor("Dev", serverAt(12));
    EXPECT_EQ(IClient::getCurrentUserID(), 7);
    factory.plan.userID = -1;
    CSession* const nobody = sessionFor("Dev", serverAt(13));
    EXPECT_EQ(IClient::getCurrentUserID(), -1);
    EXPECT_FALSE(CComponentHelper::setAsCurrentUser(nullptr));
    {
        const TComPtr<IUnknown> part(new CPart, first, 0);
        onThreads(1, [&part](int) {
            EXPECT_EQ(IClient::getCurrentUserID(), 0);
            (void)part->getVersion();
            EXPECT_EQ(IClient::getCurrentUserID(), 7);
        });
        EXPECT_EQ(IClient::getCurrentUserID(), -1);
        EXPECT_EQ(part.client(), first);
        const TComPtr<IUnknown> copy = part;
        EXPECT_EQ(getRefCount(first), 2);
    }
    EXPECT_EQ(logoutsHere(), 1);
    CComponentHelper::release(nobody);
}

struct Told
{
    void onStatus(void* data, ClassID clsid, TComPtr<IClient> client, IClient::Status status,
                  int reason)
    {
        last = {data, clsid.m_str, client.get(), status, reason};
        ++count;
    }
    IClient::StatusProc proc() { return {&Told::onStatus, this}; }

    std::tuple<void*, std::string, IClient*, IClient::Status, int> last{};
    std::atomic<int> count{0};
};

TEST_F(ClientTest, AnAbortedSessionIsToldToEightAtMostAndLoggedOut)
{
    CSession* const client = sessionFor("Dev", serverAt(14));
    Told told[9];
    int data = 0;
    client->setCustomData(&data);
    EXPECT_EQ(client->getCustomData(), &data);
    EXPECT_FALSE(client->attachStatusProc(IClient::StatusProc()));
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(client->attachStatusProc(told[i].proc()), i < 8) << i;
    }
    EXPECT_FALSE(client->attachStatusProc(told[0].proc()));

    EXPECT_TRUE(client->abort(-5));
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(told[i].last, std::make_tuple(static_cast<void*>(&data), std::string("Dev"),
                                                static_cast<IClient*>(client),
                                                IClient::statusSessionAborted, -5));
        EXPECT_EQ(told[i].count, 1);
        EXPECT_TRUE(client->detachStatusProc(told[i].proc()));
    }
    EXPECT_FALSE(client->detachStatusProc(told[0].proc()));
    EXPECT_EQ(told[8].count, 0);
    EXPECT_EQ(logoutsHere(), 1);
    EXPECT_EQ(getRefCount(client), 1);

    // Who is told may drop the last reference but that of the call itself.
    client->setCustomData(client);
    client->attachStatusProc([](void* self, ClassID, TComPtr<IClient>, IClient::Status, int) {
        CComponentHelper::release(static_cast<IClient*>(self));
    });
    EXPECT_TRUE(client->abort(0));
    EXPECT_EQ(CSession::s_alive, 0);
}

} // namespace
