// The table of the threads that were handed over, with the attributes that each was given.

#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "service/attributes.h"

namespace cfbt {

// A camera has a thread for each node and a few more. A fixed number, so that nothing is allocated.
constexpr size_t MAX_THREADS = 64;

// How often the watchdog looks. Six frames at 60 frames per second: a thread that runs wild costs
// about as many as are in flight anyway.
constexpr std::chrono::milliseconds LOOK_PERIOD(100);

// How far the threads of a scene are raised.
struct Limits {
    Rung highest = Rung::Ordinary;
    int priority = 1;  // Of SCHED_FIFO.
    double share = 1;  // Of a CPU's time: more a thread may not have without ending a stage.
};

// How many threads were raised to which rung. Threads that were left alone are not counted.
struct Raising {
    size_t refused = 0;
    size_t nice = 0;
    size_t realTime = 0;
    size_t surplus = 0;  // Ids that had no place in the table.
};

// Threads that the watchdog has put back.
struct Lowered {
    std::array<int32_t, MAX_THREADS> tids{};
    size_t count = 0;
};

// All functions but CountStageEnd are called with the service's lock held.
class BoostedThreads {
  public:
    // Keeps the ids, and raises their threads where a scene runs. A thread that was raised in this
    // scene is not raised again, unless its id is a new thread's now: for each thread that is added
    // the library hands over its whole list again, which is to change nothing about threads that
    // the watchdog has put back or the HAL has given other attributes.
    Raising Add(const std::vector<int32_t>& tids);

    // Restores and forgets.
    void Remove(const std::vector<int32_t>& tids);

    // Raises all threads. Where a scene runs already, it ends first.
    Raising StartScene(const Limits& sceneLimits);

    // Restores all threads, and keeps the ids.
    void EndScene();

    bool IsSceneRunning() const { return limits.highest != Rung::Ordinary; }

    // The calling thread has ended a stage. Takes no lock and makes no system call.
    void CountStageEnd();

    // For the watchdog, each LOOK_PERIOD. Restores each raised thread that had a CPU for more than
    // its share of the time since the look before and ended no stage meanwhile, and returns these
    // threads. They are raised again when they have ended a stage: judged by their use of the CPU
    // alone they would go up and down all the time.
    Lowered LowerWild();

  private:
    struct Thread {
        std::atomic<int32_t> tid{0};  // 0 for a free place. Written with the lock held.
        std::atomic<uint32_t> stageEnds{0};
        Boost boost;
        bool isWild = false;  // The watchdog has put it back.
        // When it was raised, or looked at last.
        std::chrono::steady_clock::time_point seen;
        uint32_t seenStageEnds = 0;
        std::chrono::nanoseconds seenCpuTime{};
    };

    Thread* Find(int32_t tid);
    void Raise(Thread& thread, Raising& raising) const;

    std::array<Thread, MAX_THREADS> threads;
    std::atomic<size_t> used{0};  // No place from this one on was ever taken.
    Limits limits;                // Of the scene; none while no scene runs.
};

}  // namespace cfbt
