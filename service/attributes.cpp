#include "service/attributes.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace cfbt {
namespace {

// Missing in some C libraries; the kernel's numbers.
constexpr int POLICY_DEADLINE = 6;
constexpr int RESET_ON_FORK = 0x40000000;

bool IsOwnThread(int32_t tid) {
    return tgkill(getpid(), tid, 0) == 0;
}

bool IsRealTime(int policy) {
    const int base = policy & ~RESET_ON_FORK;
    return base == SCHED_FIFO || base == SCHED_RR || base == POLICY_DEADLINE;
}

bool SetPolicy(int32_t tid, int policy, int priority) {
    sched_param param{};
    param.sched_priority = priority;
    return sched_setscheduler(tid, policy, &param) == 0;
}

int NiceOf(int32_t tid) {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
}

bool SetNice(int32_t tid, int nice) {
    return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) == 0;
}

// Whether the id still is a thread of this process with the attributes that it was given.
bool IsRaised(int32_t tid, const Boost& boost) {
    if (boost.rung == Rung::Ordinary || !IsOwnThread(tid)) {
        return false;
    }
    const int policy = sched_getscheduler(tid);
    if (boost.rung == Rung::Nice) {
        return policy == (SCHED_OTHER | RESET_ON_FORK) && NiceOf(tid) == RAISED_NICE;
    }
    sched_param param{};
    return policy == (SCHED_FIFO | RESET_ON_FORK) && sched_getparam(tid, &param) == 0 &&
           param.sched_priority == boost.priority;
}

thread_local int32_t ownThread = 0;

}  // namespace

bool Raise(int32_t tid, Rung highest, int priority, Boost& boost) {
    boost = {};
    if (!IsOwnThread(tid)) {
        return true;
    }
    boost.policy = sched_getscheduler(tid);
    boost.nice = NiceOf(tid);
    if (boost.policy < 0 || IsRealTime(boost.policy)) {
        return true;
    }
    if (highest == Rung::RealTime && SetPolicy(tid, SCHED_FIFO | RESET_ON_FORK, priority)) {
        boost.rung = Rung::RealTime;
        boost.priority = priority;
        return true;
    }
    if (boost.nice <= RAISED_NICE) {
        return true;
    }
    if (!SetNice(tid, RAISED_NICE)) {
        return errno == ESRCH;  // The thread has ended meanwhile.
    }
    if (!SetPolicy(tid, SCHED_OTHER | RESET_ON_FORK, 0)) {
        SetNice(tid, boost.nice);
        return false;
    }
    boost.rung = Rung::Nice;
    return true;
}

bool Restore(int32_t tid, const Boost& boost) {
    if (!IsRaised(tid, boost)) {
        return false;
    }
    // Without CAP_SYS_NICE no thread loses its reset-on-fork again; it gets back all else.
    if (!SetPolicy(tid, boost.policy, 0)) {
        SetPolicy(tid, boost.policy | RESET_ON_FORK, 0);
    }
    if (boost.rung == Rung::Nice) {
        SetNice(tid, boost.nice);
    }
    return true;
}

std::chrono::nanoseconds CpuTimeOf(int32_t tid) {
    // The kernel's id of a thread's clock, as pthread_getcpuclockid gives it for a pthread_t.
    const auto clock = static_cast<clockid_t>(~static_cast<uint32_t>(tid) << 3U | 6U);
    timespec time{};
    if (clock_gettime(clock, &time) != 0) {
        return {};
    }
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

int RaiseWatchdog(pthread_t thread, int priority) {
    sched_param param{};
    param.sched_priority = priority;
    return pthread_setschedparam(thread, SCHED_FIFO, &param);
}

void RaiseOwnNice() {
    SetNice(0, RAISED_NICE - 1);
}

bool MayRaiseNice() {
    const int nice = NiceOf(0);
    return nice <= RAISED_NICE || (SetNice(0, RAISED_NICE) && SetNice(0, nice));
}

int32_t OwnThread() {
    if (ownThread == 0) {
        ownThread = gettid();
    }
    return ownThread;
}

void ForgetOwnThread() {
    ownThread = 0;
}

}  // namespace cfbt
