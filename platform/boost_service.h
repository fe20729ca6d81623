// The boost service, a library named libtarvo_cfbt: the device's own, which is closed, or the one
// in service/. It does the scheduling; libtarvocameraframeboost only reports the camera's scenes,
// frames and stages to it.
//
// Every function runs on the caller's thread and returns a status, 0 for success. Only the service
// knows what other values mean. Frame numbers are the low 32 bits of the HAL's 64-bit frame
// numbers; `scene` is the kind of scene, 0 for one that qualifies for boosting, 1 for none.

#pragma once

#include <cstdint>
#include <vector>

extern "C" {

// Starts a scene. `fpsClass` is 0 for 30, 1 for 60, 2 for 90, 3 for 144 frames per second and 4
// for any other rate; `version` is the HAL's interface version. Only status 0 starts the scene.
int32_t cfbtSceneStart(int32_t scene, int32_t fpsClass, int32_t version);
int32_t cfbtSceneEnd(int32_t scene);

int32_t cfbtFrameStart(int32_t frameNumber);
int32_t cfbtFrameEnd(int32_t frameNumber);

// `stage` counts from 0; only the service knows what `stageArg1` and `stageArg2` mean.
int32_t cfbtStageStart(int32_t frameNumber, int32_t stage, int32_t stageArg1, int32_t stageArg2);
int32_t cfbtStageEnd(int32_t frameNumber, int32_t stage);

// The list belongs to the caller and must not be used after the call.
int32_t cfbtAddTids(int32_t scene, const std::vector<int32_t>& tids);
int32_t cfbtRemoveTids(int32_t scene, const std::vector<int32_t>& tids);

// Reports a frame as bad. `stage` is where the error was noticed, -1 when it concerns the whole
// frame; `errorStage` is always -1 from this library.
int32_t cfbtNotifyErrOfUser(int32_t scene, int32_t frameNumber, int32_t stage, int32_t errorStage);

}  // extern "C"
