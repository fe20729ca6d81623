// Looks at raised threads while a scene runs, and puts back those that take a CPU for themselves.
//
// It is a thread of its own, one priority above the threads that it watches. Driven by the camera's
// events it would not run when it is needed: a thread that runs wild may be why no events come.

#pragma once

#include <pthread.h>
#include <semaphore.h>

#include "service/boosted_threads.h"

namespace cfbt {

// The service's lock. A holder for whom the watchdog waits runs at the watchdog's priority: else
// threads that run wild on all CPUs would keep the holder from going on, and with it the watchdog.
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
    Watchdog(Lock& itsLock, BoostedThreads& itsThreads);

    // Wakes the watchdog, which sleeps again once no scene runs, and gives it this priority of
    // SCHED_FIFO. To be called before threads are raised, with the lock held: they may be running
    // wild already. Returns 0, or why the watchdog cannot have that priority; then no thread is to
    // be made real-time.
    int Wake(int priority);

  private:
    void Run();

    Lock& lock;
    BoostedThreads& threads;
    sem_t wakes{};
    bool hasThread = false;  // Guarded by lock, as is all from here on.
    bool isAwake = false;
    pthread_t thread{};
};

}  // namespace cfbt
