// The creator registry: objects by class name, shared per server, creators from libraries.

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Component/ComPtr.h"
#include "Component/Part.h"
#include "Component/ServerInfo.h"
#include "Support/ChildProcess.h"
#include "Support/FailingHeap.h"
#include "Support/LogCapture.h"
#include "Support/TemporaryFolder.h"

namespace
{

using namespace Tarsel::Component;
using namespace Tarsel::TestSupport;

IUnknown* makePart(const ServerInfo*)
{
    return new CPart;
}

IUnknown* makeNothing(const ServerInfo*)
{
    return nullptr;
}

ServerInfo serverOf(const char* address, uint32_t port, const char* user, const char* password,
                    uint8_t loginType)
{
    ServerInfo server = {};
    server.serverAddress = address;
    server.serverPort = port;
    server.userName = user;
    server.password = password;
    server.loginType = loginType;
    return server;
}

TEST(CreatorTest, ASharedObjectIsOnePerServerAndMadeAnewWhenAllHaveLetGo)
{
    EXPECT_TRUE(registerComponent("Shared", makePart));
    const int madeBefore = CPart::s_made;
    const ServerInfo servers[] = {serverOf("a", 1, "u", "p", 0),
                                  serverOf("b", 1, "u", "p", 0),
                                  serverOf("a", 2, "u", "p", 0),
                                  serverOf("a", 1, "v", "p", 0),
                                  serverOf("a", 1, "u", "q", 0),
                                  serverOf("a", 1, "u", "p", 1),
                                  serverOf(nullptr, 0, nullptr, nullptr, 0)};
    std::vector<IUnknown*> objects = {getComponentInstance("Shared", nullptr)};
    for (const ServerInfo& server : servers) {
        objects.push_back(getComponentInstance("Shared", &server));
    }
    EXPECT_EQ(CPart::s_made, madeBefore + 8);

    // By content, and null is the empty text. Nothing else of a server counts.
    ServerInfo same = serverOf(std::string("a").c_str(), 1, "u", "p", 0);
    const std::string address = "a";
    same.serverAddress = address.c_str();
    same.clientType = "another";
    same.mediaPort = 7;
    EXPECT_EQ(getComponentInstance("Shared", &same), objects[1]);
    const ServerInfo empty = serverOf("", 0, "", "", 0);
    EXPECT_EQ(getComponentInstance("Shared", &empty), objects[7]);
    EXPECT_EQ(getComponentInstance("Shared", nullptr), objects[0]);
    EXPECT_EQ(countsOf(objects[0]), (Counts{2, 1}));
    EXPECT_EQ(countsOf(objects[2]), (Counts{1, 0}));
    EXPECT_TRUE(objects[0]->m_internal->instance);
    EXPECT_STREQ(objects[0]->m_internal->cid, "Shared");

    for (const size_t twice : {0, 1, 7}) {
        EXPECT_EQ(objects[twice]->release(), 1);
    }
    for (IUnknown* object : objects) {
        EXPECT_EQ(object->release(), 0);
    }
    EXPECT_EQ(CPart::s_alive, 0);
    TComPtr<IUnknown>(getComponentInstance("Shared", &same), nullptr, 0).reset();
    EXPECT_EQ(CPart::s_made, madeBefore + 9);
}

TEST(CreatorTest, NoFreedMemoryHoldsAPassword)
{
    registerComponent("Secret", makePart);
    for (const char* password : {"dl9!short", "dl9!a password that needs a block of its own"}) {
        const ServerInfo server = serverOf("a", 1, "u", password, 0);
        const CSecretWatch watch(password);
        EXPECT_EQ(getComponentInstance("Secret", &server)->release(), 0);
        EXPECT_EQ(watch.found(), 0);
    }
}

TEST(CreatorTest, AnObjectOfOnesOwnIsSharedWithNobody)
{
    registerComponent("Own", makePart);
    IUnknown* const own = createComponentObject("Own", nullptr);
    IUnknown* const shared = getComponentInstance("Own", nullptr);
    EXPECT_NE(own, shared);
    EXPECT_FALSE(own->m_internal->instance);
    EXPECT_STREQ(own->m_internal->cid, "Own");
    EXPECT_EQ(own->release(), 0);
    EXPECT_EQ(shared->release(), 0);
    EXPECT_EQ(CPart::s_alive, 0);
}

TEST(CreatorTest, ASharedObjectMayBeDestroyedWhateverItsCount)
{
    registerComponent("Gone", makePart);
    IUnknown* const object = getComponentInstance("Gone", nullptr);
    object->addRef();
    EXPECT_TRUE(destroyComponent(object, "Gone", true));
    EXPECT_EQ(CPart::s_alive, 0);
    const int madeBefore = CPart::s_made;
    TComPtr<IUnknown>(getComponentInstance("Gone", nullptr), nullptr, 0).reset();
    EXPECT_EQ(CPart::s_made, madeBefore + 1);
}

TEST(CreatorTest, AnObjectThatIsNotInTheListEndsTheProcess)
{
    registerComponent("Listed", makePart);
    const struct
    {
        const char* cid;
        const char* text;
    } cases[] = {{"Unknown", "pi != s_componentMap.end()"},
                 {"Listed", "pj != (*pi).second.instances.end()"}};
    for (const auto& faulty : cases) {
        const ChildResult child =
            runInChild([&faulty] { destroyComponent(new CPart, faulty.cid, true); });
        EXPECT_EQ(child.signal, SIGABRT);
        EXPECT_NE(child.errorOutput.find(faulty.text), std::string::npos) << child.report();
    }
}

TEST(CreatorTest, ANewCreatorTakesThePlaceOfTheOneBeforeWithAWarning)
{
    CLogCapture log;
    EXPECT_TRUE(registerComponent("Twice", makeNothing));
    EXPECT_EQ(log.takeLeveled(), "");
    EXPECT_EQ(createComponentObject("Twice", nullptr), nullptr);
    EXPECT_EQ(getComponentInstance("Twice", nullptr), nullptr);
    EXPECT_TRUE(registerComponent("Twice", makePart));
    EXPECT_EQ(log.takeLeveled(),
              "warn|registerComponentCreator creator for cid:Twice already exist!\n");
    TComPtr<IUnknown> made(createComponentObject("Twice", nullptr), nullptr, 0);
    EXPECT_TRUE(made);

    // Asking for a class makes it known.
    EXPECT_EQ(createComponentObject("Asked", nullptr), nullptr);
    registerComponent("Asked", makePart);
    EXPECT_EQ(log.takeLeveled(),
              "warn|registerComponentCreator creator for cid:Asked already exist!\n");
}

TEST(CreatorTest, WhatIsNoClassNameGivesNothing)
{
    const std::string longest(300, 'x');
    for (const char* name : {static_cast<const char*>(nullptr), "", "/", "../Other", "Sub/Class",
                             "Unknown", "With.Dot", longest.c_str()}) {
        EXPECT_EQ(getComponentInstance(name, nullptr), nullptr);
        EXPECT_EQ(createComponentObject(name, nullptr), nullptr);
        EXPECT_EQ(getDynamicCreator(name), nullptr);
    }
    EXPECT_FALSE(registerComponent(nullptr, makePart));
    EXPECT_FALSE(registerComponent("", makePart));
    EXPECT_FALSE(registerComponent("../Other", makePart));
}

TEST(CreatorTest, ObjectsAreMadeAndDestroyedInPairsWhateverTheThreadsDo)
{
    registerComponent("Busy", makePart);
    onThreads(8, [](int thread) {
        const ServerInfo server = serverOf("a", static_cast<uint32_t>(thread % 2), "u", "p", 0);
        for (int round = 0; round < 2000; ++round) {
            const TComPtr<IUnknown> shared(getComponentInstance("Busy", &server), nullptr, 0);
            ASSERT_GE(getRefCount(shared.get()), 1);
            const TComPtr<IUnknown> again = shared;
            if (round % 64 == 0) {
                registerComponent(("New" + std::to_string(thread * 10000 + round)).c_str(),
                                  makePart);
            }
        }
    });
    EXPECT_EQ(CPart::s_alive, 0);
}

TEST(CreatorTest, AKnownClassIsFoundWithoutMemory)
{
    registerComponent("AClassWithANameOfForty.Characters.......", makePart);
    const ServerInfo server = serverOf("an.address.of.more.than.sixteen", 1, "user", "password", 0);
    const char* const name = "AClassWithANameOfForty.Characters.......";
    const TComPtr<IUnknown> kept(getComponentInstance(name, &server), nullptr, 0);
    const CMemoryShortage shortage(1, Shortage::lasting);
    TComPtr<IUnknown>(getComponentInstance(name, &server), nullptr, 0).reset();
    EXPECT_FALSE(CMemoryShortage::wasFelt());
}

// Libraries. The plug-in offers a function for each name that is cut to 30 characters.

class PluginTest : public testing::Test
{
protected:
    PluginTest() { std::filesystem::current_path(m_folder.path()); }
    ~PluginTest() override { std::filesystem::current_path("/"); }

    static void place(const std::string& file)
    {
        std::filesystem::copy_file(INFRA_TEST_PLUGIN, file);
    }

private:
    CTemporaryFolder m_folder;
};

TEST_F(PluginTest, NamesAreCutToThirtyCharacters)
{
    const struct
    {
        size_t letters;
        std::string file;
    } cases[] = {
        {1, "liba.so"},
        {18, "lib" + std::string(18, 'a') + ".so"},
        {19, "lib" + std::string(19, 'a') + ".so"},
        {22, "lib" + std::string(22, 'a') + ".so"},
        {23, "lib" + std::string(23, 'a') + ".s"},
        {29, "lib" + std::string(25, 'a')},
        {30, "lib" + std::string(25, 'a')},
        {31, "lib" + std::string(25, 'a')},
        {300, "lib" + std::string(25, 'a')},
    };
    for (const auto& cut : cases) {
        std::filesystem::remove(cut.file);
        place(cut.file);
        const std::string name(cut.letters, 'a');
        TComPtr<IUnknown> made(createComponentObject(name.c_str(), nullptr), nullptr, 0);
        ASSERT_TRUE(made) << cut.letters;
        EXPECT_EQ(made->getVersion().major, 42);
        TComPtr<IUnknown> shared(getComponentInstance(name.c_str(), nullptr), nullptr, 0);
        EXPECT_EQ(getComponentInstance(name.c_str(), nullptr), shared.get());
        EXPECT_EQ(shared->release(), 1);
    }
}

TEST_F(PluginTest, ALibraryMayRegisterClassesWhileItIsOpened)
{
    place("liba.so");
    onThreads(4, [](int) {
        TComPtr<IUnknown> made(createComponentObject("a", nullptr), nullptr, 0);
        EXPECT_TRUE(made);
    });
    TComPtr<IUnknown> registered(createComponentObject("FromPlugin", nullptr), nullptr, 0);
    EXPECT_TRUE(registered);
}

TEST_F(PluginTest, WhatCannotBeLoadedGivesNothing)
{
    CLogCapture log;
    place("libb.so");
    setContent("libc.so", "no library");
    EXPECT_EQ(createComponentObject("c", nullptr), nullptr);
    EXPECT_EQ(createComponentObject("missing", nullptr), nullptr);
    EXPECT_EQ(log.take(), "");
    EXPECT_EQ(createComponentObject("b", nullptr), nullptr);
    EXPECT_THAT(log.takeLeveled(),
                testing::EndsWith("error|getDynamicCreator get proc:createbObject failed for "
                                  "error:./libb.so: undefined symbol: createbObject!\n"));
}

} // namespace
