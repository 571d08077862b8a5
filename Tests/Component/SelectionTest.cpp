// Which class and which server: defaults, the queryer, and the templates that applications use.

#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Component/Component.h"
#include "Component/Session.h"
#include "Support/ChildProcess.h"
#include "Support/FreshProcess.h"
#include "Support/LogCapture.h"

namespace
{

using namespace Tarsel::Component;
using namespace Tarsel::TestSupport;
using Tarsel::Infra::CString;
using Tarsel::Infra::getLastError;
using Tarsel::Infra::setLastError;

/// A component that says where it comes from, and a factory that makes it and shares it by name.
struct ISign : IUnknown
{
    ISign(const char* clsid, std::string text) : clsid(clsid), text(std::move(text)) {}
    const std::string clsid;
    const std::string text;

    struct IFactory : IFactoryUnknown
    {
        static const char* iid() { return "Sign"; }
        virtual ISign* create(const char* text) = 0;
        virtual ISign* instance(const std::string& text) = 0;
    };
};

typedef TCounted<TComponent<ISign>> CSign;

class CSignFactory : public TSharedFactory<ISign, const std::string&>
{
public:
    explicit CSignFactory(const char* name) : m_name(name) {}
    const char* clsid() override { return m_name; }
    ISign* create(const char* text) override
    {
        return text == nullptr ? nullptr : new CSign(m_name, text);
    }

protected:
    ISign* make(const std::string& text) override
    {
        return text.empty() ? nullptr : new CSign(m_name, text);
    }
    bool isFor(const std::string& text, ISign& sign) override { return sign.text == text; }

private:
    const char* const m_name;
};

/// Channels 1 and up are devices of class "Dev", channel 0 is here.
class CQueryer : public TCounted<IServerInfoQueryer>
{
public:
    bool getServerInfoByChannel(int32_t channel, CString& protocol, ServerInfo& si) override
    {
        protocol = channel == 0 ? "Local" : "Dev";
        si = serverAt(static_cast<uint32_t>(channel));
        return channel < 100;
    }
    bool getServerInfoByDeviceId(const char* deviceId, CString& protocol, ServerInfo& si) override
    {
        return getServerInfoByChannel(atoi(deviceId), protocol, si);
    }
};

TEST(SelectionTest, TheFirstDefaultOfAnInterfaceStays)
{
    EXPECT_EQ(CLocalComSelectManager::getDefaultClassID("Some"), "Local");
    EXPECT_TRUE(CLocalComSelectManager::setDefaultComponent("Some", "X"));
    EXPECT_FALSE(CLocalComSelectManager::setDefaultComponent("Some", "Y"));
    EXPECT_EQ(CLocalComSelectManager::getDefaultClassID(std::string("Some").c_str()), "X");
    EXPECT_FALSE(CLocalComSelectManager::setDefaultComponent(nullptr, "X"));
    EXPECT_FALSE(CLocalComSelectManager::setDefaultComponent("Other", nullptr));
    EXPECT_EQ(CLocalComSelectManager::getDefaultClassID("Other"), "Local");
    EXPECT_EQ(CLocalComSelectManager::getDefaultClassID(nullptr), "");
    onThreads(4, [](int thread) {
        for (int i = 0; i < 200; ++i) {
            const std::string iid = std::to_string(i);
            CLocalComSelectManager::setDefaultComponent(iid.c_str(), iid.c_str());
            EXPECT_EQ(CLocalComSelectManager::getDefaultClassID(iid.c_str()), iid.c_str())
                << thread;
        }
    });
}

TEST(SelectionTest, AClassMayHaveASubClass)
{
    CString protocol("Dev");
    CString none;
    CString sub("Talk");
    EXPECT_EQ(getClassId(protocol, none), "Dev");
    EXPECT_EQ(getClassId(protocol, sub), "Dev.Talk");
    EXPECT_EQ(ComSelChannelInfo::local.channel, -1);
    EXPECT_EQ(ComSelChannelInfo().userid, -1);
    EXPECT_EQ(ComSelChannelInfo().subClassID, nullptr);
    const ComSelChannelInfo channel(3, "Talk", 4);
    EXPECT_EQ(channel.channel, 3);
    EXPECT_EQ(channel.userid, 4);
    EXPECT_STREQ(channel.subClassID, "Talk");
}

TEST(QueryerTest, OneIsHeldUntilTheProcessExits)
{
    const auto body = [] {
        CLogCapture log;
        CServerInfoQueryerHelper& helper = CServerInfoQueryerHelper::instance();
        CString protocol("before");
        ServerInfo si = serverAt(77);
        EXPECT_TRUE(helper.getServerInfoByChannel(-2, protocol, si));
        EXPECT_EQ(protocol, "Local");
        EXPECT_EQ(si.serverPort, 77u);
        EXPECT_FALSE(helper.getServerInfoByDeviceId(nullptr, protocol, si));
        EXPECT_EQ(log.takeLeveled(), "error|please call setQueryerHandler interface\n");

        EXPECT_FALSE(setQueryerHandler(nullptr));
        EXPECT_EQ(log.takeLeveled(), "error|setQueryerHandler failed setPtr:(nil), oldPtr:(nil)\n");
        const IServerInfoQueryerPtr queryer(new CQueryer, nullptr, 0);
        const IServerInfoQueryerPtr other(new CQueryer, nullptr, 0);
        EXPECT_TRUE(setQueryerHandler(queryer));
        EXPECT_TRUE(setQueryerHandler(queryer));
        EXPECT_EQ(getRefCount(queryer.get()), 2);
        EXPECT_EQ(log.take(), "");
        EXPECT_FALSE(setQueryerHandler(other));
        char line[128];
        snprintf(line, sizeof(line), "error|setQueryerHandler failed setPtr:%p, oldPtr:%p\n",
                 static_cast<void*>(other.get()), static_cast<void*>(queryer.get()));
        EXPECT_EQ(log.takeLeveled(), line);

        EXPECT_TRUE(helper.getServerInfoByChannel(5, protocol, si));
        EXPECT_EQ(protocol, "Dev");
        EXPECT_EQ(si.serverPort, 5u);
        EXPECT_FALSE(helper.getServerInfoByChannel(100, protocol, si));
        EXPECT_TRUE(helper.getServerInfoByChannel(-1, protocol, si));
        EXPECT_EQ(protocol, "Local");
        EXPECT_EQ(si.serverPort, 100u);
        EXPECT_EQ(log.take(), "");
        EXPECT_FALSE(helper.getServerInfoByChannel(-2, protocol, si));
        EXPECT_FALSE(helper.getServerInfoByDeviceId(nullptr, protocol, si));
        EXPECT_EQ(log.takeLeveled(),
                  "error|channel:-2 is invalid \nerror|deviceId:(null) is empty\n");
        EXPECT_TRUE(helper.getServerInfoByDeviceId("6", protocol, si));
        EXPECT_EQ(si.serverPort, 6u);
    };
    INFRA_IN_FRESH_PROCESS(body);
}

TEST(QueryerTest, OneThatTalksThroughAClientLeavesItWhenTheProcessExits)
{
    const ChildResult child = runInChild([] {
        static CSessionFactory s_factory("Dev");
        s_factory.plan.logout = [] { fprintf(stderr, "logged out\n"); };
        setQueryerHandler(IServerInfoQueryerPtr(new CQueryer, sessionFor("Dev", serverAt(60)), 0));
        CString protocol;
        ServerInfo si = {};
        CServerInfoQueryerHelper::instance().getServerInfoByChannel(1, protocol, si);
        EXPECT_EQ(IClient::getCurrentUserID(), 7);
    });
    EXPECT_EQ(child.exitCode, 0) << child.report();
    EXPECT_EQ(countOf(child.errorOutput, "logged out"), 1);
}

// The templates.

class TemplateTest : public testing::Test
{
protected:
    ~TemplateTest() override
    {
        EXPECT_EQ(CSign::s_alive, 0);
        EXPECT_EQ(CSession::s_alive, 0);
    }
    CSessionFactory clients{"Dev"};
    TRegistered<CSignFactory> local{"Local"};
    TRegistered<CSignFactory> remote{"Dev"};
    TRegistered<CSignFactory> talking{"Dev.Talk"};
};

TEST_F(TemplateTest, AComponentComesWithTheClientOfItsServer)
{
    const TComPtr<ISign> here = createComponentObject<ISign>("Local", ServerInfo::none, "a");
    ASSERT_TRUE(here);
    EXPECT_EQ(here->text, "a");
    EXPECT_EQ(here.client(), nullptr);
    EXPECT_EQ(countsOf(here.get()), (Counts{1, 1}));

    const ServerInfo server = serverAt(61);
    TComPtr<ISign> there = createComponentObject<ISign>("Dev", server, "b");
    ASSERT_TRUE(there);
    EXPECT_EQ(there->clsid, "Dev");
    ASSERT_NE(there.client(), nullptr);
    EXPECT_EQ(clientCountsOf(there.client()), (ClientCounts{1, 1, 1, true}));
    EXPECT_EQ(createComponentObject<ISign>("Dev.Talk", 7, "c")->clsid, "Dev.Talk");
    EXPECT_FALSE(createComponentObject<ISign>("Dev", 8, "c"));
    EXPECT_TRUE(createComponentObject<ISign>("Dev", -1, "c").client() == nullptr);

    // A copy of none is a server, which has no client here.
    const ServerInfo copy = ServerInfo::none;
    EXPECT_FALSE(createComponentObject<ISign>("Local", copy, "d"));

    setLastError(0);
    EXPECT_FALSE(createComponentObject<ISign>("Dev", server, nullptr));
    EXPECT_EQ(getLastError(), 0x1003000D);
    EXPECT_FALSE(getComponentInstance<ISign>("Dev", server, ""));
    EXPECT_EQ(getLastError(), 0x1003000E);
    EXPECT_EQ(getRefCount(there.client()), 1);

    remote.unregisterFactory("Sign");
    EXPECT_FALSE(createComponentObject<ISign>("Dev", server, "e"));
    EXPECT_EQ(getRefCount(there.client()), 1);
    there.reset();
    EXPECT_EQ(CSession::s_alive, 0);
}

TEST_F(TemplateTest, AClientItselfIsAComponent)
{
    const ServerInfo server = serverAt(62);
    const TComPtr<IClient> client = createComponentObject<IClient>("Dev", ServerInfo::none, server);
    ASSERT_TRUE(client);
    EXPECT_EQ(clientCountsOf(client.get()), (ClientCounts{1, 1, 1, true}));
    const TComPtr<ISign> sign = createComponentObject<ISign>("Dev", server, "a");
    EXPECT_EQ(sign.client(), client.get());
    EXPECT_EQ(getRefCount(client.get()), 2);
}

TEST_F(TemplateTest, ASharedFactoryHasOneObjectForAKey)
{
    TComPtr<ISign> first = getComponentInstance<ISign>("Local", ServerInfo::none, "a");
    const TComPtr<ISign> other = getComponentInstance<ISign>("Local", ServerInfo::none, "b");
    EXPECT_EQ(countsOf(first.get()), (Counts{1, 1}));
    {
        const TComPtr<ISign> again = getComponentInstance<ISign>("Local", -1, std::string("a"));
        EXPECT_EQ(again, first);
        EXPECT_NE(again, other);
        EXPECT_EQ(countsOf(first.get()), (Counts{2, 1}));
    }
    const TComPtr<ISign> there = getComponentInstance<ISign>("Dev", serverAt(63), "a");
    EXPECT_NE(there, first); // each factory has its own
    first.reset();
    EXPECT_EQ(CSign::s_alive, 2);
    onThreads(8, [](int thread) {
        for (int round = 0; round < 500; ++round) {
            const std::string key = std::to_string((thread + round) % 3);
            EXPECT_EQ(getComponentInstance<ISign>("Local", ServerInfo::none, key)->text, key);
        }
    });
    EXPECT_EQ(CSign::s_alive, 2);
}

TEST_F(TemplateTest, AClientIsFoundAndCountedInOneStep)
{
    EXPECT_FALSE(getComponentInstance<IClient>("Dev", ServerInfo::none, 7));
    EXPECT_EQ(getLastError(), Tarsel::componentErrorGetInstanceFailed);
    onThreads(6, [](int thread) {
        for (int round = 0; round < 2000; ++round) {
            if (thread < 2) {
                createComponentObject<ISign>("Dev", serverAt(70), "a");
                continue;
            }
            const TComPtr<IClient> client =
                getComponentInstance<IClient>("Dev", ServerInfo::none, 7);
            if (client) {
                EXPECT_FALSE(client->isBroken());
            }
        }
    });
    EXPECT_EQ(CSession::s_alive, 0);
}

TEST_F(TemplateTest, AThrowingFactoryKeepsNoClient)
{
    struct CThrowing : CSignFactory
    {
        CThrowing() : CSignFactory("Throwing") {}
        ISign* create(const char*) override { throw 7; }
    };
    const TRegistered<CThrowing> throwing;
    CSessionFactory throwingClients("Throwing");
    EXPECT_THROW(createComponentObject<ISign>("Throwing", serverAt(71), "a"), int);
    EXPECT_EQ(CSession::s_alive, 0);
    throwingClients.plan.login = []() -> bool { throw 8; };
    EXPECT_THROW(createComponentObject<ISign>("Throwing", serverAt(72), "a"), int);
    IClient* const listed = ClientFactory::getAndMakeClientInstance("Throwing", serverAt(72));
    ASSERT_NE(listed, nullptr); // as one whose login failed
    EXPECT_EQ(getRefCount(listed), 2);
    CComponentHelper::release(listed);
    CComponentHelper::release(listed);
}

TEST_F(TemplateTest, SharedObjectsMayOutliveTheirFactory)
{
    TComPtr<ISign> left;
    {
        const TRegistered<CSignFactory> shortly("Shortly");
        left = getComponentInstance<ISign>("Shortly", ServerInfo::none, "a");
        ASSERT_TRUE(left);
    }
    EXPECT_EQ(left->text, "a");
    left.reset();
    EXPECT_EQ(CSign::s_alive, 0);
}

TEST_F(TemplateTest, AChannelOrADeviceSaysWhichClassAndServer)
{
    TRegistered<CSignFactory> chosen("Chosen");
    EXPECT_EQ(createComponentObject<ISign>(ComSelChannelInfo::local, "a")->clsid, "Local");
    EXPECT_EQ(createComponentObject<ISign>(ComSelChannelInfo(5, nullptr, -1), "a")->clsid, "Local");
    EXPECT_FALSE(createComponentObjectByDevice<ISign>("5", nullptr, "a"));
    const auto body = [] {
        CLocalComSelectManager::setDefaultComponent("Sign", "Chosen");
        setQueryerHandler(IServerInfoQueryerPtr(new CQueryer, nullptr, 0));
        const auto channel = [](int32_t number, const char* sub, int user) {
            return createComponentObject<ISign>(ComSelChannelInfo(number, sub, user), "a");
        };
        EXPECT_EQ(channel(-1, nullptr, -1)->clsid, "Chosen");
        EXPECT_EQ(channel(-1, nullptr, -1).client(), nullptr);
        EXPECT_FALSE(channel(-1, "Sub", -1)); // no class "Chosen.Sub"
        EXPECT_EQ(channel(0, nullptr, -1)->clsid, "Local");
        EXPECT_EQ(channel(0, nullptr, -1).client(), nullptr);
        EXPECT_FALSE(channel(100, nullptr, -1));
        EXPECT_FALSE(channel(-2, nullptr, -1));

        const TComPtr<ISign> talk = channel(64, "Talk", -1);
        EXPECT_EQ(talk->clsid, "Dev.Talk");
        ServerInfo server = {};
        talk.client()->getServerInfo(server);
        EXPECT_EQ(server.serverPort, 64u);
        EXPECT_EQ(channel(65, nullptr, 7).client(), talk.client()); // the user comes first
        EXPECT_FALSE(channel(65, nullptr, 8));

        const TComPtr<ISign> device = createComponentObjectByDevice<ISign>("64", nullptr, "a");
        EXPECT_EQ(device->clsid, "Dev");
        EXPECT_EQ(device.client(), talk.client());
        EXPECT_FALSE(createComponentObjectByDevice<ISign>(nullptr, nullptr, "a"));
        EXPECT_EQ(getComponentInstanceByDevice<ISign>("64", "Talk", "k"),
                  getComponentInstance<ISign>(ComSelChannelInfo(66, "Talk", -1), "k"));
        EXPECT_EQ(getComponentInstance<ISign>(ComSelChannelInfo::local, "k")->clsid, "Chosen");
    };
    INFRA_IN_FRESH_PROCESS(body);
}

} // namespace
