#include "platform/boost_service.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <mutex>
#include <string>
#include <system_error>

#include "platform/log.h"
#include "platform/properties.h"
#include "service/boosted_threads.h"
#include "service/settings.h"
#include "service/watchdog.h"

namespace {

using cfbt::Limits;
using cfbt::LOG_TAG;
using cfbt::Raising;
using cfbt::Rung;

constexpr int32_t DEFAULT_PRIORITY = 1;
constexpr int32_t MAX_PRIORITY = 98;  // The watchdog has one more, and 99 is the highest.
constexpr int32_t DEFAULT_SHARE = 75;
constexpr int32_t NO_LIMIT = 100;

struct Service {
    cfbt::Lock lock;
    cfbt::BoostedThreads threads;            // Guarded by lock, but for the count of stage ends.
    cfbt::Watchdog watchdog{lock, threads};  // Guarded by lock.
    std::atomic<int> logged{-1};             // The rung of the last line about rungs.
};

Service* current = nullptr;

void MakeService() {
    current = new Service;
}

// Never destroyed: the watchdog and the camera's threads may still use it while the process ends.
// For the same reason the library is linked so that it is never unloaded. A forked process has none
// of its parent's threads and begins anew.
Service& GetService() {
    [[maybe_unused]] static const int isMade = [] {
        MakeService();
        return pthread_atfork(nullptr, nullptr, [] {
            cfbt::ForgetOwnThread();
            MakeService();
        });
    }();
    return *current;
}

int32_t Setting(const char* property, int32_t standard, int32_t highest) {
    const int32_t value = property_get_int32(property, standard);
    if (value >= 1 && value <= highest) {
        return value;
    }
    __android_log_print(ANDROID_LOG_WARN, LOG_TAG, "%s is %d, expected 1 to %d: %d is used",
                        property, value, highest, standard);
    return standard;
}

// Logs how far threads are raised, once until that changes. `error`: why they are not real-time.
void LogRung(Rung rung, int error) {
    const int number = static_cast<int>(rung);
    if (GetService().logged.exchange(number) == number) {
        return;
    }
    const std::string reason = std::generic_category().message(error);
    switch (rung) {
        case Rung::RealTime:
            __android_log_print(ANDROID_LOG_INFO, LOG_TAG,
                                "threads are real-time while a scene runs");
            break;
        case Rung::Nice:
            __android_log_print(ANDROID_LOG_WARN, LOG_TAG,
                                "real-time is refused (%s): nice %d while a scene runs",
                                reason.c_str(), cfbt::RAISED_NICE);
            break;
        case Rung::Ordinary:
            __android_log_print(ANDROID_LOG_WARN, LOG_TAG,
                                "real-time (%s) and nice %d are refused: threads are not boosted",
                                reason.c_str(), cfbt::RAISED_NICE);
            break;
    }
}

// The lowest rung that a thread was raised to; `highest` where none was to be raised.
Rung LowestRung(const Raising& raising, Rung highest) {
    if (raising.refused > 0) {
        return Rung::Ordinary;
    }
    return raising.nice > 0 ? Rung::Nice : highest;
}

// The highest rung that the kernel grants.
Rung HighestRung(int realTimeError) {
    if (realTimeError == 0) {
        return Rung::RealTime;
    }
    return cfbt::MayRaiseNice() ? Rung::Nice : Rung::Ordinary;
}

}  // namespace

int32_t cfbtSceneStart(int32_t /*scene*/, int32_t /*fpsClass*/, int32_t /*version*/) {
    Limits limits;
    limits.priority = Setting(cfbt::PRIORITY_PROPERTY, DEFAULT_PRIORITY, MAX_PRIORITY);
    const int32_t percent = Setting(cfbt::SHARE_PROPERTY, DEFAULT_SHARE, NO_LIMIT);
    limits.share = percent == NO_LIMIT ? HUGE_VAL : percent / 100.0;
    Service& service = GetService();
    Raising raising;
    int error = 0;
    bool isRefused = false;
    {
        const std::lock_guard<cfbt::Lock> guard(service.lock);
        error = service.watchdog.Wake(limits.priority + 1);
        limits.highest = HighestRung(error);
        raising = service.threads.StartScene(limits);
        isRefused = limits.highest == Rung::Ordinary ||
                    (raising.refused > 0 && raising.nice + raising.realTime == 0);
        if (isRefused) {
            service.threads.EndScene();
        }
    }
    LogRung(LowestRung(raising, limits.highest), error == 0 ? EPERM : error);
    return isRefused ? -EPERM : 0;
}

int32_t cfbtSceneEnd(int32_t /*scene*/) {
    Service& service = GetService();
    const std::lock_guard<cfbt::Lock> guard(service.lock);
    service.threads.EndScene();
    return 0;
}

int32_t cfbtAddTids(int32_t /*scene*/, const std::vector<int32_t>& tids) {
    Service& service = GetService();
    Raising raising;
    {
        const std::lock_guard<cfbt::Lock> guard(service.lock);
        raising = service.threads.Add(tids);
    }
    if (raising.refused + raising.nice > 0) {
        LogRung(LowestRung(raising, Rung::RealTime), EPERM);
    }
    if (raising.surplus == 0) {
        return 0;
    }
    __android_log_print(ANDROID_LOG_WARN, LOG_TAG, "%zu threads are not boosted: %zu are the most",
                        raising.surplus, cfbt::MAX_THREADS);
    return -ENOSPC;
}

int32_t cfbtRemoveTids(int32_t /*scene*/, const std::vector<int32_t>& tids) {
    Service& service = GetService();
    const std::lock_guard<cfbt::Lock> guard(service.lock);
    service.threads.Remove(tids);
    return 0;
}

int32_t cfbtStageEnd(int32_t /*frameNumber*/, int32_t /*stage*/) {
    GetService().threads.CountStageEnd();
    return 0;
}

// Threads stay raised from a scene's start to its end: raising them for a frame or a stage would
// cost system calls each time and come too late for the frames that need it.

int32_t cfbtFrameStart(int32_t /*frameNumber*/) {
    return 0;
}

int32_t cfbtFrameEnd(int32_t /*frameNumber*/) {
    return 0;
}

int32_t cfbtStageStart(int32_t /*frameNumber*/, int32_t /*stage*/, int32_t /*stageArg1*/,
                       int32_t /*stageArg2*/) {
    return 0;
}

int32_t cfbtNotifyErrOfUser(int32_t /*scene*/, int32_t /*frameNumber*/, int32_t /*stage*/,
                            int32_t /*errorStage*/) {
    return 0;
}
