// The older interface beside what it forwards to.
//
// older_packet/1000      a packet of 1000 bytes with a header of 16 made and dropped, from a pool
// older_timer/start      a timer put into the schedule again, a minute off
// older_timer/member     the same with a member of an object, by the cast of older programs
// older_timer/members    with 10000 objects in turn
// older_time/format      a time written as text
//   newer(floor)         the same through the newer interface

#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Infra/Packet.h"
#include "Infra/Time.h"
#include "Infra/Timer.h"
#include "Memory/Packet.h"

namespace
{

constexpr const char* newer = "newer(floor)";
constexpr unsigned long packetSize = 1000;
constexpr int headerSize = 16;
constexpr unsigned int minute = 60000;

void ignore(unsigned long) {}

void makeOlderPacket(benchmark::State& state)
{
    for (auto _ : state) {
        CPacket packet(packetSize);
        benchmark::DoNotOptimize(packet.GetBuffer());
    }
}

void makeNewerPacket(benchmark::State& state)
{
    for (auto _ : state) {
        Tarsel::Memory::CPacket packet(packetSize, headerSize);
        benchmark::DoNotOptimize(packet.getBuffer());
    }
}

void startOlderTimer(benchmark::State& state)
{
    CTimer timer("older");
    for (auto _ : state) {
        timer.Start(TFunction1<void, unsigned long>(ignore), minute, 0);
    }
}

void startNewerTimer(benchmark::State& state)
{
    Tarsel::Infra::CTimer timer("newer");
    for (auto _ : state) {
        timer.start(ignore, minute, 0);
    }
}

class COlderObject : public CObject
{
public:
    void ignore(unsigned int) {}
};

struct NewerObject
{
    void ignore(unsigned long) {}
};

void startOlderMembers(benchmark::State& state, size_t count)
{
    typedef void (CObject::*Member)(unsigned int);
    CTimer timer("older");
    std::vector<COlderObject> objects(count);
    size_t at = 0;
    for (auto _ : state) {
        timer.Start(&objects[at], static_cast<Member>(&COlderObject::ignore), minute, 0);
        at = at + 1 == count ? 0 : at + 1;
    }
}

void startNewerMembers(benchmark::State& state, size_t count)
{
    Tarsel::Infra::CTimer timer("newer");
    std::vector<NewerObject> objects(count);
    size_t at = 0;
    for (auto _ : state) {
        timer.start(Tarsel::Infra::CTimer::Proc(&NewerObject::ignore, &objects[at]), minute, 0);
        at = at + 1 == count ? 0 : at + 1;
    }
}

template <typename Time, typename... Mask>
void format(benchmark::State& state, Mask... mask)
{
    const Time time(2019, 11, 8, 9, 5, 3);
    char text[64];
    for (auto _ : state) {
        time.format(text, "yyyy-MM-dd HH:mm:ss", mask...);
        benchmark::DoNotOptimize(text);
    }
}

} // namespace

int main(int argc, char** argv)
{
    IPacketManager::config(/*pool*/ 1 << 20, /*chunk*/ 1024, headerSize);
    Bench::add("older_packet/1000", Bench::infra, makeOlderPacket);
    Bench::add("older_packet/1000", newer, makeNewerPacket);
    Bench::add("older_timer/start", Bench::infra, startOlderTimer);
    Bench::add("older_timer/start", newer, startNewerTimer);
    Bench::add("older_timer/member", Bench::infra, startOlderMembers, size_t{1});
    Bench::add("older_timer/member", newer, startNewerMembers, size_t{1});
    Bench::add("older_timer/members", Bench::infra, startOlderMembers, size_t{10000});
    Bench::add("older_timer/members", newer, startNewerMembers, size_t{10000});
    Bench::add("older_time/format", Bench::infra, format<CTime>);
    Bench::add("older_time/format", newer, format<Tarsel::Infra::CTime, int>, 0);
    return Bench::run(argc, argv, "none");
}
