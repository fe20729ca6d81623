// An hour of 4K video at 60 frames per second, with lost frames and stages out of order: what the
// service is told, and how much memory is used.

#include <unistd.h>

#include <fstream>

#include "tests/support/allocations.h"
#include "tests/support/contract.h"
#include "tests/support/library_test.h"

namespace {

using desktop::ServiceFunction;

constexpr size_t STAGES = 5;

class EnduranceTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        desktop::Reset();  // The sample configuration.
        desktop::SetLogToStderr(false);
        TarvoCameraFrameBoost::localConfig = LocalConfig();
    }

    static int64_t ResidentKilobytes() {
        int64_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages >> pages;
        return pages * sysconf(_SC_PAGESIZE) / 1024;
    }

    // Frames 0 to `last`, of which 0 only starts frame 1. One in 1000 never leaves the first node,
    // so that it and the next two are not boosted. One in 1000 leaves the third node before the
    // second.
    void Play(int64_t last) {
        const std::pair<const char*, int32_t> nodes[STAGES] = {{"SensorFrontEnd0", 3},
                                                               {"MCTFE0_cam0", 1},
                                                               {"ToneMapper", 8},
                                                               {"VideoStabilizer", 0},
                                                               {"EncoderFeed", 10}};
        for (int64_t frame = 0; frame <= last; ++frame) {
            for (size_t stage = 0; stage < STAGES && frame % 1000 != 100; ++stage) {
                const bool isSwapped = frame % 1000 == 500 && (stage == 1 || stage == 2);
                const auto& [node, port] = nodes[isSwapped ? 3 - stage : stage];
                boost.TcfbtNotifyNodeEnd(frame, node, port, 0, true);
            }
        }
    }

    TarvoCameraFrameBoost boost;
};

TEST_F(EnduranceTest, PlaysAnHourWithoutDrift) {
    constexpr int64_t SCENES = 6;
    constexpr int64_t FRAMES = 36000;  // Ten minutes.
    Contract contract(STAGES);
    boost.TcfbtAddPersistTids("SoloThreadManager", 1);
    int64_t residentAtFirst = 0;
    for (int32_t scene = 0; scene < SCENES; ++scene) {
        const int32_t tid = 100 + scene;
        boost.TcfbtAddTempTids(tid);
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        ASSERT_EQ(boost.TcfbtNotifySceneStart(0x8001), 0);
        Play(FRAMES);
        ASSERT_EQ(contract.registeredTids, (std::set<int32_t>{1, tid}));
        ASSERT_EQ(boost.TcfbtNotifySceneEnd(), 0);
        contract.SettleSceneEnd();
        ASSERT_EQ(contract.violation, "");
        ASSERT_EQ(TarvoCameraFrameBoost::persistTids.size(), 1U);
        ASSERT_EQ(TarvoCameraFrameBoost::tempTids.size(), 0U);
        residentAtFirst = scene == 0 ? ResidentKilobytes() : residentAtFirst;
    }
    EXPECT_LE(ResidentKilobytes() - residentAtFirst, 256) << "in kilobytes";

    EXPECT_EQ(contract.Count(ServiceFunction::FrameEnd), SCENES * FRAMES / 1000 * (1000 - 3 - 1));
}

TEST_F(EnduranceTest, TakesNothingFromTheHeapForAFrame) {
    desktop::SetObserver(nullptr);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    boost.TcfbtNotifySceneStart(0x8001);
    // Until the table has been full.
    for (int64_t frame = 1; frame < 30; ++frame) {
        boost.TcfbtNotifyFrameStart(frame);
    }
    const int64_t before = Allocations();
    Play(3500);
    EXPECT_EQ(Allocations() - before, 0);
    EXPECT_GT(desktop::ServiceCallCount(ServiceFunction::FrameEnd), 3000);
}

}  // namespace
