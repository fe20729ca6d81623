#include "service/watchdog.h"

#include <csignal>
#include <mutex>
#include <thread>

#include "platform/log.h"
#include "service/settings.h"

namespace cfbt {

Lock::Lock() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void Lock::lock() {
    pthread_mutex_lock(&mutex);
}

void Lock::unlock() {
    pthread_mutex_unlock(&mutex);
}

Watchdog::Watchdog(Lock& itsLock, BoostedThreads& itsThreads) : lock(itsLock), threads(itsThreads) {
    sem_init(&wakes, 0, 0);
}

int Watchdog::Wake(int priority) {
    if (!hasThread) {
        // Signals are for the program's own threads.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        const auto run = [](void* self) -> void* {
            static_cast<Watchdog*>(self)->Run();
            return nullptr;
        };
        const int error = pthread_create(&thread, nullptr, run, this);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        if (error != 0) {
            return error;
        }
        hasThread = true;
    }
    if (!isAwake) {
        isAwake = true;
        sem_post(&wakes);
    }
    return RaiseWatchdog(thread, priority);
}

void Watchdog::Run() {
    pthread_setname_np(pthread_self(), "cfbt-watchdog");
    RaiseOwnNice();
    for (;;) {
        sem_wait(&wakes);
        for (bool isRunning = true; isRunning;) {
            std::this_thread::sleep_for(LOOK_PERIOD);
            Lowered lowered;
            {
                const std::lock_guard<Lock> guard(lock);
                isRunning = isAwake = threads.IsSceneRunning();
                lowered = threads.LowerWild();
            }
            for (size_t i = 0; i < lowered.count; ++i) {
                __android_log_print(
                    ANDROID_LOG_WARN, LOG_TAG,
                    "thread %d keeps a CPU and ends no stage: not boosted until it does",
                    lowered.tids[i]);
            }
        }
    }
}

}  // namespace cfbt
