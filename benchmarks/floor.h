// How a benchmark is measured: against the least that anything which keeps the library's contract
// has to pay, in the same run.

#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

#include "tests/support/allocations.h"

// Times `road` and `floor` in turns, `units` of whatever each of them does at a time. Reports the
// time of a unit of the road, its ratio to a unit of the floor, and its heap allocations, all
// without what `caller` does: the part of the road that is not the library's. Times are the least
// of many: what makes a turn slower than that is not the library either.
template <typename Road, typename Floor, typename Caller>
void Measure(benchmark::State& state, int64_t units, Road road, Floor floor, Caller caller) {
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
    Least ofRoad;
    Least ofFloor;
    Least ofCaller;
    for ([[maybe_unused]] auto _ : state) {
        measure(ofFloor, floor);
        measure(ofCaller, caller);
        state.SetIterationTime(measure(ofRoad, road));
    }
    const auto all = static_cast<double>(units);
    const double time = ofRoad.seconds - ofCaller.seconds;
    state.counters["ns"] = time / all * 1e9;
    state.counters["floor_ns"] = ofFloor.seconds / all * 1e9;
    state.counters["ratio"] = time / ofFloor.seconds;
    const int64_t allocations = ofRoad.allocations - ofCaller.allocations - ofFloor.allocations;
    state.counters["allocations"] = std::max(static_cast<double>(allocations) / all, 0.0);
}

template <typename Road, typename Floor>
void Measure(benchmark::State& state, int64_t units, Road road, Floor floor) {
    Measure(state, units, road, floor, [] {});
}
