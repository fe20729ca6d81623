// A module that is loaded and unloaded together with the library, as a HAL is.

#include "cameraframeboost/tarvocameraframeboost.h"

// Plays the first frame of a scene in `mode` through the loaded configuration. Returns the number
// of stages, or -1 when the scene is refused.
extern "C" int32_t PlayFirstFrame(int32_t mode) {
    TarvoCameraFrameBoost boost;
    boost.TcfbtAddPersistTids("SoloThreadManager", 1);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    if (boost.TcfbtNotifySceneStart(mode) != 0) {
        return -1;
    }
    boost.TcfbtNotifyFrameStart(1);
    boost.TcfbtNotifySceneEnd();
    return TarvoCameraFrameBoost::localConfig.GetStageCount();
}
