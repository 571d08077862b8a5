// Counting references: who holds an object, what every hand-out adds, when it goes.

#include <csignal>

#include <gtest/gtest.h>

#include "Component/ComponentHelper.h"
#include "Component/ComPtr.h"
#include "Component/ObjectTable.h"
#include "Component/Part.h"
#include "Infra/Infra3/Error.h"
#include "Support/ChildProcess.h"

namespace
{

using namespace Tarsel::Component;
using Detail::CComponentHelper;
using Detail::CObjectTable;
using Tarsel::Infra::getLastError;
using Tarsel::Infra::setLastError;
using Tarsel::TestSupport::ChildResult;
using Tarsel::TestSupport::Counts;
using Tarsel::TestSupport::countsOf;
using Tarsel::TestSupport::CPart;
using Tarsel::TestSupport::onThreads;
using Tarsel::TestSupport::runInChild;

/// Any object of the table, or one in particular.
struct Key : Detail::key_base
{
    explicit Key(IUnknown* object = nullptr) : wanted(object) {}
    bool same_as(IUnknown* object) const override { return wanted == nullptr || wanted == object; }
    IUnknown* wanted;
};

TEST(UnknownTest, EveryHandOutAddsOneButTheFirst)
{
    IUnknown* const part = new CPart;
    EXPECT_EQ(countsOf(part), (Counts{1, 0}));

    EXPECT_EQ(CComponentHelper::makeComponentInstance(part), part);
    EXPECT_EQ(countsOf(part), (Counts{1, 1}));
    EXPECT_EQ(CComponentHelper::makeComponentInstance(part), part);
    EXPECT_EQ(countsOf(part), (Counts{2, 1}));
    EXPECT_EQ(CComponentHelper::makeComponentObject(part), part);
    EXPECT_EQ(countsOf(part), (Counts{2, 1}));

    EXPECT_EQ(CComponentHelper::addRef(part), 3);
    EXPECT_EQ(decreaseRefCount(part), 2);
    EXPECT_EQ(CComponentHelper::release(part), 1);
    EXPECT_EQ(getRefCount(part), 1);
    EXPECT_EQ(CPart::s_alive, 1);
    EXPECT_EQ(CComponentHelper::release(part), 0);
    EXPECT_EQ(CPart::s_alive, 0);

    IUnknown* const added = new CPart;
    EXPECT_EQ(added->addRef(), 2);
    EXPECT_EQ(countsOf(added), (Counts{2, 1}));
    EXPECT_EQ(added->release(), 1);
    EXPECT_EQ(added->release(), 0);
}

TEST(UnknownTest, NullIsAnsweredByNullAndALastError)
{
    EXPECT_EQ(CComponentHelper::addRef(nullptr), 0);
    EXPECT_EQ(CComponentHelper::release(nullptr), 0);
    EXPECT_EQ(getRefCount(nullptr), 0);
    setLastError(0);
    EXPECT_EQ(CComponentHelper::makeComponentObject(nullptr), nullptr);
    EXPECT_EQ(getLastError(), 0x1003000D);
    EXPECT_EQ(CComponentHelper::makeComponentInstance(nullptr), nullptr);
    EXPECT_EQ(getLastError(), 0x1003000E);
}

TEST(UnknownTest, NullThatNobodyShouldPassEndsTheProcess)
{
    const std::function<void()> bodies[] = {
        [] { decreaseRefCount(nullptr); },
        [] { setObjectTable(nullptr, nullptr); },
        [] { makeInstanceForTable(nullptr); },
        [] { CObjectTable().insert(nullptr); },
    };
    for (const auto& body : bodies) {
        const ChildResult child = runInChild(body);
        EXPECT_EQ(child.signal, SIGABRT);
        EXPECT_NE(child.errorOutput.find("assertion (object) failed"), std::string::npos);
    }
    const ChildResult outside = runInChild([] { CObjectTable().get(0); });
    EXPECT_NE(outside.errorOutput.find("(index < m_internal->objects.size())"), std::string::npos);
    const ChildResult empty = runInChild([] { (void)TComPtr<IUnknown>()->addRef(); });
    EXPECT_NE(empty.errorOutput.find("(m_ptr != NULL) failed in operator->"), std::string::npos)
        << empty.report();
    EXPECT_NE(empty.errorOutput.find("Include/Component/ComPtr.h("), std::string::npos);
}

// Object tables.

TEST(ObjectTableTest, AnObjectStaysUntilItsLastReferenceGoes)
{
    CObjectTable table;
    IUnknown* const first = new CPart;
    IUnknown* const second = new CPart;
    table.lock();
    EXPECT_EQ(table.find(Key()), nullptr);
    table.insert(first);
    table.insert(second);
    EXPECT_EQ(countsOf(first), (Counts{1, 1}));
    EXPECT_EQ(table.find(Key()), first);
    EXPECT_EQ(table.find(Key(second)), second);
    EXPECT_EQ(countsOf(second), (Counts{2, 1}));
    EXPECT_EQ(table.count(), 2u);
    EXPECT_EQ(table.get(1), second);
    table.unlock();

    // The table has counted already.
    EXPECT_EQ(CComponentHelper::makeComponentInstance(second), second);
    EXPECT_EQ(CComponentHelper::makeComponentObject(second), second);
    EXPECT_EQ(getRefCount(second), 2);

    EXPECT_EQ(first->release(), 1);
    EXPECT_EQ(first->release(), 0);
    EXPECT_EQ(table.count(), 1u);
    EXPECT_EQ(table.get(0), second);
    EXPECT_EQ(second->release(), 1);
    EXPECT_EQ(second->release(), 0);
    EXPECT_EQ(table.count(), 0u);
    EXPECT_EQ(CPart::s_alive, 0);
}

TEST(ObjectTableTest, AnObjectThatWasTakenOutBelongsToNoTable)
{
    CObjectTable table;
    CObjectTable other;
    IUnknown* const part = new CPart;
    table.insert(part);
    other.erase(part);
    EXPECT_EQ(part->m_internal->table, &table);
    table.erase(part);
    EXPECT_EQ(part->m_internal->table, nullptr);
    EXPECT_EQ(part->release(), 0);
}

TEST(ObjectTableTest, ADestructorMayReleaseANeighbour)
{
    struct Pair : CPart
    {
        ~Pair() override { CComponentHelper::release(neighbour); }
        IUnknown* neighbour = nullptr;
    };
    CObjectTable table;
    Pair* const holder = new Pair;
    holder->neighbour = new CPart;
    table.lock();
    table.insert(holder);
    table.insert(holder->neighbour);
    table.unlock();

    EXPECT_EQ(holder->release(), 0);
    EXPECT_EQ(table.count(), 0u);
    EXPECT_EQ(CPart::s_alive, 0);
}

TEST(ObjectTableTest, AnObjectThatIsFoundIsAliveWhoeverReleasesItMeanwhile)
{
    CObjectTable table;
    onThreads(8, [&table](int) {
        for (int round = 0; round < 3000; ++round) {
            table.lock();
            IUnknown* part = table.find(Key());
            if (part == nullptr) {
                part = new CPart;
                table.insert(part);
            }
            table.unlock();
            EXPECT_EQ(part->m_internal->table, &table);
            part->release();
        }
    });
    EXPECT_EQ(table.count(), 0u);
    EXPECT_EQ(CPart::s_alive, 0);
    EXPECT_GT(CPart::s_made, 1);
}

// TComPtr.

TEST(ComPtrTest, EveryPointerOwnsOneReference)
{
    CPart* const part = new CPart;
    {
        TComPtr<CPart> first(part, nullptr, 0);
        EXPECT_EQ(getRefCount(part), 1);
        TComPtr<CPart> copy = first;
        EXPECT_EQ(getRefCount(part), 2);
        TComPtr<IUnknown> base = copy;
        EXPECT_EQ(getRefCount(part), 3);
        EXPECT_EQ(base, copy);
        copy = copy.get() == part ? copy : first;
        EXPECT_EQ(getRefCount(part), 3);
        base.reset();
        EXPECT_EQ(getRefCount(part), 2);
        TComPtr<CPart> moved = std::move(copy);
        EXPECT_EQ(getRefCount(part), 2);
        EXPECT_EQ(copy.get(), nullptr); // NOLINT(bugprone-use-after-move): what is left is said
        copy.swap(moved);
        EXPECT_EQ(copy.get(), part);
        EXPECT_EQ(&*copy, part);
        EXPECT_EQ(copy->m_internal, part->m_internal);
        EXPECT_EQ(copy.client(), nullptr);
        moved = first;
        first = TComPtr<CPart>();
        EXPECT_EQ(getRefCount(part), 2);
    }
    EXPECT_EQ(CPart::s_alive, 0);
}

TEST(ComPtrTest, IsTestedAndComparedWithNull)
{
    const TComPtr<CPart> full(new CPart, nullptr, 0);
    const TComPtr<CPart> empty = nullptr;
    const bool isFull = full;
    EXPECT_TRUE(isFull);
    EXPECT_TRUE(full && !empty);
    EXPECT_TRUE(full != nullptr && nullptr != full && full != NULL);    // NOLINT
    EXPECT_TRUE(empty == nullptr && nullptr == empty && empty == NULL); // NOLINT
    EXPECT_TRUE(full != empty && !(full == empty));
    EXPECT_EQ(empty ? 1 : 2, 2);
}

} // namespace
