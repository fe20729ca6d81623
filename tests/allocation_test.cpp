// Running out of memory: whichever allocation fails, in whichever operation, the process ends at
// once, although the caller catches everything.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "tests/support/library_test.h"

namespace {

int64_t allocationsToGo = -1;  // Until one fails; below 0 while none is to fail.

bool Fails() {
    return allocationsToGo >= 0 && allocationsToGo-- == 0;
}

}  // namespace

void* operator new(size_t size) {
    if (void* memory = Fails() ? nullptr : std::malloc(std::max<size_t>(size, 1))) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}

// Also called before a sanitizer is ready. The C library's header names the parameters otherwise.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" __attribute__((no_sanitize("address", "thread", "undefined"))) void* calloc(
    size_t count, size_t size) noexcept {
    void* memory = allocationsToGo >= 0 && Fails() ? nullptr : std::malloc(count * size);
    return memory == nullptr ? nullptr : std::memset(memory, 0, count * size);
}

namespace {

// What operations are called with. Made beforehand, as only the library's allocations must fail.
struct Hal {
    TarvoCameraFrameBoost boost;
    LocalConfig& config = TarvoCameraFrameBoost::localConfig;
    FrameTracker tracker;
    NodePortInfo info;
    const std::string longName = "a name that no text holds without memory of its own";
    std::string node = "Sensor0_of_RealtimePipeline_MCTFE0";
    std::string manager = "SoloThreadManager";
    const std::vector<int32_t> tids{1, 2, 3};
    bool flag = false;
    int64_t number = -1;
};

// Whether an operation takes memory.
enum Memory {
    NEVER,
    ALWAYS,
    DEBUG,     // While debugging.
    VARIABLE,  // Depends on how long a text the standard library holds without an allocation.
};

struct Operation {
    const char* text;
    void (*call)(Hal&);
    Memory memory;
};

#define OPERATION(memory, ...)                \
    Operation {                               \
#__VA_ARGS__,                               \
            []([[maybe_unused]] Hal& hal) {                          \
                static_assert(noexcept(__VA_ARGS__)); \
                static_cast<void>(__VA_ARGS__);     \
            },                                      \
            memory \
    }

const Operation OPERATIONS[] = {
    OPERATION(ALWAYS, hal.config = LocalConfig()),
    OPERATION(ALWAYS, hal.config.Load()),
    OPERATION(ALWAYS, hal.config.DumpConfig()),
    OPERATION(NEVER, hal.config.GetFrameboostSwitch()),
    OPERATION(NEVER, hal.config.GetNodePort()),
    OPERATION(NEVER, hal.config.GetStageCount()),
    OPERATION(NEVER, hal.config.IsModeSupported(5)),
    OPERATION(NEVER, hal.config.GetAdditionalSupportedWidth()),
    OPERATION(NEVER, hal.config.IsLogEnable()),
    OPERATION(ALWAYS, hal.config.GetNodePortByStage(0, hal.info)),
    OPERATION(ALWAYS, hal.config.UpdateNodeByStage(0, hal.longName)),
    OPERATION(NEVER, hal.config.GetStageByNodeName(hal.longName)),
    OPERATION(NEVER, hal.config.IsNodeNameMatch(hal.longName)),
    OPERATION(NEVER, hal.config.IsStagePortVaild(hal.longName, 1)),

    OPERATION(NEVER, FrameTracker()),
    OPERATION(ALWAYS, hal.tracker.CheckIfCouldStartFrame(2, hal.flag, hal.number)),
    OPERATION(NEVER, hal.tracker.CheckIfCouldEndFrame(1, hal.flag)),
    OPERATION(NEVER, hal.tracker.Clear()),
    OPERATION(NEVER, hal.tracker.CheckStatus(1, 0, false, hal.flag)),
    OPERATION(NEVER, hal.tracker.CheckFrameStatus(1, hal.flag)),
    OPERATION(NEVER, hal.tracker.CheckStagesStatus(1, 2, false, hal.flag)),

    OPERATION(NEVER, TarvoCameraFrameBoost()),
    OPERATION(NEVER, hal.boost.TcfbtSetVersion(1)),
    OPERATION(ALWAYS, hal.boost.TcfbtSetSceneInfo(false, 0, 0)),
    OPERATION(NEVER, hal.boost.GetTcfbtFpsScene(60)),
    OPERATION(ALWAYS, hal.boost.TcfbtNotifySceneStart(5)),
    OPERATION(ALWAYS, hal.boost.TcfbtNotifySceneEnd()),
    OPERATION(ALWAYS, hal.boost.TcfbtNotifyFrameStart(3)),
    OPERATION(NEVER, hal.boost.TcfbtNotifyErrorFrame(1, 0)),
    OPERATION(NEVER, hal.boost.TcfbtNotifyFrameEnd(1)),
    OPERATION(DEBUG, hal.boost.TcfbtNotifyStageStart(12, 1, 0, 0, std::move(hal.node))),
    OPERATION(VARIABLE, hal.boost.TcfbtNotifyStageEnd(11, 2, std::move(hal.node))),
    OPERATION(ALWAYS, hal.boost.TcfbtNotifyNodeEnd(2, std::move(hal.node), 1, 1 << 30, true)),
    OPERATION(VARIABLE, hal.boost.TcfbtRemapStage(true, 1 << 30, std::move(hal.node))),
    OPERATION(ALWAYS, hal.boost.TcfbtAddPersistTids(std::move(hal.manager), 9)),
    OPERATION(ALWAYS, hal.boost.TcfbtAddTempTids(9)),
    OPERATION(ALWAYS, hal.boost.TcfbtSetTids()),
    OPERATION(NEVER, hal.boost.TcfbtRemoveTids(hal.tids)),
    OPERATION(NEVER, hal.boost.DumpInfo()),
};

// Copies would take memory in the caller's code.
static_assert(!std::is_copy_constructible_v<LocalConfig>);

class AllocationTest : public LibraryTest {
  protected:
    enum End { IN_TIME, ENDED, WENT_ON };

    // Calls it in a new process that runs out of memory after `allocations`.
    static End RunOut(void (*call)(Hal&), Hal& hal, int64_t allocations) {
        const pid_t child = fork();
        if (child == 0) {
            const rlimit noCore{0, 0};
            setrlimit(RLIMIT_CORE, &noCore);
            dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
            allocationsToGo = allocations;
            try {
                call(hal);
            } catch (...) {
            }
            _exit(allocationsToGo < 0 ? 1 : 0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) {
            return ENDED;
        }
        return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? IN_TIME : WENT_ON;
    }

    // Begins a frame and the first `events` of its stage events.
    static void Play(TarvoCameraFrameBoost& boost, int64_t frame, int32_t events) {
        boost.TcfbtNotifyFrameStart(frame);
        for (int32_t event = 0; event < events; ++event) {
            if (event % 2 == 0) {
                boost.TcfbtNotifyStageStart(event / 2, frame, 0, 0, {});
            } else {
                boost.TcfbtNotifyStageEnd(event / 2, frame, {});
            }
        }
    }

    void FailEachAllocation(bool isDebug) {
        std::string stages = "0=['Sensor0','1']\n";
        for (int stage = 1; stage <= 12; ++stage) {
            stages += std::to_string(stage) + "=['Filter','" + std::to_string(stage) + "']\n";
        }
        Configure(WithStages(stages));
        if (isDebug) {
            SwitchDebugOn(0x400);
        }
        desktop::SetObserver(nullptr);
        Hal hal;
        hal.boost.TcfbtAddTempTids(7);
        TarvoCameraFrameBoost::tempTids.shrink_to_fit();
        TarvoCameraFrameBoost::persistTids.shrink_to_fit();
        StartScene(hal.boost);
        Play(hal.boost, 1, 24);
        Play(hal.boost, 2, 23);
        hal.tracker.stageCount = 3;
        hal.tracker.CheckIfCouldStartFrame(1, hal.flag, hal.number);
        for (const auto& [text, call, memory] : OPERATIONS) {
            int64_t allocations = 0;
            End end = RunOut(call, hal, allocations);
            while (end == ENDED) {
                end = RunOut(call, hal, ++allocations);
            }
            EXPECT_EQ(end, IN_TIME) << text << " went on after failed allocation " << allocations;
            if (memory != VARIABLE) {
                EXPECT_EQ(allocations != 0, memory == ALWAYS || (memory == DEBUG && isDebug))
                    << text << " takes memory " << allocations << " times";
            }
        }
    }
};

TEST_F(AllocationTest, EachFailureEndsTheProcess) {
    FailEachAllocation(false);
}

TEST_F(AllocationTest, EachFailureEndsTheProcessWhileDebugging) {
    FailEachAllocation(true);
}

}  // namespace
