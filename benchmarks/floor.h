// How a benchmark is measured: in the same run as its floor, the least work that any library with
// the same contract has to do.

#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

#include "tests/support/allocations.h"

// Times `library` and `floor` in turns; each does `units` of its work in a turn. Reports the time
// of a unit of `library`, its ratio to a unit of `floor`, and its heap allocations, all less those
// of `caller`: the part of `library` that its caller does. Times are the shortest of many turns, as
// only other programs make a turn longer.
template <typename Library, typename Floor, typename Caller>
void Measure(benchmark::State& state, int64_t units, Library library, Floor floor, Caller caller) {
    using Clock = std::chrono::steady_clock;
    struct Least {
        double seconds = std::numeric_limits<double>::max();
        int64_t allocations = std::numeric_limits<int64_t>::max();
    };
    const auto measure = [](Least& least, auto& work) {
        const int64_t before = Allocations();
        const auto start = Clock::now();
        work();
        const double time = std::chrono::duration<double>(Clock::now() - start).count();
        least.seconds = std::min(least.seconds, time);
        least.allocations = std::min(least.allocations, Allocations() - before);
        return time;
    };
    Least ofLibrary;
    Least ofFloor;
    Least ofCaller;
    for ([[maybe_unused]] auto _ : state) {
        measure(ofFloor, floor);
        measure(ofCaller, caller);
        state.SetIterationTime(measure(ofLibrary, library));
    }
    const auto all = static_cast<double>(units);
    const double time = ofLibrary.seconds - ofCaller.seconds;
    state.counters["ns"] = time / all * 1e9;
    state.counters["floor_ns"] = ofFloor.seconds / all * 1e9;
    state.counters["ratio"] = time / ofFloor.seconds;
    const int64_t allocations = ofLibrary.allocations - ofCaller.allocations - ofFloor.allocations;
    state.counters["allocations"] = std::max(static_cast<double>(allocations) / all, 0.0);
}

template <typename Library, typename Floor>
void Measure(benchmark::State& state, int64_t units, Library library, Floor floor) {
    Measure(state, units, library, floor, [] {});
}
