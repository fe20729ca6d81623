// How a benchmark is measured: against the least that anything which keeps the library's contract
// has to pay, in the same run.

#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

#include "benchmarks/allocations.h"

// Times `road` and `floor` in turns, `units` of whatever each of them does at a time. Reports the
// time of a unit of the road, its ratio to a unit of the floor, and its heap allocations. Both
// times are the least of many: what makes a turn slower than that is not the library.
template <typename Road, typename Floor>
void Measure(benchmark::State& state, int64_t units, Road road, Floor floor) {
    using Clock = std::chrono::steady_clock;
    const auto timeOf = [](auto& work) {
        const auto start = Clock::now();
        work();
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    double leastRoad = std::numeric_limits<double>::max();
    double leastFloor = leastRoad;
    int64_t allocated = 0;
    int64_t turns = 0;
    road();  // Whatever happens only once happens here.
    for ([[maybe_unused]] auto _ : state) {
        leastFloor = std::min(leastFloor, timeOf(floor));
        const int64_t before = Allocations();
        const double time = timeOf(road);
        allocated += Allocations() - before;
        ++turns;
        leastRoad = std::min(leastRoad, time);
        state.SetIterationTime(time);
    }
    const auto all = static_cast<double>(units);
    state.counters["ns"] = leastRoad / all * 1e9;
    state.counters["floor_ns"] = leastFloor / all * 1e9;
    state.counters["ratio"] = leastRoad / leastFloor;
    state.counters["allocations"] =
        static_cast<double>(allocated) / static_cast<double>(turns) / all;
}
