// The library in the middle of a camera: many threads, and a service that calls back.

#include <atomic>
#include <random>
#include <thread>

#include "tests/support/contract.h"
#include "tests/support/library_test.h"

namespace {

using desktop::ServiceFunction;

constexpr int32_t STAGES = 5;

void NodeEnd(TarvoCameraFrameBoost& boost, int32_t stage, int64_t frame) {
    boost.TcfbtNotifyNodeEnd(frame, "Node" + std::to_string(stage), 1, 0, true);
}

class PipelineTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        Configure(
            WithStages("0=['Node0',1]\n1=['Node1',1]\n2=['Node2',1]\n3=['Node3',1]\n"
                       "4=['Node4',1]\n"));
    }
};

// What a camera does during a scene: a thread for each stage hands frames on to the next one, other
// threads register threads, others send calls that no HAL should make.
class BusyScene {
  public:
    static constexpr int64_t FRAMES = 300;
    // Thread ids that are registered in a scene.
    static constexpr int32_t TIDS = 2 * 400;
    static constexpr int32_t PERSISTENT_TIDS = TIDS / 16;

    BusyScene(TarvoCameraFrameBoost& facade, int32_t sceneNumber, bool hasNodes)
        : boost(facade), number(sceneNumber), isByNodes(hasNodes) {}

    // `isRunning`: the scene has been started, so that there are frames.
    void Run(bool isRunning) {
        if (isByNodes) {
            NodeEnd(boost, 0, 0);  // Starts frame 1.
        }
        std::vector<std::thread> pipeline;
        std::vector<std::thread> others;
        for (int32_t thread = 0; thread < 2; ++thread) {
            others.emplace_back(
                [this, thread] { RegisterThreads(number * TIDS + thread * TIDS / 2); });
            others.emplace_back([this, thread] { MakeNoise(number * 2 + thread); });
        }
        for (int32_t stage = 0; isRunning && stage < STAGES; ++stage) {
            pipeline.emplace_back([this, stage] { RunStage(stage); });
        }
        std::for_each(pipeline.begin(), pipeline.end(), std::mem_fn(&std::thread::join));
        isOver = true;
        std::for_each(others.begin(), others.end(), std::mem_fn(&std::thread::join));
    }

  private:
    void RunStage(int32_t stage) {
        // The pipeline holds fewer frames than can be tracked.
        const auto& before = done[static_cast<size_t>((stage + STAGES - 1) % STAGES)];
        const int64_t lead = stage == 0 ? 8 : 0;
        for (int64_t frame = 1; frame <= FRAMES; ++frame) {
            while (before + lead < frame) {
                std::this_thread::yield();
            }
            if (isByNodes) {
                NodeEnd(boost, stage, frame);
            } else {
                if (stage == 0) {
                    boost.TcfbtNotifyFrameStart(frame);
                }
                boost.TcfbtNotifyStageStart(stage, frame, 1, 2, "n");
                boost.TcfbtNotifyStageEnd(stage, frame, "n");
                if (stage == STAGES - 1) {
                    boost.TcfbtNotifyFrameEnd(frame);
                }
            }
            done[static_cast<size_t>(stage)] = frame;
        }
    }

    void RegisterThreads(int32_t first) {
        for (int32_t tid = first; tid < first + TIDS / 2; ++tid) {
            if (tid % 16 == 0) {
                boost.TcfbtAddPersistTids("AuxThreadManager", tid);
                boost.TcfbtSetTids();
                boost.TcfbtRemoveTids({tid});
            } else {
                boost.TcfbtAddTempTids(tid);
            }
        }
    }

    void MakeNoise(int32_t seed) {
        constexpr int32_t NO_STAGE = 99;
        std::minstd_rand random(static_cast<uint32_t>(seed + 1));
        // At least 100 times, even when the pipeline does not run.
        for (int32_t times = 0; times < 100 || !isOver; ++times) {
            const int64_t unknown = -static_cast<int64_t>(random() % 50) - 1;
            const int64_t known = done[random() % STAGES];
            boost.TcfbtNotifyStageStart(1, unknown, 0, 0, "noise");
            boost.TcfbtNotifyStageEnd(-1, known, "noise");
            boost.TcfbtNotifyStageStart(NO_STAGE, known, 0, 0, "noise");
            boost.TcfbtNotifyNodeEnd(known, "Node1", 2, 0, true);
            boost.TcfbtNotifyNodeEnd(known, "MCTFE0", 1, 0, true);
            boost.TcfbtNotifyErrorFrame(known, NO_STAGE);
            boost.TcfbtNotifyFrameEnd(unknown);
            if (isByNodes) {
                // One frame is always in flight then, so this one is out of sequence; with the
                // lowest number it is the first to be dropped.
                boost.TcfbtNotifyFrameStart(unknown);
            }
        }
    }

    TarvoCameraFrameBoost& boost;
    const int32_t number;
    const bool isByNodes;
    std::atomic<bool> isOver{false};
    std::array<std::atomic<int64_t>, STAGES> done{};  // The last frame of each stage.
};

TEST_F(PipelineTest, KeepsTheContractWithManyThreads) {
    Contract contract(STAGES, true);
    TarvoCameraFrameBoost boost;
    size_t persistent = 0;
    size_t temporary = 0;
    const auto run = [&](int32_t number, bool hasNodes, bool isRunning) {
        BusyScene(boost, number, hasNodes).Run(isRunning);
        persistent += BusyScene::PERSISTENT_TIDS;
        temporary += BusyScene::TIDS - BusyScene::PERSISTENT_TIDS;
    };
    desktop::SetTraceTags(0xc00);
    int64_t frames = 0;
    int64_t ahead = 0;
    for (int32_t scene = 0; scene < 6; ++scene) {
        LocalConfig::enable = scene % 3 == 2;
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        ASSERT_EQ(boost.TcfbtNotifySceneStart(5), 0);
        const bool hasNodes = scene % 2 == 0;
        run(2 * scene, hasNodes, true);
        frames += BusyScene::FRAMES;
        ahead += hasNodes ? 1 : 0;
        EXPECT_EQ(contract.Count(ServiceFunction::FrameStart), frames + ahead);
        EXPECT_EQ(contract.Count(ServiceFunction::FrameEnd), frames);
        EXPECT_EQ(contract.Count(ServiceFunction::StageStart), frames * STAGES + ahead);
        EXPECT_EQ(contract.Count(ServiceFunction::StageEnd), frames * STAGES);

        boost.TcfbtSetTids();
        EXPECT_EQ(contract.registeredTids.size(), persistent + temporary) << "none is lost";
        EXPECT_EQ(boost.TcfbtNotifySceneEnd(), 0);
        contract.SettleSceneEnd();
        EXPECT_TRUE(contract.registeredTids.empty()) << "none is left";
        EXPECT_TRUE(TarvoCameraFrameBoost::tempTids.empty());
        temporary = 0;
        // The HAL's threads run on for a while; what they register counts for the next scene.
        run(2 * scene + 1, hasNodes, false);
        ASSERT_EQ(contract.violation, "");
    }
    EXPECT_EQ(TarvoCameraFrameBoost::persistTids.size(), persistent);
}

// From inside each of its functions the service calls operations that take each of the locks.
TEST_F(PipelineTest, HoldsNoLockWhileItCallsTheService) {
    class Caller : public Contract {
      public:
        explicit Caller(TarvoCameraFrameBoost& facade) : Contract(STAGES), boost(facade) {}
        void OnEffect(const desktop::Effect& effect) override {
            Contract::OnEffect(effect);
            if (const auto* call = std::get_if<desktop::ServiceCall>(&effect.event);
                call != nullptr && !std::exchange(isInside, true)) {
                places.insert(call->function);
                boost.TcfbtAddPersistTids("AuxThreadManager", 5);
                boost.TcfbtAddTempTids(6);
                boost.TcfbtSetTids();
                boost.TcfbtNotifyFrameEnd(-1);
                isInside = false;
            }
        }
        std::set<ServiceFunction> places;

      private:
        TarvoCameraFrameBoost& boost;
        bool isInside = false;
    };
    TarvoCameraFrameBoost boost;
    Caller caller(boost);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    ASSERT_EQ(boost.TcfbtNotifySceneStart(5), 0);
    for (int64_t frame = 0; frame < 3; ++frame) {
        for (int32_t stage = 0; stage < STAGES; ++stage) {
            NodeEnd(boost, stage, frame);
        }
    }
    NodeEnd(boost, 2, 3);  // Out of order.
    boost.TcfbtNotifySceneEnd();
    EXPECT_EQ(caller.places.size(), desktop::SERVICE_FUNCTION_COUNT);
    EXPECT_EQ(caller.violation, "");
}

// The service ends the scene from inside the call after which a frame would be reported.
TEST_F(PipelineTest, ReportsNothingOnceTheServiceHasEndedTheScene) {
    class Ender : public Contract {
      public:
        explicit Ender(TarvoCameraFrameBoost& facade) : Contract(STAGES), boost(facade) {}
        void OnEffect(const desktop::Effect& effect) override {
            Contract::OnEffect(effect);
            const auto* call = std::get_if<desktop::ServiceCall>(&effect.event);
            if (call != nullptr && call->function == ServiceFunction::FrameStart &&
                openFrames.size() > FrameTracker::DEFAULT_MAX_FRAME_TRACKED) {
                boost.TcfbtNotifySceneEnd();
                SettleSceneEnd();
            }
        }

      private:
        TarvoCameraFrameBoost& boost;
    };
    TarvoCameraFrameBoost boost;
    StartScene(boost);
    Ender ender(boost);
    ender.isStarted = true;
    for (int64_t frame = 1; frame <= FrameTracker::DEFAULT_MAX_FRAME_TRACKED + 1; ++frame) {
        EXPECT_EQ(boost.TcfbtNotifyFrameStart(frame), 0);
    }
    EXPECT_EQ(ender.Count(ServiceFunction::SceneEnd), 1);
    EXPECT_EQ(ender.violation, "");
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(1), -1);
}

}  // namespace
