// The scheduling attributes of this process's threads. No other file of this folder makes system
// calls.
//
// A thread that is raised becomes SCHED_FIFO with SCHED_RESET_ON_FORK, so that its children are
// ordinary. The kernel keeps a thread's nice value, slice and utilization clamps while it is
// real-time, so putting its policy back puts back all of them, and what the HAL changed meanwhile
// stays changed. A timer slack of its own is lost: newer kernels give a real-time thread the usual
// one.

#pragma once

#include <pthread.h>

#include <chrono>
#include <cstdint>

namespace cfbt {

// How far a thread can be raised: the higher, the better.
enum class Rung {
    Ordinary,  // Not at all.
    Nice,      // RAISED_NICE, where the kernel refuses real-time.
    RealTime,  // SCHED_FIFO.
};

constexpr int RAISED_NICE = -19;

// The attributes that a thread was given, and those that it had before.
struct Boost {
    Rung rung = Rung::Ordinary;
    int priority = 0;  // Of SCHED_FIFO, from 1.
    int policy = 0;    // The policy before, as sched_getscheduler gives it.
    int nice = 0;      // The nice value before.
};

// Raises a thread to the highest rung, up to `highest`, that the kernel grants. Leaves alone, and
// reports as ordinary, an id that is not a living thread of this process, and a thread that has a
// real-time policy, the deadline policy or a nice value as good of its own. With privilege the
// kernel would raise any thread of the machine. Returns false if the kernel refuses all rungs.
bool Raise(int32_t tid, Rung highest, int priority, Boost& boost);

// Gives a thread back the attributes that it had, if it is still raised; returns whether it was.
bool Restore(int32_t tid, const Boost& boost);

// How long the CPUs worked for a thread of this process; 0 for any other id.
std::chrono::nanoseconds CpuTimeOf(int32_t tid);

// Makes the watchdog's thread real-time; returns 0 or the kernel's error.
int RaiseWatchdog(pthread_t thread, int priority);

// Lets the calling thread have nearly all of a CPU where it is not real-time, if the kernel does.
void RaiseOwnNice();

// Whether threads may have RAISED_NICE. Tried with the calling thread, whose own nice value is put
// back.
bool MayRaiseNice();

// The id of the calling thread, without a system call from the second time on.
int32_t OwnThread();

// For a process that was just forked: its thread has another id than the thread that forked it.
void ForgetOwnThread();

}  // namespace cfbt
