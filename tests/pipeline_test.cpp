// The library in the middle of a camera: many threads, and a service that calls back.

#include <atomic>
#include <random>
#include <thread>

#include "tests/contract.h"
#include "tests/library_test.h"

namespace {

using desktop::ServiceFunction;

constexpr int32_t STAGES = 5;

class PipelineTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        std::string stages;
        for (int32_t stage = 0; stage < STAGES; ++stage) {
            stages += std::to_string(stage) + "=['" + Node(stage) + "','1']\n";
        }
        Configure(WithStages(stages));
    }

    static std::string Node(int32_t stage) { return "Node" + std::to_string(stage); }

    static void NodeEnd(TarvoCameraFrameBoost& boost, int32_t stage, int64_t frame) {
        boost.TcfbtNotifyNodeEnd(frame, Node(stage) + "_0", 1, 0, true);
    }
};

// A scene of a camera that is all threads: one a stage, which hand frames on, others that register
// threads, others that send what nobody should have sent.
class BusyScene {
  public:
    static constexpr int64_t FRAMES = 300;

    BusyScene(TarvoCameraFrameBoost& facade, int32_t sceneNumber)
        : boost(facade), number(sceneNumber), isByNodes(number % 2 == 0) {}

    // From the scene's start to its end; with `isRunning` false, as if it had not been started.
    void Run(bool isRunning) {
        if (isByNodes) {
            NodeEnd(0, 0);  // Opens frame 1.
        }
        std::vector<std::thread> others;
        for (int32_t thread = 0; thread < 2; ++thread) {
            others.emplace_back([this, thread] { RegisterThreads(thread); });
            others.emplace_back([this, thread] { MakeNoise(thread); });
        }
        std::vector<std::thread> pipeline;
        for (int32_t stage = 0; isRunning && stage < STAGES; ++stage) {
            pipeline.emplace_back([this, stage] { RunStage(stage); });
        }
        for (std::thread& thread : pipeline) {
            thread.join();
        }
        isOver = true;
        for (std::thread& thread : others) {
            thread.join();
        }
    }

    // How many of each kind of thread id were registered, from which number on.
    static constexpr int32_t TIDS = 400;
    int32_t FirstTid(int32_t thread) const { return (number * 2 + thread) * TIDS; }

    bool isByNodeEnds() const { return isByNodes; }

  private:
    void NodeEnd(int32_t stage, int64_t frame) {
        boost.TcfbtNotifyNodeEnd(frame, "Node" + std::to_string(stage), 1, 0, true);
    }

    void RunStage(int32_t stage) {
        for (int64_t frame = 1; frame <= FRAMES; ++frame) {
            // A pipeline holds some frames, no more than are tracked.
            while (stage == 0 ? done[STAGES - 1] + 8 < frame
                              : done[static_cast<size_t>(stage) - 1] < frame) {
                std::this_thread::yield();
            }
            if (isByNodes) {
                NodeEnd(stage, frame);
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

    void RegisterThreads(int32_t thread) {
        const int32_t first = FirstTid(thread);
        for (int32_t tid = first; tid < first + TIDS; ++tid) {
            if (tid % 16 == 0) {
                boost.TcfbtAddPersistTids("AuxThreadManager", tid);
            } else {
                boost.TcfbtAddTempTids(tid);
            }
            if (tid % 8 == 0) {
                boost.TcfbtSetTids();
                boost.TcfbtRemoveTids({tid});
            }
        }
    }

    void MakeNoise(int32_t thread) {
        std::minstd_rand random(static_cast<uint32_t>(number * 2 + thread + 1));
        constexpr int32_t NO_STAGE_OF_OURS = 99;
        // For some time even if there is nothing else.
        for (int32_t times = 0; times < 500 || !isOver; ++times) {
            const auto unknown = -static_cast<int64_t>(random() % 50) - 1;
            const auto known = static_cast<int64_t>(done[random() % STAGES]);
            switch (random() % 7) {
                case 0:
                    boost.TcfbtNotifyStageStart(1, unknown, 0, 0, "noise");
                    break;
                case 1:
                    boost.TcfbtNotifyStageEnd(-1, known, "noise");
                    break;
                case 2:
                    boost.TcfbtNotifyStageStart(NO_STAGE_OF_OURS, known, 0, 0, "noise");
                    break;
                case 3:
                    boost.TcfbtNotifyNodeEnd(known, "Node1", 2, 0, true);
                    break;
                case 4:
                    boost.TcfbtNotifyNodeEnd(known, "MCTFE0", 1, 0, true);
                    break;
                case 5:
                    boost.TcfbtNotifyErrorFrame(known, NO_STAGE_OF_OURS);
                    break;
                default:
                    // Where frames are opened ahead one is always in flight, so this is out of
                    // sequence; the oldest of all, it is the first to be pushed out as well.
                    if (isByNodes) {
                        boost.TcfbtNotifyFrameStart(unknown);
                    } else {
                        boost.TcfbtNotifyFrameEnd(unknown);
                    }
            }
        }
    }

    TarvoCameraFrameBoost& boost;
    const int32_t number;
    const bool isByNodes;
    std::atomic<bool> isOver{false};
    std::array<std::atomic<int64_t>, STAGES> done{};  // The frame that a stage has finished last.
};

TEST_F(PipelineTest, HoldsWithManyThreads) {
    Contract contract(STAGES, true);
    TarvoCameraFrameBoost boost;
    std::set<int32_t> temporary;
    std::set<int32_t> persistent;
    for (int32_t scene = 0; scene < 12; ++scene) {
        // With the log and the counters every third time.
        desktop::SetTraceTags(0xc00);
        LocalConfig::enable = scene % 3 == 2;
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        ASSERT_EQ(boost.TcfbtNotifySceneStart(5), 0);
        std::array<int64_t, 4> before{};
        const auto count = [&](size_t i) {
            return contract.Count(static_cast<ServiceFunction>(2 + i));
        };
        for (size_t i = 0; i < before.size(); ++i) {
            before[i] = count(i);
        }

        BusyScene busy(boost, scene);
        busy.Run(true);
        const int64_t ahead = busy.isByNodeEnds() ? 1 : 0;
        EXPECT_EQ(count(0) - before[0], BusyScene::FRAMES + ahead);
        EXPECT_EQ(count(1) - before[1], BusyScene::FRAMES);
        EXPECT_EQ(count(2) - before[2], BusyScene::FRAMES * STAGES + ahead);
        EXPECT_EQ(count(3) - before[3], BusyScene::FRAMES * STAGES);

        for (int32_t thread = 0; thread < 2; ++thread) {
            for (int32_t i = 0; i < BusyScene::TIDS; ++i) {
                const int32_t tid = busy.FirstTid(thread) + i;
                (tid % 16 == 0 ? persistent : temporary).insert(tid);
            }
        }
        std::set<int32_t> all = persistent;
        all.insert(temporary.begin(), temporary.end());
        boost.TcfbtSetTids();
        EXPECT_EQ(contract.registeredTids, all) << "no thread is lost";
        EXPECT_EQ(boost.TcfbtNotifySceneEnd(), 0);
        contract.SettleSceneEnd();
        EXPECT_TRUE(contract.registeredTids.empty()) << "none is left";
        EXPECT_TRUE(TarvoCameraFrameBoost::tempTids.empty());
        temporary.clear();

        // The HAL's threads go on for a while; what they register is for the next scene.
        BusyScene afterwards(boost, 100 + scene);
        afterwards.Run(false);
        for (int32_t thread = 0; thread < 2; ++thread) {
            for (int32_t i = 0; i < BusyScene::TIDS; ++i) {
                const int32_t tid = afterwards.FirstTid(thread) + i;
                (tid % 16 == 0 ? persistent : temporary).insert(tid);
            }
        }
        ASSERT_EQ(contract.violation, "");
    }
    EXPECT_EQ(TarvoCameraFrameBoost::persistTids.size(), persistent.size());
}

// The service calls back from inside each of its functions.
TEST_F(PipelineTest, HoldsWhenTheServiceCallsBack) {
    class Caller : public Contract {
      public:
        using Contract::Contract;
        void OnEffect(const desktop::Effect& effect) override {
            Contract::OnEffect(effect);
            const auto* call = std::get_if<desktop::ServiceCall>(&effect.event);
            if (call != nullptr && call->function == from && !isInside) {
                isInside = true;
                action();
                ++times;
                isInside = false;
            }
        }
        ServiceFunction from = ServiceFunction::SceneStart;
        std::function<void()> action;
        int times = 0;
        bool isInside = false;
    };
    const auto record = [](TarvoCameraFrameBoost& boost) {
        boost.TcfbtAddTempTids(7);
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        boost.TcfbtNotifySceneStart(5);
        for (int64_t frame = 0; frame < 10; ++frame) {
            for (int32_t stage = 0; stage < STAGES; ++stage) {
                NodeEnd(boost, stage, frame);
            }
        }
        NodeEnd(boost, 2, 10);  // Out of order.
        boost.TcfbtSetTids();
        return boost.TcfbtNotifySceneEnd();
    };
    TarvoCameraFrameBoost untouched;
    record(untouched);
    const std::string clean = Calls();

    for (int32_t function = 0; function < 9; ++function) {
        for (int32_t what = 0; what < 3; ++what) {
            TarvoCameraFrameBoost boost;
            int64_t frame = 1000;
            int32_t tid = 1000;
            bool hasEnded = false;
            {
                Caller caller(STAGES);
                caller.from = static_cast<ServiceFunction>(function);
                caller.action = [&] {
                    if (what == 0) {
                        boost.TcfbtNotifyFrameStart(++frame);
                        NodeEnd(boost, 0, frame);
                        boost.TcfbtNotifyFrameEnd(frame);
                    } else if (what == 1) {
                        boost.TcfbtAddTempTids(++tid);
                        boost.TcfbtAddPersistTids("AuxThreadManager", 5);
                        boost.TcfbtSetTids();
                    } else if (caller.isStarted && !hasEnded) {
                        hasEnded = true;
                        boost.TcfbtNotifySceneEnd();
                    }
                };
                record(boost);
                caller.SettleSceneEnd();
                EXPECT_GT(caller.times, 0) << function;
                EXPECT_EQ(caller.violation, "") << function << ", " << what;
            }
            // What was registered after the threads had been taken back is taken back next time.
            desktop::SetObserver(&recorder);
            boost.TcfbtSetSceneInfo(true, 3840, 60);
            boost.TcfbtNotifySceneStart(5);
            boost.TcfbtNotifySceneEnd();
            TarvoCameraFrameBoost::persistTids.clear();
            Calls();
            record(boost);
            EXPECT_EQ(Calls(), clean) << function << ", " << what;
        }
    }
}

}  // namespace
