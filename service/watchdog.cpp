#include "service/watchdog.h"

#include <signal.h>

#include <chrono>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/log.h"
#include "service/boost_service.h"

namespace cfbt {
namespace {

// Six frames at 60 frames per second: a wild thread costs about as many as are in flight anyway.
constexpr std::chrono::milliseconds PERIOD(100);

}  // namespace

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

int Watchdog::Prepare(int priority) {
    if (!thread || process != OwnProcess()) {  // A forked process has none of its parent's threads.
        process = OwnProcess();
        // Signals are for the program's own threads.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        try {
            std::thread made(&Watchdog::Run, this);
            thread = made.native_handle();
            made.detach();
        } catch (const std::system_error& error) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            return error.code().value();
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    return RaiseWatchdog(*thread, priority);
}

void Watchdog::Wake() {
    sceneStarts.notify_one();
}

void Watchdog::Run() {
    pthread_setname_np(pthread_self(), "cfbt-watchdog");
    RaiseOwnNice();
    std::unique_lock<Lock> holder(lock);
    for (;;) {
        sceneStarts.wait(holder, [this] { return threads.IsSceneRunning(); });
        holder.unlock();
        std::this_thread::sleep_for(PERIOD);
        holder.lock();
        const Lowered lowered = threads.LowerWild();
        holder.unlock();
        for (size_t i = 0; i < lowered.count; ++i) {
            __android_log_print(
                ANDROID_LOG_WARN, LOG_TAG,
                "thread %d keeps a CPU and ends no stage: not boosted until it does",
                lowered.tids[i]);
        }
        holder.lock();
    }
}

}  // namespace cfbt
