// An hour of 4K video at 60 frames per second, with all that goes wrong in an hour.

#include <unistd.h>

#include <fstream>

#include "tests/contract.h"
#include "tests/library_test.h"

namespace {

using desktop::ServiceFunction;

class EnduranceTest : public LibraryTest {
  protected:
    static int64_t ResidentKilobytes() {
        int64_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages >> pages;
        return pages * sysconf(_SC_PAGESIZE) / 1024;
    }
};

TEST_F(EnduranceTest, PlaysAnHourWithoutDrift) {
    constexpr int64_t SCENES = 6;
    constexpr int64_t FRAMES = 36000;  // Ten minutes.
    constexpr int32_t STAGES = 5;
    desktop::Reset();  // The sample configuration.
    desktop::SetLogToStderr(false);
    TarvoCameraFrameBoost::localConfig = LocalConfig();
    const std::pair<const char*, int32_t> nodes[STAGES] = {{"SensorFrontEnd0", 3},
                                                           {"MCTFE0_cam0", 1},
                                                           {"ToneMapper", 8},
                                                           {"VideoStabilizer", 0},
                                                           {"EncoderFeed", 10}};
    Contract contract(STAGES);
    TarvoCameraFrameBoost boost;
    boost.TcfbtAddPersistTids("SoloThreadManager", 1);

    // Every 997th frame never leaves the first node. It was begun, and is pushed out and reported
    // later; the frame after it is not known and the one after that out of sequence. Every 991st
    // is through the third node before it is through the second: it is reported and never ends.
    // Both are rare enough not to meet.
    const auto isDropped = [](int64_t frame) { return frame % 997 == 0; };
    const auto isDisordered = [](int64_t frame) { return frame % 991 == 10; };
    int64_t dropped = 0;
    int64_t disordered = 0;
    int64_t residentAtFirst = 0;
    for (int64_t scene = 0; scene < SCENES; ++scene) {
        boost.TcfbtAddTempTids(static_cast<int32_t>(100 + scene));
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        ASSERT_EQ(boost.TcfbtNotifySceneStart(0x8001), 0);
        for (int64_t newest = 0; newest < FRAMES + STAGES; ++newest) {
            for (int64_t order = STAGES - 1; order >= 0; --order) {
                // Each frame is a stage behind the one after it.
                const int64_t frame = newest - order;
                if (frame < 0 || frame > FRAMES || (frame == 0 && order > 0) ||
                    (frame != 0 && isDropped(frame))) {
                    continue;
                }
                const bool isSwapped = isDisordered(frame) && (order == 1 || order == 2);
                const auto& [node, port] =
                    nodes[static_cast<size_t>(isSwapped ? 3 - order : order)];
                boost.TcfbtNotifyNodeEnd(frame, node, port, 0, true);
            }
            if (newest % 3600 == 0) {
                boost.TcfbtSetTids();
            }
        }
        for (int64_t frame = 1; frame <= FRAMES; ++frame) {
            dropped += isDropped(frame) ? 1 : 0;
            disordered += isDisordered(frame) ? 1 : 0;
        }
        ASSERT_EQ(contract.registeredTids,
                  (std::set<int32_t>{1, static_cast<int32_t>(100 + scene)}));
        ASSERT_EQ(boost.TcfbtNotifySceneEnd(), 0);
        contract.SettleSceneEnd();
        ASSERT_EQ(contract.violation, "");
        ASSERT_EQ(TarvoCameraFrameBoost::persistTids.size(), 1U);
        ASSERT_EQ(TarvoCameraFrameBoost::tempTids.size(), 0U);
        if (scene == 0) {
            residentAtFirst = ResidentKilobytes();
        }
    }
    EXPECT_LE(ResidentKilobytes() - residentAtFirst, 256) << "in kilobytes";

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

}  // namespace
