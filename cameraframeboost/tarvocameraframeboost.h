// Camera frame boost: tells the boost service what the camera is doing, so that the CPU scheduler
// wakes up in time for 4K video at 60 frames per second.
//
// This is the one header that a camera HAL includes; it needs nothing of the platform to compile.

#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "cameraframeboost/tarvocameraframeboostutils.h"

// What a camera HAL calls while a camera is open.
//
// The HAL makes one object per open camera and calls, in this order:
//
//     TcfbtSetVersion                             once
//     TcfbtAddPersistTids, TcfbtAddTempTids       for its threads, before the scene begins
//     TcfbtSetSceneInfo, TcfbtNotifySceneStart    when a scene begins
//     TcfbtNotifyNodeEnd (or the frame and stage  for every frame
//         operations, for HALs that know them)
//     TcfbtNotifySceneEnd                         when the scene ends
//
// A scene is boosted when it is video of 3840 pixels (or the configured additional width) at 60
// frames per second, in an operation mode that the configuration lists, with boosting switched on,
// and the boost service accepts it. Everything else is refused, and then costs next to nothing.
//
// Results. Operations of a running scene return -1, with nothing done, when none runs. Frame and
// stage operations otherwise return 0 when the event was forwarded and the service took it, or when
// it was out of order and not forwarded; 1 when the service answered anything but 0. Scene, thread
// id and error operations return the service's own status, whatever its value.
//
// Errors. A frame that breaks the order is reported to the service by this library: a frame start
// may report an older frame that never ended, a stage event its own frame. The HAL reports only
// what it knows besides, with TcfbtNotifyErrorFrame.
//
// Threads. Frame, stage, node and thread id operations may be called from any number of threads at
// once. The scene operations (TcfbtSetVersion, TcfbtSetSceneInfo, TcfbtNotifySceneStart and
// TcfbtNotifySceneEnd) write fields that the others read without a lock: call them while no other
// thread is in the object. The service is never called with a lock held; from inside its functions
// it may call frame, stage, node and thread id operations, and end the scene unless
// TcfbtNotifySceneStart is under way, but not describe or start one.
//
// Frame numbers are the HAL's, 64 bits wide. Frames are told apart by the low 32 bits, which is
// also what service and trace see. Stages count from 0 to the configured number of stages less one.
class TarvoCameraFrameBoost {
  public:
    // Sets the interface version that is handed to the service with each scene start.
    void TcfbtSetVersion(int32_t halVersion);

    // Describes the scene to come. `resolution`: frame width in pixels; `fps`: frames per second.
    // May come again while a scene runs: a description that does not qualify ends the scene, one
    // that does leaves it running.
    void TcfbtSetSceneInfo(bool isVideo, int32_t resolution, int32_t fps);

    // The service's class of a frame rate: 0 for 30, 1 for 60, 2 for 90, 3 for 144, 4 for any
    // other.
    int32_t GetTcfbtFpsScene(int32_t fps);

    // Starts the described scene: hands the registered thread ids to the service, then asks it to
    // start the scene. `operationMode`: the camera's operation mode, as the configuration lists
    // them. Returns -1 when the scene does not qualify, else the service's status, 0 for started.
    // When the service does not accept the scene it keeps the thread ids, until the next scene that
    // it accepts has ended.
    int32_t TcfbtNotifySceneStart(int32_t operationMode);

    // Ends the running scene: takes its thread ids back from the service, drops the temporary ones
    // and all frames in flight. The next scene has to be described anew. Returns -1, with nothing
    // done, when no scene runs, else the service's status.
    int32_t TcfbtNotifySceneEnd();

    // A frame begins. Frames must follow one another without a gap; one that does not is not
    // forwarded, nor are its stages and its end. A frame that is in flight already is not forwarded
    // again. When too many frames are in flight, the oldest one is dropped, and reported unless it
    // has been or was never forwarded.
    int32_t TcfbtNotifyFrameStart(int64_t halFrameNumber);

    // Reports a frame as bad, on the HAL's own knowledge. `stage`: where it went wrong, -1 when
    // that is not known. Changes nothing about what is known of the frame. Returns -1 when no scene
    // runs, else the service's status.
    int32_t TcfbtNotifyErrorFrame(int64_t frameNumber, int32_t stage);

    // A frame is done.
    int32_t TcfbtNotifyFrameEnd(int64_t halFrameNumber);

    // A stage of a frame begins. Stages of a frame must run one after another; the first breach of
    // that is reported, and nothing more of the frame's stages is forwarded. A stage that does not
    // exist is reported each time and does no harm to its frame. `stageArg1` and `stageArg2` reach
    // the service as they are; `nodeName` is only logged.
    int32_t TcfbtNotifyStageStart(int32_t stage, int64_t halFrameNumber, int32_t stageArg1,
                                  int32_t stageArg2, std::string nodeName);

    // A stage of a frame is done. `nodeName` is only logged.
    int32_t TcfbtNotifyStageEnd(int32_t stage, int64_t halFrameNumber, std::string nodeName);

    // The processing node `nodeName` has finished a frame on its port `portId`: the way in which
    // most HALs report everything. Where the configuration says that this ends a stage, the end of
    // that stage and the start of the next one follow from it; for the last stage, the end of the
    // frame; for stage 0, also the start of the next frame and of its stage 0. Nothing but the
    // latter follows for a frame below 1, and with a single stage no frame's end ever does. Other
    // nodes and ports are ignored. `currentCameraId`: the camera that the node worked for;
    // `isMaterCamera`: whether that is the master camera of a multi-camera setup.
    void TcfbtNotifyNodeEnd(int64_t halFrameNumber, std::string nodeName, int32_t portId,
                            int32_t currentCameraId, bool isMaterCamera);

    // Offers the multi-camera node, one whose name holds "MCTFE0", to the stage table under the
    // name that it has for the master camera. Only a stage -1 would take the name, and no table has
    // one, so this changes nothing. TcfbtNotifyNodeEnd does it by itself.
    void TcfbtRemapStage(bool isMaterCamera, int32_t currentCameraId, std::string nodeName);

    // Registers a thread for all scenes to come. `name` must be "SoloThreadManager",
    // "AuxThreadManager" or "RecyclThreadManager"; other names are ignored. The service learns of
    // the thread at the next scene start or TcfbtSetTids.
    void TcfbtAddPersistTids(std::string name, int32_t tid);

    // Registers a thread until the running scene, or the next one, has ended, on whichever object.
    // The service learns of it as above.
    void TcfbtAddTempTids(int32_t tid);

    // Hands all threads of the scene to the service, those that it already knows included, each
    // once, in ascending order. Works without a scene too: they then count for the next one.
    // Returns the service's status.
    int32_t TcfbtSetTids();

    // Takes threads back from the service; they stay registered here. Returns -1 when no scene
    // runs, else the service's status.
    int32_t TcfbtRemoveTids(const std::vector<int32_t>& tids);

    // Writes the number of persistent thread ids to the debug log. Must not overlap
    // TcfbtAddPersistTids.
    void DumpInfo();

    // Shared by all objects. The two lists are guarded by the mutexes of whichever object is
    // called, so with several objects their thread id and scene operations must not run at the same
    // time.
    static LocalConfig localConfig;
    static std::vector<int32_t> persistTids;  // Never emptied.
    static std::vector<int32_t> tempTids;     // Emptied at the end of a scene.

  private:
    // The operations of the same names, inline and without a copy of the node's name for each
    // derived event.
    int32_t NotifyStageStart(int32_t stage, int64_t halFrameNumber, int32_t stageArg1,
                             int32_t stageArg2, const std::string& nodeName);
    int32_t NotifyStageEnd(int32_t stage, int64_t halFrameNumber, const std::string& nodeName);
    void StartStageOfNode(int32_t stage, int64_t halFrameNumber, const std::string& nodeName);
    static void RemapStage(bool isMaterCamera, int32_t currentCameraId,
                           const LocalConfig::NodeName& nodeName);

    void ReportErrorFrame(int64_t frameNumber, int32_t stage);

    // The scene. Guarded by nothing: written by the scene operations only, read by all. cfbtScene
    // and mFps are (0, 60) for a scene that qualifies and (1, 0) otherwise.
    int32_t version = 0;
    int32_t cfbtScene = 1;
    int32_t mFps = 0;
    bool isSceneStarted = false;  // The service has accepted the scene; the gate of all its events.

    std::mutex persistTidsMutex;            // Guards persistTids.
    std::mutex tempTidsMutex;               // Guards tempTids.
    std::mutex sceneTidsMutex;              // Guards sceneTids.
    std::unordered_set<int32_t> sceneTids;  // All that the service was handed in this scene.

    FrameTracker frameTracker;  // Has a lock of its own.
};
