// Signals.

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/Signal.h"
#include "Support/Eventually.h"
#include "Support/LogCapture.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

typedef TSignal1<int> Signal;

struct Listener
{
    void hear(int value)
    {
        ++calls;
        sum += value;
    }
    void leave(int)
    {
        ++calls;
        signal->detach(Signal::Proc(&Listener::leave, this));
    }
    void leaveAndWait(int)
    {
        ++calls;
        signal->detach(Signal::Proc(&Listener::leaveAndWait, this), /*wait*/ true);
    }
    void leaveTogether(int)
    {
        ++inside;
        TestSupport::eventually([this] { return inside == 2; });
        const int left = signal->detach(Signal::Proc(&Listener::leaveTogether, this), true);
        sum += left == 0 ? 1 : 0;
        calls += left == Signal::errorNoFound ? 1 : 0;
    }
    void removeOther(int)
    {
        ++calls;
        signal->detach(Signal::Proc(&Listener::hear, other));
    }
    void addOther(int)
    {
        ++calls;
        signal->attach(Signal::Proc(&Listener::hear, other));
    }
    void nest(int depth)
    {
        ++calls;
        if (depth > 0) {
            (*signal)(depth - 1);
        }
    }
    void block(int)
    {
        ++inside;
        gate.pend();
    }

    Signal* signal = nullptr;
    Listener* other = nullptr;
    std::atomic<int> calls{0};
    std::atomic<int> sum{0};
    std::atomic<int> inside{0}; ///< calls begun
    CSemaphore gate{0};
};

Signal::Proc hearing(Listener& listener)
{
    return Signal::Proc(&Listener::hear, &listener);
}

TEST(SignalTest, AttachAndDetachReportTheSlotsInUse)
{
    Listener listeners[9];
    Signal signal(8);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(signal.attach(hearing(listeners[i])), i + 1);
    }
    EXPECT_EQ(signal.attach(hearing(listeners[8])), Signal::errorFull);
    EXPECT_EQ(signal.attach(hearing(listeners[3])), Signal::errorExist);
    EXPECT_EQ(signal.attach(Signal::Proc()), Signal::errorEmptyProc);
    EXPECT_EQ(signal.attach(Signal::Proc(&Listener::hear, &listeners[0], typeAllReuse)),
              Signal::errorAllReuseProc);
    EXPECT_EQ(signal.detach(hearing(listeners[3])), 7);
    EXPECT_EQ(signal.detach(hearing(listeners[3])), Signal::errorNoFound);
    EXPECT_LT(signal.detach(Signal::Proc()), 0);
    EXPECT_TRUE(signal.isAttached(hearing(listeners[2])));
    EXPECT_FALSE(signal.isAttached(hearing(listeners[3])));
    signal(5);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(listeners[i].sum, i == 3 || i == 8 ? 0 : 5);
    }
    Signal none(0);
    EXPECT_EQ(none.attach(hearing(listeners[0])), Signal::errorFull);
    none(1);
    Signal negative(-3);
    EXPECT_EQ(negative.attach(hearing(listeners[0])), Signal::errorFull);
}

TEST(SignalTest, OneDelegateDetachesAllReuseVariants)
{
    Listener listener;
    Listener other;
    Signal signal(8);
    signal.attach(Signal::Proc(&Listener::hear, &listener, 16));
    signal.attach(hearing(other));
    signal.attach(Signal::Proc(&Listener::hear, &listener, 17));
    signal.attach(hearing(listener));
    EXPECT_EQ(signal.detach(Signal::Proc(&Listener::hear, &listener, typeAllReuse)), 2);
    signal(1);
    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(other.calls, 1);
}

std::string s_order;

template <char Name>
void append(int)
{
    s_order += Name;
}

TEST(SignalTest, PositionsChooseSlotsAndNeverMoveOthers)
{
    Signal signal(5);
    const auto order = [&signal] {
        s_order.clear();
        signal(0);
        return s_order;
    };
    signal.attach(append<'a'>);
    signal.attach(append<'b'>);
    signal.attach(append<'c'>);
    signal.detach(append<'a'>);
    signal.detach(append<'b'>);
    EXPECT_EQ(signal.attach(append<'d'>, Signal::front), 2); // right before c
    EXPECT_EQ(order(), "dc");
    EXPECT_EQ(signal.attach(append<'e'>, Signal::back), 3); // right behind c
    EXPECT_EQ(signal.attach(append<'f'>, Signal::any), 4);  // the first one
    EXPECT_EQ(order(), "fdce");
    EXPECT_EQ(signal.attach(append<'g'>, Signal::back), 5);
    EXPECT_EQ(order(), "fdceg");
    signal.detach(append<'d'>);
    EXPECT_EQ(signal.attach(append<'h'>, Signal::back), 5); // none behind the last: the first free
    EXPECT_EQ(order(), "fhceg");
    signal.detach(append<'c'>);
    EXPECT_EQ(signal.attach(append<'i'>, Signal::front), 5);
    EXPECT_EQ(order(), "fhieg");
}

TEST(SignalTest, CallbacksChangeTheEmissionTheyRunIn)
{
    Signal signal(8);
    Listener leaving;
    Listener remover;
    Listener removed;
    Listener adder;
    Listener added;
    leaving.signal = remover.signal = adder.signal = &signal;
    remover.other = &removed;
    adder.other = &added;
    signal.attach(Signal::Proc(&Listener::leave, &leaving));
    signal.attach(Signal::Proc(&Listener::removeOther, &remover));
    signal.attach(hearing(removed));
    signal.attach(Signal::Proc(&Listener::leaveAndWait, &leaving));
    signal.attach(Signal::Proc(&Listener::addOther, &adder));
    signal(1);
    EXPECT_EQ(leaving.calls, 2);
    EXPECT_EQ(remover.calls, 1);
    EXPECT_EQ(removed.calls, 0);
    EXPECT_EQ(adder.calls, 1);
    // The first free slot was one that the emission had passed already.
    EXPECT_EQ(added.calls, 0);
    signal(1);
    EXPECT_EQ(leaving.calls, 2);
    EXPECT_EQ(added.calls, 1);
}

TEST(SignalTest, ASlotIsNotReusedWhileAnyOfManyNestedCallsRuns)
{
    Signal signal(1);
    Listener nesting;
    nesting.signal = &signal;
    signal.attach(Signal::Proc(&Listener::nest, &nesting));
    signal(300);
    EXPECT_EQ(nesting.calls, 301);

    Listener blocked;
    signal.detach(Signal::Proc(&Listener::nest, &nesting));
    signal.attach(Signal::Proc(&Listener::block, &blocked));
    std::thread emitter([&] { signal(0); });
    ASSERT_TRUE(TestSupport::eventually([&] { return blocked.inside == 1; }));
    EXPECT_EQ(signal.detach(Signal::Proc(&Listener::block, &blocked)), 0);
    EXPECT_EQ(signal.attach(hearing(nesting)), Signal::errorFull);
    blocked.gate.post();
    emitter.join();
    EXPECT_EQ(signal.attach(hearing(nesting)), 1);
}

TEST(SignalTest, DetachWithWaitReturnsAfterTheLastCallElsewhere)
{
    Signal signal(4);
    Listener blocked;
    const Signal::Proc blocking(&Listener::block, &blocked);
    signal.attach(blocking);
    std::thread first([&] { signal(0); });
    std::thread second([&] { signal(0); });
    ASSERT_TRUE(TestSupport::eventually([&] { return blocked.inside == 2; }));
    std::atomic<bool> detached{false};
    std::thread detacher([&] {
        signal.detach(blocking, /*wait*/ true);
        detached = true;
    });
    EXPECT_TRUE(TestSupport::eventually([&] { return !signal.isAttached(blocking); }));
    const auto stillWaiting = [&] { return !detached; };
    EXPECT_TRUE(TestSupport::staysSo(stillWaiting)) << "with two calls inside";
    blocked.gate.post();
    EXPECT_TRUE(TestSupport::staysSo(stillWaiting)) << "with one call inside";
    blocked.gate.post();
    first.join();
    second.join();
    detacher.join();
}

TEST(SignalTest, TwoCallsOfADelegateThatDetachesItselfDoNotWaitForEachOther)
{
    Signal signal(2);
    Listener leaving;
    leaving.signal = &signal;
    signal.attach(Signal::Proc(&Listener::leaveTogether, &leaving));
    std::thread first([&] { signal(0); });
    std::thread second([&] { signal(0); });
    first.join();
    second.join();
    EXPECT_EQ(leaving.inside, 2);
    EXPECT_EQ(leaving.sum, 1) << "one has detached it";
    EXPECT_EQ(leaving.calls, 1) << "the other one found nothing left to detach";
}

TEST(SignalTest, EmissionsThatCallNobodyKeepNoSlotFromBeingTaken)
{
    Signal signal(1);
    Listener listener;
    std::atomic<bool> stop{false};
    std::vector<std::thread> emitters;
    for (int t = 0; t < 2; ++t) {
        emitters.emplace_back([&] {
            while (!stop) {
                signal(1);
            }
        });
    }
    int refused = 0;
    for (int i = 0; i < 100000; ++i) {
        refused += signal.attach(hearing(listener)) == 1 ? 0 : 1;
        signal.detach(hearing(listener), /*wait*/ true); // nobody is inside a call from here on
    }
    stop = true;
    for (std::thread& emitter : emitters) {
        emitter.join();
    }
    EXPECT_EQ(refused, 0);
}

TEST(SignalTest, OnlyOneOfRacingAttachesOfTheSameDelegateWins)
{
    for (int round = 0; round < 200; ++round) {
        Signal signal(8);
        Listener listener;
        std::atomic<int> won{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&] { won += signal.attach(hearing(listener)) > 0 ? 1 : 0; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(won, 1);
        signal(1);
        ASSERT_EQ(listener.calls, 1);
    }
}

TEST(SignalTest, StatLogsASlotALine)
{
    TestSupport::CLogCapture log;
    Signal signal(4);
    Listener listener;
    signal.attach(hearing(listener));
    signal.attach(append<'a'>);
    signal.stat();
    EXPECT_EQ(TestSupport::eventually([&] { return log.contains("slot:1"); }), true);
    EXPECT_TRUE(log.contains("slot:0"));
    EXPECT_FALSE(log.contains("slot:2"));
}

} // namespace
} // namespace Infra
} // namespace Tarsel
