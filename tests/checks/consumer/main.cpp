#include <cameraframeboost/tarvocameraframeboost.h>

// Succeeds when a scene of the sample configuration starts and a frame goes through.
int main() {
    TarvoCameraFrameBoost boost;
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    const bool isStarted = boost.TcfbtNotifySceneStart(0x8001) == 0;
    boost.TcfbtNotifyNodeEnd(0, "SensorFrontEnd", 3, 0, true);
    const bool isInFlight = boost.TcfbtNotifyFrameEnd(1) == 0 && boost.TcfbtNotifySceneEnd() == 0;
    return isStarted && isInFlight && TarvoCameraFrameBoost::localConfig.GetStageCount() == 5 ? 0
                                                                                              : 1;
}
