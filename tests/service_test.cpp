// The boost service on this machine's kernel: what threads have before, during and after a scene.
//
// Threads that run wild can't starve the machine whatever fails: each ends by itself after a time,
// and the test's own thread, which ends them earlier, has a higher priority.

#include <linux/capability.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <numeric>
#include <sstream>
#include <thread>

#include "platform/boost_service.h"
#include "service/settings.h"
#include "tests/support/allocations.h"
#include "tests/support/library_test.h"

// Not in builds with sanitizers, which have an operator new of their own.
#pragma weak Allocations

namespace {

using std::chrono::milliseconds;
using Tids = std::vector<int32_t>;

constexpr int RESET_ON_FORK = 0x40000000;
constexpr id_t NOBODY = 65534;
constexpr char ORDINARY[] = "other, nice 0";
constexpr char RAISED[] = "fifo 40, reset on fork";
constexpr char NICE[] = "other, nice -19, reset on fork";

struct KernelAttributes {
    uint32_t size = 0;
    uint32_t policy = 0;
    uint64_t flags = 0;
    int32_t nice = 0;
    uint32_t priority = 0;
    uint64_t slice = 0;
    uint64_t deadline = 0;
    uint64_t period = 0;
};

KernelAttributes AttributesOf(int32_t tid) {
    KernelAttributes attributes;
    syscall(SYS_sched_getattr, tid, &attributes, sizeof(attributes), 0);
    return attributes;
}

// Read while this thread is ordinary: the kernel shows no slice of real-time threads.
const uint64_t USUAL_SLICE = AttributesOf(getpid()).slice;

// A thread's attributes in words; the slice only where it is not that of a new thread.
std::string Of(int32_t tid) {
    constexpr std::array<const char*, 7> policies = {"other", "fifo", "rr",      "batch",
                                                     "?",     "idle", "deadline"};
    const KernelAttributes attributes = AttributesOf(tid);
    std::ostringstream text;
    text << policies.at(attributes.policy);
    if (attributes.priority != 0) {
        text << ' ' << attributes.priority;
    } else {
        text << ", nice " << attributes.nice;
    }
    if (attributes.priority == 0 && attributes.slice != USUAL_SLICE) {
        text << ", slice " << attributes.slice;
    }
    text << ((attributes.flags & 1U) != 0 ? ", reset on fork" : "");
    return text.str();
}

// Of the calling thread.
bool SetPolicy(int policy, int priority) {
    sched_param param{};
    param.sched_priority = priority;
    return sched_setscheduler(0, policy, &param) == 0;
}
void SetNice(int nice) {
    EXPECT_EQ(setpriority(PRIO_PROCESS, 0, nice), 0);
}
void BindTo(unsigned cpu) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(cpu, &cpus);
    pthread_setaffinity_np(pthread_self(), sizeof(cpus), &cpus);
}

// A thread of the camera: runs jobs, one after the other.
class Worker {
  public:
    Worker() : thread(&Worker::Run, this) {
        Do([this] { tid = gettid(); });
    }
    ~Worker() {
        Start(nullptr);
        thread.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    void Start(std::function<void()> itsJob) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return !hasJob; });
        job = std::move(itsJob);
        hasJob = true;
        changed.notify_all();
    }

    // Waits until the job is done.
    void Do(std::function<void()> itsJob) {
        Start(std::move(itsJob));
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return !hasJob; });
    }

    int32_t tid = 0;

  private:
    void Run() {
        for (bool isOpen = true; isOpen;) {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [this] { return hasJob; });
            lock.unlock();
            isOpen = job != nullptr;
            if (isOpen) {
                job();
            }
            lock.lock();
            hasJob = false;
            changed.notify_all();
        }
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::function<void()> job;  // Guarded by mutex, as is hasJob.
    bool hasJob = false;
    std::thread thread;
};

void Compute(milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
    }
}

// Computes until `stop` is set, and never for longer than a few seconds; does `each` now and then.
void Spin(
    const std::atomic<bool>& stop, const std::function<void()>& each = [] {}) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (auto next = std::chrono::steady_clock::now(); !stop;) {
        const auto now = std::chrono::steady_clock::now();
        if (now > end) {
            return;
        }
        if (now > next) {
            each();
            next = std::chrono::steady_clock::now() + milliseconds(10);
        }
    }
}

bool Within(milliseconds limit, const std::function<bool()>& isSo) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!isSo()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}

// Runs the body in a process of its own, with its rights; its failures are this test's.
void InChild(const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

int32_t StartScene() {
    return cfbtSceneStart(0, 1, 2);
}

class ServiceTest : public testing::Test {
  protected:
    void SetUp() override {
        desktop::Reset();
        recorder.Take();
        desktop::SetLogToStderr(false);
        // Above other programs of the machine that are real-time, below the test's own thread.
        desktop::SetProperty(cfbt::PRIORITY_PROPERTY, "40");
        if (!SetPolicy(SCHED_FIFO, 1)) {
            GTEST_SKIP() << "the kernel refuses SCHED_FIFO 1 here: "
                         << std::generic_category().message(errno);
        }
        SetPolicy(SCHED_OTHER, 0);
        setpriority(PRIO_PROCESS, 0, 0);  // Whatever the tests were started with.
    }

    void TearDown() override {
        cfbtSceneEnd(0);
        Tids all(workers.size());
        std::transform(workers.begin(), workers.end(), all.begin(),
                       [](const auto& worker) { return worker->tid; });
        cfbtRemoveTids(0, all);
    }

    Worker& Add(const std::function<void()>& preparation = [] {}) {
        workers.push_back(std::make_unique<Worker>());
        workers.back()->Do(preparation);
        return *workers.back();
    }

    void WaitForAll() {
        for (const auto& worker : workers) {
            worker->Do([] {});
        }
    }

    // The service's lines since the last call.
    Lines Log() {
        Lines lines;
        for (const desktop::Effect& effect : recorder.Take()) {
            const auto* line = std::get_if<desktop::LogLine>(&effect.event);
            if (line != nullptr && line->tag == cfbt::LOG_TAG) {
                lines.push_back(line->text);
            }
        }
        return lines;
    }

    std::vector<std::unique_ptr<Worker>> workers;
    // Never destroyed: the watchdog may still write a line.
    static desktop::Recorder& recorder;
};

desktop::Recorder& ServiceTest::recorder = *new desktop::Recorder;

TEST_F(ServiceTest, RaisesThreadsForTheSceneAndGivesBackWhatTheyHad) {
    Add();
    Add([] { SetNice(5); });
    Add([] { SetPolicy(SCHED_BATCH, 0); });
    Add([] { SetPolicy(SCHED_IDLE, 0); });
    Add([] {
        SetNice(-7);
        SetPolicy(SCHED_OTHER | RESET_ON_FORK, 0);
    });
    Add([] {
        KernelAttributes attributes = AttributesOf(0);
        attributes.slice = 5000000;
        syscall(SYS_sched_setattr, 0, &attributes, 0);
    });
    const Worker& own = Add([] { SetPolicy(SCHED_RR, 30); });
    Tids tids;
    Lines before;
    for (const auto& worker : workers) {
        tids.push_back(worker->tid);
        before.push_back(Of(worker->tid));
    }
    const auto now = [&] {
        Lines all;
        for (const int32_t tid : tids) {
            all.push_back(Of(tid));
        }
        return all;
    };
    Lines raised(tids.size(), RAISED);
    raised.back() = Of(own.tid);

    cfbtAddTids(0, tids);
    EXPECT_EQ(now(), before) << "ids come before the scene";
    for (int scene = 0; scene < 2; ++scene) {
        EXPECT_EQ(StartScene(), 0);
        EXPECT_EQ(now(), raised);
        cfbtAddTids(0, tids);  // As the library does for each thread that is added to a scene.
        EXPECT_EQ(StartScene(), 0) << "the object ended without the scene's end";
        EXPECT_EQ(now(), raised);
        cfbtSceneEnd(0);
        EXPECT_EQ(now(), before);
    }
    cfbtRemoveTids(0, tids);
    StartScene();
    EXPECT_EQ(now(), before) << "forgotten";
    cfbtAddTids(0, tids);
    EXPECT_EQ(now(), raised) << "added while a scene runs";
    cfbtRemoveTids(0, {tids[1]});
    EXPECT_EQ(Of(tids[1]), before[1]);
    EXPECT_EQ(Of(tids[2]), RAISED);
    EXPECT_EQ(Log(), Lines{"threads are real-time while a scene runs"}) << "once";
}

TEST_F(ServiceTest, LeavesAloneThreadsOfOthersAndWhatTheHalSetsItself) {
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    int32_t dead = 0;
    { dead = Worker().tid; }
    const int32_t changed = Add().tid;
    const int32_t better = Add().tid;
    const int32_t nicer = Add().tid;
    cfbtAddTids(0, {child, dead, 0, -1, changed, better, nicer});
    EXPECT_EQ(StartScene(), 0);
    EXPECT_EQ(Of(child), ORDINARY);
    EXPECT_EQ(Of(getpid()), ORDINARY);
    workers[0]->Do([] { SetPolicy(SCHED_BATCH, 0); });
    workers[1]->Do([] { SetPolicy(SCHED_FIFO | RESET_ON_FORK, 45); });
    workers[2]->Do([] { SetNice(9); });
    cfbtAddTids(0, {changed, better, nicer});  // As when the HAL adds another thread.
    EXPECT_EQ(Of(changed), "batch, nice 0");
    Log();
    workers[0]->Do([] { Compute(milliseconds(300)); });  // The watchdog looks at it.
    EXPECT_EQ(Log(), Lines{});
    cfbtSceneEnd(0);
    cfbtRemoveTids(0, {child, dead, 0, -1});
    EXPECT_EQ(Of(changed), "batch, nice 0");
    EXPECT_EQ(Of(better), "fifo 45, reset on fork");
    EXPECT_EQ(Of(nicer), "other, nice 9");
    EXPECT_EQ(Of(getpid()), ORDINARY);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(ServiceTest, KnowsAnIdThatIsUsedAgain) {
    const int32_t id = Add([] { SetPolicy(SCHED_BATCH, 0); }).tid;
    const auto isUsedAgain = [&] {
        for (int attempt = 0; attempt < 1000; ++attempt) {
            workers.clear();
            std::ofstream("/proc/sys/kernel/ns_last_pid") << id - 1;
            if (Add([] { SetNice(3); }).tid == id) {
                return true;
            }
        }
        return false;
    };
    cfbtAddTids(0, {id});
    StartScene();
    if (!isUsedAgain()) {
        GTEST_SKIP() << "this kernel gives no thread the id that is wanted";
    }
    EXPECT_EQ(Of(id), "other, nice 3") << "not what was handed over";
    cfbtSceneEnd(0);
    EXPECT_EQ(Of(id), "other, nice 3") << "not what the thread before it had";
    workers[0]->Do([] { Compute(milliseconds(20)); });
    StartScene();
    EXPECT_EQ(Of(id), RAISED);
    ASSERT_TRUE(isUsedAgain());
    cfbtAddTids(0, {id});
    EXPECT_EQ(Of(id), RAISED) << "handed over again";
}

TEST_F(ServiceTest, StartsNoChildThatIsRaised) {
    Worker& worker = Add();
    cfbtAddTids(0, {worker.tid});
    StartScene();
    worker.Do([] {
        Worker thread;
        EXPECT_EQ(Of(thread.tid), ORDINARY);
        InChild([] { EXPECT_EQ(Of(getpid()), ORDINARY); });
    });
    EXPECT_EQ(Of(worker.tid), RAISED);
}

TEST_F(ServiceTest, PutsBackThreadsThatRunWild) {
    std::atomic<bool> stop{false};
    std::atomic<bool> behaves{false};
    Tids wild;
    const unsigned cpus = std::thread::hardware_concurrency();
    for (unsigned cpu = 0; cpu < cpus; ++cpu) {
        wild.push_back(Add([cpu] { BindTo(cpu); }).tid);
        cfbtAddTids(0, {wild.back()});
    }
    Worker fair;
    StartScene();
    cfbtSceneEnd(0);
    std::this_thread::sleep_for(milliseconds(150));  // The watchdog sleeps then.
    Log();
    for (const auto& worker : workers) {
        worker->Start([&] {
            Spin(stop);
            while (!behaves) {
                std::this_thread::sleep_for(milliseconds(5));
            }
            cfbtStageEnd(1, 0);
        });
    }
    const auto areAll = [&](const std::string& attributes) {
        return std::all_of(wild.begin(), wild.end(),
                           [&](int32_t tid) { return Of(tid) == attributes; });
    };
    SetPolicy(SCHED_FIFO, 50);
    fair.Start([] { StartScene(); });  // Those that it raises leave it no CPU.
    EXPECT_TRUE(Within(std::chrono::seconds(2), [&] { return !areAll(ORDINARY); }));
    EXPECT_TRUE(Within(milliseconds(400), [&] { return areAll(ORDINARY); }));
    cfbtAddTids(0, wild);
    EXPECT_TRUE(areAll(ORDINARY)) << "the same list again";
    fair.Do([] {});  // The start of the scene, which they had kept from going on, is through.
    stop = true;
    std::this_thread::sleep_for(milliseconds(250));
    EXPECT_TRUE(areAll(ORDINARY)) << "they have ended no stage yet";
    cfbtRemoveTids(0, {wild[0]});
    cfbtAddTids(0, {wild[0]});
    EXPECT_EQ(Of(wild[0]), RAISED) << "taken back and handed over";
    behaves = true;
    // On a busy machine it takes a while until they are on.
    EXPECT_TRUE(Within(std::chrono::seconds(10), [&] { return areAll(RAISED); }));
    WaitForAll();
    Lines expected;
    for (const int32_t tid : wild) {
        expected.push_back("thread " + std::to_string(tid) +
                           " keeps a CPU and ends no stage: not boosted until it does");
    }
    Lines log = Log();
    std::sort(log.begin(), log.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(log, expected);
}

TEST_F(ServiceTest, NeverPutsBackThreadsThatEndStagesOrSleep) {
    Worker& diligent = Add([] { BindTo(0); });
    Worker& sleeper = Add([] { BindTo(std::thread::hardware_concurrency() - 1); });
    SetPolicy(SCHED_FIFO, 50);
    cfbtAddTids(0, {diligent.tid, sleeper.tid});
    StartScene();
    std::atomic<bool> stop{false};
    std::atomic<bool> endsStages{true};
    diligent.Start([&] {
        Spin(stop, [&] {
            if (endsStages) {
                cfbtStageEnd(1, 0);
            }
        });
    });
    sleeper.Start([&] { Spin(stop, [] { std::this_thread::sleep_for(milliseconds(15)); }); });
    EXPECT_FALSE(Within(milliseconds(700),
                        [&] { return Of(diligent.tid) != RAISED || Of(sleeper.tid) != RAISED; }));
    for (int start = 0; start < 10; ++start) {
        StartScene();  // In a scene that runs, it begins anew.
        std::this_thread::sleep_for(milliseconds(30));
        EXPECT_EQ(Of(sleeper.tid), RAISED);
    }
    endsStages = false;
    EXPECT_TRUE(Within(milliseconds(400), [&] { return Of(diligent.tid) != RAISED; }));
    stop = true;
    WaitForAll();
}

TEST_F(ServiceTest, TakesItsSettingsAtEachScene) {
    Worker& worker = Add([] { BindTo(0); });
    SetPolicy(SCHED_FIFO, 50);
    cfbtAddTids(0, {worker.tid});
    const auto isPutBack = [&](const char* share, milliseconds limit) {
        desktop::SetProperty(cfbt::SHARE_PROPERTY, share);
        StartScene();
        const std::string raised = Of(worker.tid);
        std::atomic<bool> stop{false};
        worker.Start([&] { Spin(stop, [] { std::this_thread::sleep_for(milliseconds(1)); }); });
        const bool isBack = Within(limit, [&] { return Of(worker.tid) != raised; });
        stop = true;
        worker.Do([] {});
        cfbtSceneEnd(0);
        std::this_thread::sleep_for(milliseconds(150));  // The watchdog has gone to sleep then.
        return isBack;
    };
    EXPECT_FALSE(isPutBack("100", milliseconds(400)));
    EXPECT_TRUE(isPutBack("0x14", milliseconds(400)));
    EXPECT_TRUE(isPutBack("", milliseconds(400)));
    Log();
    desktop::SetProperty(cfbt::PRIORITY_PROPERTY, "20");
    StartScene();
    EXPECT_EQ(Of(worker.tid), "fifo 20, reset on fork");
    desktop::SetProperty(cfbt::PRIORITY_PROPERTY, "0x1e");
    StartScene();
    EXPECT_EQ(Of(worker.tid), "fifo 30, reset on fork");
    cfbtSceneEnd(0);
    EXPECT_EQ(Of(worker.tid), ORDINARY);
    EXPECT_EQ(Log(), Lines{});
    for (const char* useless : {"", "99", "0", "high"}) {
        desktop::SetProperty(cfbt::PRIORITY_PROPERTY, useless);
        StartScene();
        EXPECT_EQ(Of(worker.tid), "fifo 1, reset on fork") << useless;
        cfbtSceneEnd(0);
    }
    EXPECT_EQ(Log(),
              (Lines{std::string(cfbt::PRIORITY_PROPERTY) + " is 99, expected 1 to 98: 1 is used",
                     std::string(cfbt::PRIORITY_PROPERTY) + " is 0, expected 1 to 98: 1 is used"}));
}

TEST_F(ServiceTest, HasRoomFor64Threads) {
    // Above the kernel's highest id, so that no fault raises other threads of the machine.
    Tids others(64);
    std::iota(others.begin(), others.end(), 1 << 23);
    const int32_t last = Add().tid;
    EXPECT_EQ(cfbtAddTids(0, others), 0);
    EXPECT_EQ(cfbtAddTids(0, {others[0], others[1], last}), -ENOSPC);
    StartScene();
    EXPECT_EQ(Of(last), ORDINARY);
    EXPECT_EQ(Log().at(0), "1 threads are not boosted: 64 are the most");
    cfbtRemoveTids(0, others);
    EXPECT_EQ(cfbtAddTids(0, {last}), 0);
    EXPECT_EQ(Of(last), RAISED);
}

TEST_F(ServiceTest, IsCalledByAllThreadsAtOnce) {
    const auto repeated = [](const std::function<void()>& call) {
        return [call] {
            for (int i = 0; i < 300; ++i) {
                call();
            }
        };
    };
    for (int i = 0; i < 5; ++i) {
        Worker& adding = Add();
        adding.Start(repeated([&adding] { cfbtAddTids(0, {adding.tid, getpid()}); }));
        Add().Start(repeated([] { cfbtStageEnd(1, 2); }));
    }
    Add().Start(repeated([] {
        StartScene();
        cfbtSceneEnd(0);
    }));
    const int32_t removed = workers[0]->tid;
    Add().Start(repeated([removed] { cfbtRemoveTids(0, {removed}); }));
    WaitForAll();
    for (const auto& worker : workers) {
        EXPECT_EQ(Of(worker->tid), ORDINARY);
    }
    cfbtRemoveTids(0, {getpid()});
}

TEST_F(ServiceTest, CostsNoSystemCallAndNoMemoryWhileFramesCome) {
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "the thread sanitizer makes system calls of its own";
#endif
#endif
    InChild([] {
        std::thread([tids = Tids{1 << 23}] {
            for (;;) {
                cfbtAddTids(0, tids);  // Nobody waits for its lock.
            }
        }).detach();
        std::this_thread::sleep_for(milliseconds(20));
        std::atomic<bool> isDone{false};
        std::thread([&isDone] {
            cfbtAddTids(0, {gettid()});
            StartScene();
            const auto frame = [] {
                cfbtFrameStart(1);
                cfbtStageStart(1, 0, 0, 20);
                cfbtStageEnd(1, 0);
                cfbtNotifyErrOfUser(0, 1, 0, -1);
                cfbtFrameEnd(1);
            };
            frame();  // The thread's first stage end asks for its id.
            const int64_t before = Allocations == nullptr ? 0 : Allocations();
            // From here on the kernel ends the thread at any call but its exit.
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
            for (int i = 0; i < 100'000; ++i) {
                frame();
            }
            isDone = before == (Allocations == nullptr ? 0 : Allocations());
            syscall(SYS_exit, 0);
        }).detach();
        EXPECT_TRUE(Within(std::chrono::seconds(5), [&isDone] { return isDone.load(); }));
    });
}

TEST_F(ServiceTest, BeginsAnewInAForkedProcess) {
    cfbtAddTids(0, {getpid()});
    StartScene();
    cfbtStageEnd(1, 0);
    InChild([] {
        EXPECT_EQ(Of(getpid()), ORDINARY);
        cfbtAddTids(0, {getpid()});
        StartScene();
        for (int stage = 0; stage < 40; ++stage) {
            Compute(milliseconds(10));
            cfbtStageEnd(1, 0);
        }
        EXPECT_EQ(Of(getpid()), RAISED);
    });
    cfbtRemoveTids(0, {getpid()});
}

TEST_F(ServiceTest, LetsTheProcessEndWhileASceneRuns) {
    InChild([] {
        Worker worker;
        cfbtAddTids(0, {worker.tid});
        StartScene();
        const auto block = [] {
            sigset_t ends;
            sigemptyset(&ends);
            sigaddset(&ends, SIGTERM);
            pthread_sigmask(SIG_BLOCK, &ends, nullptr);
        };
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
        block();
        worker.Do(block);
        kill(getpid(), SIGTERM);                         // Not for the watchdog.
        std::exit(testing::Test::HasFailure() ? 1 : 0);  // NOLINT(concurrency-mt-unsafe)
    });
}

// From here on: with less rights than root. The service finds out what the kernel grants.

void BecomeNobody() {
    ASSERT_EQ(setresgid(NOBODY, NOBODY, NOBODY), 0);
    ASSERT_EQ(setresuid(NOBODY, NOBODY, NOBODY), 0);
}

TEST_F(ServiceTest, BoostsNothingWhereTheKernelGrantsNothing) {
    InChild([this] {
        BecomeNobody();
        const int32_t tid = Add([] { SetNice(2); }).tid;
        for (int scene = 0; scene < 2; ++scene) {
            cfbtAddTids(0, {tid});
            EXPECT_EQ(StartScene(), -EPERM);
            cfbtAddTids(0, {tid});
            EXPECT_EQ(Of(tid), "other, nice 2");
            EXPECT_EQ(Of(getpid()), ORDINARY);
        }
        EXPECT_EQ(Log(), Lines{"real-time (Operation not permitted) and nice -19 are refused: "
                               "threads are not boosted"});
    });
}

TEST_F(ServiceTest, NeedsOnlyTheRightToSetPriorities) {
    InChild([this] {
        const auto setRights = [](uint32_t rights) {
            __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
            std::array<__user_cap_data_struct, 2> sets{};
            sets[0].effective = sets[0].permitted = rights;
            EXPECT_EQ(syscall(SYS_capset, &header, sets.data()), 0);
        };
        prctl(PR_SET_KEEPCAPS, 1);
        BecomeNobody();
        setRights(1U << CAP_SYS_NICE);
        const int32_t tid = Add([] { SetNice(2); }).tid;
        cfbtAddTids(0, {tid});
        for (int scene = 0; scene < 2; ++scene) {
            EXPECT_EQ(StartScene(), 0);
            EXPECT_EQ(Of(tid), RAISED);
            cfbtSceneEnd(0);
            EXPECT_EQ(Of(tid), "other, nice 2");
        }
        StartScene();
        workers[0]->Do([&] { setRights(0); });  // Each thread has its own.
        setRights(0);
        EXPECT_EQ(StartScene(), -EPERM);
        EXPECT_EQ(Of(tid), "other, nice 2, reset on fork") << "without the right that stays";
    });
}

TEST_F(ServiceTest, RaisesNiceInAControlGroupWithoutRealTime) {
    const std::string group = "/sys/fs/cgroup/cpu/boost_service_test";
    mkdir(group.c_str(), 0755);
    if (!std::ifstream(group + "/cpu.rt_runtime_us")) {
        rmdir(group.c_str());
        GTEST_SKIP() << "no control groups with a real-time part here";
    }
    InChild([&] {
        const int32_t elsewhere = Add([] { SetPolicy(SCHED_BATCH, 0); }).tid;
        std::ofstream(group + "/tasks") << elsewhere;
        const int32_t here = Add().tid;
        const int32_t changed = Add().tid;
        const int32_t better = Add([] { SetNice(-20); }).tid;
        std::ofstream(group + "/tasks") << changed;
        std::ofstream(group + "/tasks") << better;
        cfbtAddTids(0, {here, elsewhere, changed, better});
        EXPECT_EQ(StartScene(), 0);
        EXPECT_EQ(Of(here), RAISED);
        EXPECT_EQ(Of(elsewhere), NICE);
        EXPECT_EQ(Of(better), "other, nice -20");
        workers[2]->Do([] { SetNice(7); });
        cfbtSceneEnd(0);
        EXPECT_EQ(Of(changed), "other, nice 7, reset on fork");
        EXPECT_EQ(Of(better), "other, nice -20");
        EXPECT_EQ(Of(here), ORDINARY);
        EXPECT_EQ(Of(elsewhere), "batch, nice 0");
        EXPECT_EQ(Log().size(), 1U);
    });
    InChild([&] {
        std::ofstream(group + "/cgroup.procs") << getpid();
        const int32_t tid = Add([] { SetNice(5); }).tid;
        cfbtAddTids(0, {tid});
        EXPECT_EQ(StartScene(), 0);
        EXPECT_EQ(Of(tid), NICE);
        EXPECT_EQ(Of(getpid()), ORDINARY);
        cfbtSceneEnd(0);
        EXPECT_EQ(Of(tid), "other, nice 5");
    });
    EXPECT_TRUE(Within(std::chrono::seconds(5), [&] { return rmdir(group.c_str()) == 0; }));
}

}  // namespace
