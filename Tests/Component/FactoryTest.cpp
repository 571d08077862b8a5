// The factory registry: classes by interface and name.

#include <csignal>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Component/ClassID.h"
#include "Component/ComponentHelper.h"
#include "Component/Factory.h"
#include "Component/Part.h"
#include "Infra/Infra3/Error.h"
#include "Support/ChildProcess.h"
#include "Support/FailingHeap.h"

namespace
{

using namespace Tarsel::Component;
using namespace Tarsel::TestSupport;
using Detail::CComponentHelper;
using Tarsel::Infra::getErrMsg;
using Tarsel::Infra::getLastError;
using Tarsel::Infra::setLastError;
using testing::ElementsAre;

class CFactory : public IFactoryUnknown
{
public:
    explicit CFactory(const char* name) : m_name(name) {}
    const char* clsid() override { return m_name; }

private:
    const char* const m_name;
};

IFactoryUnknown* lookUp(const char* iid, const char* clsid)
{
    IClient* client = reinterpret_cast<IClient*>(1); // is overwritten, found or not
    setLastError(0);
    IFactoryUnknown* const byUser = CComponentHelper::getComponentFactory(iid, clsid, -1, client);
    EXPECT_EQ(client, nullptr);
    const int error = getLastError();
    setLastError(0);
    EXPECT_EQ(CComponentHelper::getComponentFactory(iid, clsid, ServerInfo::none, client), byUser);
    EXPECT_EQ(getLastError(), error);
    return byUser;
}

TEST(FactoryTest, FactoriesAreFoundReplacedAndTakenOut)
{
    CFactory first("One");
    CFactory second("One");
    CFactory other("Another.With.Dots");
    EXPECT_EQ(lookUp("Interface", "One"), nullptr);
    EXPECT_EQ(getLastError(), 0x10030000);

    EXPECT_TRUE(first.registerFactory("Interface"));
    EXPECT_TRUE(other.registerFactory("Interface"));
    EXPECT_EQ(lookUp("Interface", std::string("One").c_str()), &first);
    EXPECT_EQ(getLastError(), 0);
    EXPECT_EQ(lookUp("Interface", "Another.With.Dots"), &other);
    EXPECT_EQ(lookUp("Interface", "Another"), nullptr);
    EXPECT_EQ(getLastError(), 0x10030001);

    EXPECT_TRUE(second.registerFactory("Interface"));
    EXPECT_EQ(lookUp("Interface", "One"), &second);
    EXPECT_TRUE(first.unregisterFactory("Interface")); // whoever has the place
    EXPECT_EQ(lookUp("Interface", "One"), nullptr);
    EXPECT_EQ(getLastError(), 0);
    EXPECT_THAT(ClassID::getClassIDs("Interface"), ElementsAre("Another.With.Dots", "One"));
    other.unregisterFactory("Interface");
}

TEST(FactoryTest, NullIsTheEmptyName)
{
    CFactory nameless(nullptr);
    EXPECT_EQ(lookUp(nullptr, nullptr), nullptr);
    EXPECT_TRUE(nameless.registerFactory(nullptr));
    EXPECT_EQ(lookUp("", ""), &nameless);
    EXPECT_EQ(lookUp(nullptr, nullptr), &nameless);
    EXPECT_THAT(ClassID::getClassIDs(nullptr), ElementsAre(""));
    nameless.unregisterFactory(nullptr);
}

TEST(FactoryTest, ClassNamesAreListedInByteOrder)
{
    std::vector<std::string> names;
    for (int i = 0; i < 100; ++i) {
        names.push_back(std::to_string(1000 + i));
    }
    names.insert(names.end(), {"\xC3\xA4", "Z", "_"});
    for (const std::string& name : names) {
        CFactory factory(name.c_str());
        factory.registerFactory("Listed");
        factory.unregisterFactory("Listed");
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(ClassID::getClassIDs("Listed"), names);

    const ClassIDList list("Listed");
    ASSERT_EQ(list.count(), 103);
    EXPECT_STREQ(list[0].c_str(), "1000");
    EXPECT_STREQ(list[102].c_str(), "\xC3\xA4");
    EXPECT_EQ(ClassIDList("unknown").count(), 0);
    for (const int index : {-1, 103}) {
        const ChildResult child = runInChild([&list, index] { (void)list[index]; });
        EXPECT_EQ(child.signal, SIGABRT);
        EXPECT_NE(child.errorOutput.find("((size_t)index < m_internal->ids.size())"),
                  std::string::npos);
    }
}

TEST(FactoryTest, LookUpsTakeNoMemoryAndSeeWhatIsRegisteredMeanwhile)
{
    CFactory known("AClassWithANameOfMoreThan16Characters");
    known.registerFactory("Busy interface");
    {
        const CMemoryShortage shortage(1, Shortage::lasting);
        EXPECT_EQ(lookUp("Busy interface", "AClassWithANameOfMoreThan16Characters"), &known);
        EXPECT_FALSE(CMemoryShortage::wasFelt());
    }
    onThreads(4, [&known](int thread) {
        for (int i = 0; i < 500; ++i) {
            const std::string name = std::to_string(thread) + "." + std::to_string(i);
            CFactory factory(name.c_str());
            factory.registerFactory("Busy interface");
            EXPECT_EQ(lookUp("Busy interface", name.c_str()), &factory);
            factory.unregisterFactory("Busy interface");
            EXPECT_EQ(lookUp("Busy interface", "AClassWithANameOfMoreThan16Characters"), &known);
        }
    });
    EXPECT_EQ(ClassID::getClassIDs("Busy interface").size(), 2001u);
    known.unregisterFactory("Busy interface");
}

/// Enters itself before main() and leaves after exit(), as factories of applications do.
struct StaticFactory : CFactory
{
    StaticFactory() : CFactory("Static") { registerFactory("Early"); }
    ~StaticFactory() override { unregisterFactory("Early"); }
} s_early;

TEST(FactoryTest, FactoriesMayRegisterBeforeMain)
{
    EXPECT_EQ(lookUp("Early", "Static"), &s_early);
}

TEST(FactoryTest, RegisteringInstallsTheErrorTexts)
{
    const char* const texts[] = {
        "Component error: interface not found!",
        "Component error: class not found!",
        "Component error: client not found!",
        "Component error: client not exist!",
        "Component error: not login yet!",
        "Component error: tring login!",
        "Component error: user's name not valid!",
        "Component error: password not valid!",
        "Component error: peer has been blocked!",
        "Component error: peer in blacklist!",
        "Component error: user's name has been used!",
        "Component error: too many connections!",
        "Component error: no authority!",
        "Component error: creating object failed!",
        "Component error: getting instance failed!",
        "Component error: login challenge!",
    };
    for (int i = 0; i < 16; ++i) {
        EXPECT_STREQ(getErrMsg(0x10030000 + i), texts[i]);
    }
    EXPECT_STREQ(getErrMsg(0x10030015), "Component error: User or password not valid!");
    for (const int other : {0x10030010, 0x10030014, 0x10030016, 0x1003001E}) {
        EXPECT_STREQ(getErrMsg(other), "");
    }
}

TEST(ClassIDTest, IsComparedByContent)
{
    const std::string text = "Local";
    EXPECT_TRUE(ClassID(text.c_str()) == ClassID::local);
    EXPECT_TRUE(ClassID("local") != ClassID::local);
    EXPECT_TRUE(ClassID(nullptr) == ClassID(""));
}

} // namespace
