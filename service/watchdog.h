// Looks at raised threads while a scene runs, and puts back those that take a CPU for themselves.
//
// It is a thread of its own, one priority above the threads that it watches. Driven by the camera's
// events it would not run when it is needed: when a thread that runs wild is why none come.

#pragma once

#include <pthread.h>

#include <condition_variable>
#include <optional>

#include "service/boosted_threads.h"

namespace cfbt {

// The service's lock. Whoever holds it while the watchdog waits for it runs at the watchdog's
// priority: else threads that run wild on all CPUs would keep the holder from going on, and with it
// the watchdog.
class Lock {
  public:
    Lock();
    void lock();
    void unlock();

  private:
    pthread_mutex_t mutex{};
};

class Watchdog {
  public:
    // Both are the service's, and outlive this.
    Watchdog(Lock& itsLock, BoostedThreads& itsThreads) : lock(itsLock), threads(itsThreads) {}

    // Makes the thread if there is none yet, which sleeps while no scene runs, and gives it this
    // priority of SCHED_FIFO. Returns 0, or the error of the kernel, which then grants no thread of
    // this process that. With the lock held.
    int Prepare(int priority);

    // After a scene's start.
    void Wake();

  private:
    [[noreturn]] void Run();

    Lock& lock;
    BoostedThreads& threads;
    std::condition_variable_any sceneStarts;
    std::optional<pthread_t> thread;
    int32_t process = 0;  // Whose thread that is.
};

}  // namespace cfbt
