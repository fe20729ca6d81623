// What the library adds to a frame, a scene and a node that it ignores, compared with the floor: as
// many service calls and uncontended locks of the same kind, and nothing else.

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "benchmarks/floor.h"
#include "cameraframeboost/tarvocameraframeboost.h"
#include "host/desktop.h"
#include "platform/boost_service.h"

namespace {

constexpr int64_t FRAMES = 1000;  // In each turn.

// Names of 5 to 40 characters, as pipelines have them: the configured one and the one that a HAL
// reports.
const std::pair<const char*, const char*> NODES[] = {
    {"SensorFrontEnd", "SensorFrontEnd0"},
    {"MCTFE0_cam", "MCTFE0_cam0"},
    {"TMap0", "TMap0"},
    {"VideoStabilizer", "RealtimePipeline_VideoStabilizer_Preview"},
    {"EncoderFeed", "EncoderFeed_4K60"},
    {"NoiseReduction", "TemporalNoiseReduction_1"},
    {"LensShading", "LensShadingCorrection"},
    {"ColorSpace", "ColorSpaceConverter_P010"},
    {"Sharp", "Sharp"},
    {"FaceBeauty", "PostProcessing_FaceBeauty"},
    {"DualFusion", "DualFusion_Wide_Tele"},
    {"Hdr10Plus", "Hdr10PlusMetadata"},
    {"Watermark", "Watermark_Overlay_Node"},
    {"Rotator", "Rotator_0"},
    {"Downscaler", "Downscaler_1080p_for_Preview"},
    {"VideoSink", "VideoSink_MediaRecorder_Surface"},
};

// A recording with the first of these nodes, as HALs report it: one node end for each stage.
class Recording {
  public:
    explicit Recording(int32_t stages, bool isDebug = false) : stageCount(stages) {
        std::string table =
            "[TarvoCameraFrameBoostConfig]\n"
            "cameraFrameBoostEnable = true\n"
            "SupportOperationModeList = [1]\n"
            "[TarvoCameraFrameBoostConfig.stage]\n";
        for (int32_t stage = 0; stage < stages; ++stage) {
            table += std::to_string(stage) + " = ['" + NODES[stage].first + "', 1, 2]\n";
            names.emplace_back(NODES[stage].second);
        }
        desktop::Reset();
        desktop::SetLogToStderr(false);
        desktop::SetTraceTags(isDebug ? 0x400 : 0);
        desktop::LoadConfiguration(table, "benchmark");
        TarvoCameraFrameBoost::localConfig = LocalConfig();
        LocalConfig::enable = isDebug;
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        boost.TcfbtNotifySceneStart(1);
        NodeEnd(0);
    }
    ~Recording() {
        boost.TcfbtNotifySceneEnd();
        LocalConfig::enable = false;
    }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    void NodeEnd(int32_t stage) {
        boost.TcfbtNotifyNodeEnd(frame, names[static_cast<size_t>(stage)], 1, 0, true);
    }

    void Frames() {
        for (int64_t i = 0; i < FRAMES; ++i) {
            ++frame;
            for (int32_t stage = 0; stage < stageCount; ++stage) {
                NodeEnd(stage);
            }
            if (stageCount == 1) {
                boost.TcfbtNotifyFrameEnd(frame);  // With one stage no node end does that.
            }
        }
    }

    // What the HAL does: each operation takes a copy of the node's name.
    void CopyNames() const {
        for (int64_t i = 0; i < FRAMES; ++i) {
            for (const std::string& name : names) {
                std::string copy(name);
                benchmark::DoNotOptimize(copy);
            }
        }
    }

    TarvoCameraFrameBoost boost;
    std::vector<std::string> names;
    int64_t frame = 0;

  private:
    const int32_t stageCount;
};

void FloorOfLocks(std::shared_mutex& mutex, int times) {
    for (int i = 0; i < times; ++i) {
        const std::lock_guard<std::shared_mutex> lock(mutex);
    }
}

// A stage's start and end take two locks each.
void FloorOfStages(std::shared_mutex& mutex, int32_t stages, int32_t frame) {
    for (int32_t stage = 0; stage < stages; ++stage) {
        FloorOfLocks(mutex, 2);
        cfbtStageStart(frame, stage, 0, 20);
        FloorOfLocks(mutex, 2);
        cfbtStageEnd(frame, stage);
    }
}

// A frame's start and end take one lock each. With a single stage, stage 1 is started too, although
// it does not exist: one more lock and a report.
void FloorOfFrame(std::shared_mutex& mutex, int32_t stages, int32_t frame) {
    FloorOfLocks(mutex, 1);
    cfbtFrameStart(frame);
    FloorOfStages(mutex, stages, frame);
    if (stages == 1) {
        FloorOfLocks(mutex, 1);
        cfbtNotifyErrOfUser(0, frame, 1, -1);
    }
    FloorOfLocks(mutex, 1);
    cfbtFrameEnd(frame);
}

template <typename Work>
int64_t ServiceCallsOf(Work work) {
    const auto count = [] {
        int64_t calls = 0;
        for (size_t function = 0; function < desktop::SERVICE_FUNCTION_COUNT; ++function) {
            calls += desktop::ServiceCallCount(static_cast<desktop::ServiceFunction>(function));
        }
        return calls;
    };
    const int64_t before = count();
    work();
    return count() - before;
}

void Frame(benchmark::State& state, bool isDebug) {
    const auto stages = static_cast<int32_t>(state.range(0));
    Recording recording(stages, isDebug);
    std::shared_mutex mutex;
    const auto work = [&recording] { recording.Frames(); };
    const auto floor = [&mutex, stages] {
        for (int32_t frame = 0; frame < FRAMES; ++frame) {
            FloorOfFrame(mutex, stages, frame);
        }
    };
    const int64_t shown = desktop::LogLineCount() + desktop::CounterUpdateCount();
    if (ServiceCallsOf(work) != ServiceCallsOf(floor) ||
        (desktop::LogLineCount() + desktop::CounterUpdateCount() != shown) != isDebug) {
        state.SkipWithError("not all events were forwarded, or logged");
        return;
    }
    Measure(state, FRAMES, work, floor, [&recording] { recording.CopyNames(); });
}
BENCHMARK_CAPTURE(Frame, quiet, false)->Arg(1)->Arg(3)->Arg(5)->Arg(8)->Arg(16)->UseManualTime();
BENCHMARK_CAPTURE(Frame, debug, true)->Arg(5)->UseManualTime();

// A log that makes a system call for each line, as Android's does, though a cheap one.
class DiscardedLog : public desktop::Observer {
  public:
    DiscardedLog() { desktop::SetObserver(this); }
    ~DiscardedLog() override {
        desktop::SetObserver(nullptr);
        close(file);
    }
    DiscardedLog(const DiscardedLog&) = delete;
    DiscardedLog& operator=(const DiscardedLog&) = delete;

    void OnEffect(const desktop::Effect& effect) override {
        if (const auto* line = std::get_if<desktop::LogLine>(&effect.event)) {
            benchmark::DoNotOptimize(write(file, line->text.data(), line->text.size()));
        }
    }

  private:
    const int file = open("/dev/null", O_WRONLY | O_CLOEXEC);
};

// Several threads start frames of one facade in order. No frame is ended: the oldest is dropped and
// reported. With the debug switch on, the floor is still that of the switch off.
void Threads(benchmark::State& state, bool isDebug) {
    constexpr int32_t STAGES = 5;
    const auto count = static_cast<size_t>(state.range(0));
    Recording recording(STAGES);
    std::mutex order;
    std::shared_mutex mutex;
    const auto onThreads = [count](const auto& frames) {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < count; ++i) {
            threads.emplace_back(frames);
        }
        std::for_each(threads.begin(), threads.end(), std::mem_fn(&std::thread::join));
    };
    TarvoCameraFrameBoost& boost = recording.boost;
    int64_t newest = 1;
    const auto work = [&] {
        const auto log = isDebug ? std::make_unique<DiscardedLog>() : nullptr;
        LocalConfig::enable = isDebug;
        onThreads([&] {
            for (int64_t i = 0; i < FRAMES; ++i) {
                std::unique_lock<std::mutex> inOrder(order);
                const int64_t frame = ++newest;
                boost.TcfbtNotifyFrameStart(frame);
                inOrder.unlock();
                for (int32_t stage = 0; stage < STAGES; ++stage) {
                    boost.TcfbtNotifyStageStart(stage, frame, 0, 20, {});
                    boost.TcfbtNotifyStageEnd(stage, frame, {});
                }
            }
        });
    };
    const auto floor = [&] {
        onThreads([&] {
            for (int32_t frame = 0; frame < FRAMES; ++frame) {
                std::unique_lock<std::mutex> inOrder(order);
                FloorOfLocks(mutex, 1);
                cfbtFrameStart(frame);
                cfbtNotifyErrOfUser(0, frame, -1, -1);
                inOrder.unlock();
                FloorOfStages(mutex, STAGES, frame);
            }
        });
    };
    Measure(state, FRAMES * state.range(0), work, floor);
}
BENCHMARK_CAPTURE(Threads, quiet, false)->Arg(1)->Arg(2)->Arg(4)->UseManualTime();
BENCHMARK_CAPTURE(Threads, debug, true)->Arg(1)->Arg(2)->UseManualTime();

// A node end that is ignored, compared with one that is forwarded, on average over a frame.
void IgnoredNode(benchmark::State& state) {
    constexpr int32_t STAGES = 5;
    Recording recording(STAGES);
    recording.names.emplace_back("JpegEncoder_1");
    const auto work = [&] {
        for (int64_t i = 0; i < FRAMES * STAGES; ++i) {
            recording.NodeEnd(STAGES);
        }
    };
    Measure(state, FRAMES * STAGES, work, [&recording] { recording.Frames(); });
}
BENCHMARK(IgnoredNode)->UseManualTime();

// The start and the end of a scene with some thread ids.
void Scene(benchmark::State& state) {
    Recording recording(5);
    TarvoCameraFrameBoost& boost = recording.boost;
    boost.TcfbtNotifySceneEnd();
    std::vector<int32_t> tids;
    tids.reserve(static_cast<size_t>(state.range(0)));
    for (int32_t tid = 0; tid < state.range(0); ++tid) {
        tids.push_back(tid * 7919 % 32768);
    }
    TarvoCameraFrameBoost::persistTids = tids;
    std::mutex mutex;
    std::shared_mutex sharedMutex;
    const auto work = [&boost] {
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        boost.TcfbtNotifySceneStart(1);
        boost.TcfbtNotifySceneEnd();
    };
    const auto floor = [&] {
        for (int i = 0; i < 5; ++i) {
            const std::lock_guard<std::mutex> lock(mutex);
        }
        { const std::lock_guard<std::shared_mutex> lock(sharedMutex); }
        cfbtAddTids(0, tids);
        cfbtSceneStart(0, 1, 0);
        cfbtSceneEnd(0);
        cfbtRemoveTids(0, tids);
    };
    Measure(state, 1, work, floor);
    TarvoCameraFrameBoost::persistTids.clear();
}
BENCHMARK(Scene)->Arg(16)->Arg(64)->Arg(256)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
