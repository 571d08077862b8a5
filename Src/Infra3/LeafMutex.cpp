// LeafMutex.cpp: the fork part of all leaf locks.
//
// They stand in one list. A fork holds the list's own lock from before it takes them until it has
// let them go, so none is made or ends meanwhile.

#include "Infra3/LeafMutex.h"

#include <pthread.h>

#include "Infra3/Fork.h"

namespace Tarsel
{
namespace Infra
{

/// All leaf locks that live, the youngest first.
struct LeafList
{
    static void lock() { pthread_mutex_lock(&s_mutex); }
    static void unlock() { pthread_mutex_unlock(&s_mutex); }

    static void add(CLeafMutex& leaf)
    {
        leaf.m_previous = nullptr;
        leaf.m_next = s_first;
        if (s_first != nullptr) {
            s_first->m_previous = &leaf;
        }
        s_first = &leaf;
    }

    static void remove(CLeafMutex& leaf)
    {
        (leaf.m_previous == nullptr ? s_first : leaf.m_previous->m_next) = leaf.m_next;
        if (leaf.m_next != nullptr) {
            leaf.m_next->m_previous = leaf.m_previous;
        }
    }

    template <typename Action>
    static void forEach(Action action)
    {
        for (CLeafMutex* leaf = s_first; leaf != nullptr; leaf = leaf->m_next) {
            action(*leaf);
        }
    }

private:
    static constinit pthread_mutex_t s_mutex; // guards the list
    static constinit CLeafMutex* s_first;
};

constinit pthread_mutex_t LeafList::s_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit CLeafMutex* LeafList::s_first = nullptr;

namespace
{

void takeAll()
{
    LeafList::lock();
    LeafList::forEach([](CLeafMutex& leaf) { leaf.enter(); });
}

void leaveAll()
{
    LeafList::forEach([](CLeafMutex& leaf) { leaf.leave(); });
    LeafList::unlock();
}

void renewAll()
{
    LeafList::forEach([](CLeafMutex& leaf) { ForkAccess::renewTaken(leaf); });
    LeafList::unlock();
}

constexpr ForkPart leafPart = {takeAll, leaveAll, renewAll};

} // namespace

/// The fork part joins first: one that joined while a fork is under way takes no part in it.
CLeafMutex::CLeafMutex()
{
    joinFork(ForkRank::values, leafPart);
    LeafList::lock();
    LeafList::add(*this);
    LeafList::unlock();
}

CLeafMutex::~CLeafMutex()
{
    LeafList::lock();
    LeafList::remove(*this);
    LeafList::unlock();
}

} // namespace Infra
} // namespace Tarsel
