#include "service/boosted_threads.h"

#include <algorithm>

namespace cfbt {

BoostedThreads::Thread* BoostedThreads::Find(int32_t tid) {
    for (Thread& thread : threads) {
        if (thread.tid.load(std::memory_order_relaxed) == tid) {
            return &thread;
        }
    }
    return nullptr;
}

void BoostedThreads::Raise(Thread& thread, Raising& raising) const {
    const int32_t tid = thread.tid.load(std::memory_order_relaxed);
    const std::chrono::nanoseconds cpuTime = CpuTimeOf(tid);
    const bool wasRaised = thread.isWild || thread.boost.rung != Rung::Ordinary;
    // A thread that has had less of the CPUs than was seen is a new one with the same id.
    if (tid == 0 || (wasRaised && cpuTime >= thread.seenCpuTime)) {
        return;
    }
    thread.isWild = false;
    thread.seen = std::chrono::steady_clock::now();
    thread.seenStageEnds = thread.stageEnds.load(std::memory_order_relaxed);
    thread.seenCpuTime = cpuTime;
    if (!cfbt::Raise(tid, limits.highest, limits.priority, thread.boost)) {
        ++raising.refused;
    } else if (thread.boost.rung == Rung::Nice) {
        ++raising.nice;
    } else if (thread.boost.rung == Rung::RealTime) {
        ++raising.realTime;
    }
}

Raising BoostedThreads::Add(const std::vector<int32_t>& tids) {
    Raising raising;
    for (const int32_t tid : tids) {
        if (tid <= 0) {
            continue;  // To the kernel 0 would be the calling thread.
        }
        Thread* thread = Find(tid);
        if (thread == nullptr) {
            thread = Find(0);
            if (thread == nullptr) {
                ++raising.surplus;
                continue;
            }
            thread->tid.store(tid, std::memory_order_relaxed);
            const auto places = static_cast<size_t>(thread - threads.data()) + 1;
            used.store(std::max(used.load(std::memory_order_relaxed), places),
                       std::memory_order_relaxed);
        }
        if (IsSceneRunning()) {
            Raise(*thread, raising);
        }
    }
    return raising;
}

void BoostedThreads::Remove(const std::vector<int32_t>& tids) {
    for (const int32_t tid : tids) {
        Thread* thread = tid <= 0 ? nullptr : Find(tid);
        if (thread != nullptr) {
            Restore(tid, thread->boost);
            thread->boost = {};
            thread->isWild = false;
            thread->tid.store(0, std::memory_order_relaxed);
        }
    }
}

Raising BoostedThreads::StartScene(const Limits& sceneLimits) {
    EndScene();
    limits = sceneLimits;
    Raising raising;
    for (Thread& thread : threads) {
        Raise(thread, raising);
    }
    return raising;
}

void BoostedThreads::EndScene() {
    limits = {};
    for (Thread& thread : threads) {
        Restore(thread.tid.load(std::memory_order_relaxed), thread.boost);
        thread.boost = {};
        thread.isWild = false;
    }
}

void BoostedThreads::CountStageEnd() {
    const int32_t self = OwnThread();
    const size_t count = used.load(std::memory_order_relaxed);
    for (size_t i = 0; i < count; ++i) {
        if (threads[i].tid.load(std::memory_order_relaxed) == self) {
            threads[i].stageEnds.fetch_add(1, std::memory_order_relaxed);
            return;
        }
    }
}

Lowered BoostedThreads::LowerWild() {
    Lowered lowered;
    for (Thread& thread : threads) {
        const auto now = std::chrono::steady_clock::now();
        const std::chrono::duration<double> passed = now - thread.seen;
        // Use of the CPU over a short time shows nothing.
        if ((thread.boost.rung == Rung::Ordinary && !thread.isWild) || passed < LOOK_PERIOD / 2) {
            continue;
        }
        const int32_t tid = thread.tid.load(std::memory_order_relaxed);
        const uint32_t stageEnds = thread.stageEnds.load(std::memory_order_relaxed);
        const std::chrono::nanoseconds cpuTime = CpuTimeOf(tid);
        const bool hasEndedStage = stageEnds != thread.seenStageEnds;
        const bool isGreedy = cpuTime - thread.seenCpuTime > limits.share * passed;
        thread.seen = now;
        thread.seenStageEnds = stageEnds;
        thread.seenCpuTime = cpuTime;
        if (thread.isWild && hasEndedStage) {
            thread.isWild = false;
            Raising ignored;
            Raise(thread, ignored);
        } else if (!thread.isWild && isGreedy && !hasEndedStage && Restore(tid, thread.boost)) {
            thread.boost = {};
            thread.isWild = true;
            lowered.tids[lowered.count++] = tid;
        }
    }
    return lowered;
}

}  // namespace cfbt
