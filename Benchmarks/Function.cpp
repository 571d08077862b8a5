// Delegates and signals beside those of the standard library, Boost and libsigc++.
//
// delegate_call/free          a free function called through a delegate
//   pointer(floor)            through a plain function pointer
// delegate_call/member        a member function of an object; the peers hold a lambda that calls it
// delegate_copy/free          copied and destroyed; /member likewise
// delegate_equal/free         compared with an equal one; the peers compare the held pointer
// signal_emit/N               emitted to N attached member functions
// signal_attach_detach/8      one more attached and detached, beside eight attached

#include <sigc++/sigc++.h>

#include <boost/function.hpp>
#include <boost/signals2/signal.hpp>
#include <boost/version.hpp>
#include <functional>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Infra/Infra3/Function.h"
#include "Infra/Infra3/Signal.h"

namespace
{

using Tarsel::Infra::TFunction1;
using Tarsel::Infra::TSignal1;

typedef TFunction1<int, int> InfraDelegate;
typedef std::function<int(int)> StandardFunction;
typedef boost::function<int(int)> BoostFunction;

__attribute__((noinline, noipa)) int next(int value)
{
    return value + 1;
}

class CCounter
{
public:
    __attribute__((noinline, noipa)) int add(int value) { return m_sum += value; }
    __attribute__((noinline, noipa)) void hit(int value) { m_sum += value; }

private:
    int m_sum = 0;
};

CCounter s_counter;

/// A delegate of each kind to next() or s_counter.add().
template <typename F>
F toFree()
{
    return F(&next);
}
template <typename F>
F toMember()
{
    CCounter* const counter = &s_counter;
    return F([counter](int value) { return counter->add(value); });
}
template <>
InfraDelegate toMember<InfraDelegate>()
{
    return InfraDelegate(&CCounter::add, &s_counter);
}

template <typename F>
void call(benchmark::State& state, F (*make)())
{
    F function = make();
    int value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(function);
        benchmark::DoNotOptimize(value = function(value));
    }
}

void callPointer(benchmark::State& state)
{
    int (*function)(int) = &next;
    int value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(function);
        benchmark::DoNotOptimize(value = function(value));
    }
}

template <typename F>
void copy(benchmark::State& state, F (*make)())
{
    F function = make();
    for (auto _ : state) {
        benchmark::DoNotOptimize(function);
        F made(function);
        benchmark::DoNotOptimize(made);
    }
}

bool areEqual(const InfraDelegate& left, const InfraDelegate& right)
{
    return left == right;
}
bool areEqual(const StandardFunction& left, const StandardFunction& right)
{
    typedef int (*Pointer)(int);
    const Pointer* const one = left.target<Pointer>();
    const Pointer* const other = right.target<Pointer>();
    return one != nullptr && other != nullptr && *one == *other;
}
bool areEqual(const BoostFunction& left, const BoostFunction& right)
{
    typedef int (*Pointer)(int);
    return left == *right.target<Pointer>();
}

template <typename F>
void equal(benchmark::State& state)
{
    F left = toFree<F>();
    F right = toFree<F>();
    for (auto _ : state) {
        benchmark::DoNotOptimize(left);
        benchmark::DoNotOptimize(right);
        benchmark::DoNotOptimize(areEqual(left, right));
    }
}

// The three signals under one spelling; they bind the same member function.

class CInfraSignal
{
public:
    void attach(CCounter& counter) { m_signal.attach(toHit(counter)); }
    void attachAndDetach(CCounter& counter)
    {
        m_signal.attach(toHit(counter));
        m_signal.detach(toHit(counter));
    }
    void emit(int value) { m_signal(value); }

private:
    static TSignal1<int>::Proc toHit(CCounter& counter)
    {
        return TSignal1<int>::Proc(&CCounter::hit, &counter);
    }
    TSignal1<int> m_signal{64};
};

class CBoostSignal
{
public:
    void attach(CCounter& counter) { connect(counter); }
    void attachAndDetach(CCounter& counter) { connect(counter).disconnect(); }
    void emit(int value) { m_signal(value); }

private:
    boost::signals2::connection connect(CCounter& counter)
    {
        return m_signal.connect([&counter](int value) { counter.hit(value); });
    }
    boost::signals2::signal<void(int)> m_signal;
};

/// Not for several threads.
class CSigcSignal
{
public:
    void attach(CCounter& counter) { connect(counter); }
    void attachAndDetach(CCounter& counter) { connect(counter).disconnect(); }
    void emit(int value) { m_signal.emit(value); }

private:
    sigc::connection connect(CCounter& counter)
    {
        return m_signal.connect(sigc::mem_fun(counter, &CCounter::hit));
    }
    sigc::signal<void, int> m_signal;
};

template <typename Signal>
void emit(benchmark::State& state, size_t slotCount)
{
    std::vector<CCounter> counters(slotCount);
    Signal signal;
    for (CCounter& counter : counters) {
        signal.attach(counter);
    }
    int value = 0;
    for (auto _ : state) {
        signal.emit(++value);
        benchmark::ClobberMemory();
    }
}

template <typename Signal>
void attachAndDetach(benchmark::State& state, size_t slotCount)
{
    std::vector<CCounter> counters(slotCount + 1);
    Signal signal;
    for (size_t i = 0; i < slotCount; ++i) {
        signal.attach(counters[i]);
    }
    for (auto _ : state) {
        signal.attachAndDetach(counters[slotCount]);
        benchmark::ClobberMemory();
    }
}

template <typename F>
void addDelegate(const char* contender)
{
    Bench::add("delegate_call/free", contender, call<F>, &toFree<F>);
    Bench::add("delegate_call/member", contender, call<F>, &toMember<F>);
    Bench::add("delegate_copy/free", contender, copy<F>, &toFree<F>);
    Bench::add("delegate_copy/member", contender, copy<F>, &toMember<F>);
    Bench::add("delegate_equal/free", contender, equal<F>);
}

template <typename Signal>
void addSignal(const char* contender)
{
    for (const size_t slotCount : {0, 1, 8, 64}) {
        Bench::add(Bench::label("signal_emit", slotCount), contender, emit<Signal>, slotCount);
    }
    Bench::add("signal_attach_detach/8", contender, attachAndDetach<Signal>, size_t{8});
}

} // namespace

int main(int argc, char** argv)
{
    addDelegate<InfraDelegate>(Bench::infra);
    addDelegate<StandardFunction>("std::function");
    addDelegate<BoostFunction>("boost::function");
    Bench::add("delegate_call/free", "pointer(floor)", callPointer);
    addSignal<CInfraSignal>(Bench::infra);
    addSignal<CBoostSignal>("boost::signals2");
    addSignal<CSigcSignal>("sigc++ (one thread)");
    return Bench::run(argc, argv, "Boost " BOOST_LIB_VERSION ", libsigc++ 2");
}
