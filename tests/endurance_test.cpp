// An hour of 4K video at 60 frames per second, with all that goes wrong in an hour: what the
// service is told of it, and what it takes of memory.

#include <unistd.h>

#include <fstream>

#include "tests/support/allocations.h"
#include "tests/support/contract.h"
#include "tests/support/library_test.h"

namespace {

using desktop::ServiceFunction;

constexpr int32_t STAGES = 5;

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

    // Every 997th frame never leaves the first node. It was begun, and is pushed out and reported
    // later; the frame after it is not known and the one after that out of sequence. Every 991st is
    // through the third node before it is through the second: it is reported and never ends. Both
    // are rare enough not to meet.
    static bool IsDropped(int64_t frame) { return frame != 0 && frame % 997 == 0; }
    static bool IsDisordered(int64_t frame) { return frame % 991 == 10; }

    // Frames 0 to `last`, of which 0 only opens the one after it; each is a stage behind that.
    void Play(int64_t last) {
        const std::pair<const char*, int32_t> nodes[STAGES] = {{"SensorFrontEnd0", 3},
                                                               {"MCTFE0_cam0", 1},
                                                               {"ToneMapper", 8},
                                                               {"VideoStabilizer", 0},
                                                               {"EncoderFeed", 10}};
        for (int64_t newest = 0; newest < last + STAGES; ++newest) {
            for (int64_t stage = STAGES - 1; stage >= 0; --stage) {
                const int64_t frame = newest - stage;
                if (frame < (stage == 0 ? 0 : 1) || frame > last || IsDropped(frame)) {
                    continue;
                }
                const bool isSwapped = IsDisordered(frame) && (stage == 1 || stage == 2);
                const auto& [node, port] =
                    nodes[static_cast<size_t>(isSwapped ? 3 - stage : stage)];
                boost.TcfbtNotifyNodeEnd(frame, node, port, 0, true);
            }
            if (newest % 3600 == 3599) {
                boost.TcfbtSetTids();
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

    int64_t dropped = 0;
    int64_t disordered = 0;
    for (int64_t frame = 1; frame <= FRAMES; ++frame) {
        dropped += IsDropped(frame) ? SCENES : 0;
        disordered += IsDisordered(frame) ? SCENES : 0;
    }
    // A scene begins one frame more than it has, which its end takes away, and with it the dropped
    // frames that there was still room for beside those on their way, one a stage.
    const int64_t begun = SCENES * (FRAMES + 1) - 2 * dropped;
    const int64_t ended = begun - SCENES - dropped - disordered;
    const int64_t kept = SCENES * (FrameTracker::DEFAULT_MAX_FRAME_TRACKED - STAGES);
    EXPECT_EQ(contract.Count(ServiceFunction::FrameStart), begun);
    EXPECT_EQ(contract.Count(ServiceFunction::FrameEnd), ended);
    EXPECT_EQ(contract.Count(ServiceFunction::StageStart),
              STAGES * ended + SCENES + dropped + 2 * disordered);
    EXPECT_EQ(contract.Count(ServiceFunction::StageEnd), STAGES * ended + disordered);
    EXPECT_EQ(contract.Count(ServiceFunction::NotifyErrOfUser), dropped - kept + disordered);
}

TEST_F(EnduranceTest, TakesNothingFromTheHeapWhileAFrameIsOnItsWay) {
    desktop::SetObserver(nullptr);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    boost.TcfbtNotifySceneStart(0x8001);
    // Until as many frames have been in flight as there may be.
    for (int64_t frame = 1; frame < 30; ++frame) {
        boost.TcfbtNotifyFrameStart(frame);
    }
    const int64_t before = Allocations();
    Play(3500);
    EXPECT_EQ(Allocations() - before, 0);
    EXPECT_GT(desktop::ServiceCallCount(ServiceFunction::FrameEnd), 3000);
}

}  // namespace
