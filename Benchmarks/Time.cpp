// Calendar arithmetic and the texts of times beside the system library's.
//
// calendar_from_seconds   seconds since 1970 to a date; beside gmtime_r
// seconds_from_calendar   a date to seconds; beside timegm
// time_format             "2019-11-08 10:04:05" written; beside strftime
// time_parse              the same text read; beside strptime
// clock_milliseconds      the monotonic clock; its floor is the system's clock_gettime
//
// The times lie all over the years 1970 to 2099, in an order that no branch predictor knows.

#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Utc.h"

#include <time.h>

#include <array>
#include <cstring>
#include <random>

#include "Benchmarks/Support/Cases.h"

namespace
{

using namespace Tarsel::Infra;

constexpr size_t sampleCount = 1024;
constexpr int64_t endOf2099 = 4102444799;

const std::array<int64_t, sampleCount>& sampleSeconds()
{
    static const auto made = [] {
        std::array<int64_t, sampleCount> seconds{};
        std::mt19937_64 random(1);
        std::uniform_int_distribution<int64_t> range(0, endOf2099);
        for (int64_t& second : seconds) {
            second = range(random);
        }
        return seconds;
    }();
    return made;
}

/// sampleSeconds() as another type, made by `convert`.
template <typename T, typename Convert>
std::array<T, sampleCount> samples(Convert convert)
{
    std::array<T, sampleCount> made{};
    for (size_t i = 0; i < sampleCount; ++i) {
        made[i] = convert(sampleSeconds()[i]);
    }
    return made;
}

SystemTime toSystemTime(int64_t seconds)
{
    SystemTime time = {};
    seconds_to_time(static_cast<uint64_t>(seconds), time);
    return time;
}

tm toTm(int64_t seconds)
{
    tm time = {};
    gmtime_r(&seconds, &time);
    return time;
}

std::array<char, 20> toText(int64_t seconds)
{
    std::array<char, 20> text{};
    const tm time = toTm(seconds);
    strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &time);
    return text;
}

/// Calls `one` with the samples in turn.
template <typename Samples, typename One>
void forEachSample(benchmark::State& state, Samples& samples, One one)
{
    size_t i = 0;
    for (auto _ : state) {
        one(samples[i % sampleCount]);
        ++i;
    }
}

void calendarOfInfra(benchmark::State& state)
{
    forEachSample(state, sampleSeconds(), [](int64_t seconds) {
        SystemTime time;
        seconds_to_time(static_cast<uint64_t>(seconds), time);
        benchmark::DoNotOptimize(time);
    });
}

void calendarOfSystem(benchmark::State& state)
{
    forEachSample(state, sampleSeconds(), [](int64_t seconds) {
        tm time;
        gmtime_r(&seconds, &time);
        benchmark::DoNotOptimize(time);
    });
}

void secondsOfInfra(benchmark::State& state)
{
    auto times = samples<SystemTime>(toSystemTime);
    forEachSample(state, times,
                  [](const SystemTime& time) { benchmark::DoNotOptimize(time_to_seconds(time)); });
}

void secondsOfSystem(benchmark::State& state)
{
    auto times = samples<tm>(toTm);
    forEachSample(state, times, [](tm& time) { benchmark::DoNotOptimize(timegm(&time)); });
}

void formatOfInfra(benchmark::State& state)
{
    auto times = samples<CTime>([](int64_t seconds) {
        return CTime(static_cast<uint64_t>(seconds), /*addTimezone*/ false);
    });
    forEachSample(state, times, [](const CTime& time) {
        char text[32];
        time.format(text, "yyyy-MM-dd HH:mm:ss", CTime::fmGeneral);
        benchmark::DoNotOptimize(text);
    });
}

void formatOfSystem(benchmark::State& state)
{
    auto times = samples<tm>(toTm);
    forEachSample(state, times, [](const tm& time) {
        char text[32];
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &time);
        benchmark::DoNotOptimize(text);
    });
}

void parseOfInfra(benchmark::State& state)
{
    auto texts = samples<std::array<char, 20>>(toText);
    forEachSample(state, texts, [](const std::array<char, 20>& text) {
        CTime time;
        time.parse(text.data(), "yyyy-MM-dd HH:mm:ss", CTime::fmGeneral);
        benchmark::DoNotOptimize(time);
    });
}

void parseOfSystem(benchmark::State& state)
{
    auto texts = samples<std::array<char, 20>>(toText);
    forEachSample(state, texts, [](const std::array<char, 20>& text) {
        tm time;
        strptime(text.data(), "%Y-%m-%d %H:%M:%S", &time);
        benchmark::DoNotOptimize(time);
    });
}

void clockOfInfra(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(CTime::getCurrentMilliSecond());
    }
}

void clockOfSystem(benchmark::State& state)
{
    for (auto _ : state) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        benchmark::DoNotOptimize(now);
    }
}

void addCases()
{
    Bench::add("calendar_from_seconds", Bench::infra, calendarOfInfra);
    Bench::add("calendar_from_seconds", "gmtime_r", calendarOfSystem);
    Bench::add("seconds_from_calendar", Bench::infra, secondsOfInfra);
    Bench::add("seconds_from_calendar", "timegm", secondsOfSystem);
    Bench::add("time_format", Bench::infra, formatOfInfra);
    Bench::add("time_format", "strftime", formatOfSystem);
    Bench::add("time_parse", Bench::infra, parseOfInfra);
    Bench::add("time_parse", "strptime", parseOfSystem);
    Bench::add("clock_milliseconds", Bench::infra, clockOfInfra);
    Bench::add("clock_milliseconds", "clock_gettime(floor)", clockOfSystem);
}

} // namespace

int main(int argc, char** argv)
{
    addCases();
    return Bench::run(argc, argv, "calendar functions of the system library");
}
