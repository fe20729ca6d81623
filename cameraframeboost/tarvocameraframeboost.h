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

static_assert(sizeof(void*) == 8 && sizeof(long) == 8,
              "64 bits only: the interface and the log's formats take int64_t for long");

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
// What the service is told follows from that: there is one kind of scene, so its scene is always 0
// and its class of frame rate 1. Stage starts that follow from a node end carry the arguments 0 and
// 20. In an error report the last argument, the error stage, is always -1: the service learns which
// event was wrong, not which stage it was wrong with. Only TcfbtSetTids may tell it of scene 1:
// called while no scene that qualifies is described.
//
// Errors. A frame that breaks the order is reported to the service by this library: a frame start
// may report an older frame that never ended, a stage event its own frame. The HAL reports only
// what it knows besides, with TcfbtNotifyErrorFrame. A frame that is lost on its way keeps its
// place in the table of frames in flight and is reported late, when there are 16 of them: a HAL
// that knows of a loss reports the frame and ends it. One that was lost in stage 0 has opened no
// frame: before it ends that one, while it is the newest, the HAL starts the next frame and its
// stage 0, or the two frames after the lost one are not boosted either.
//
// No operation throws: what cannot go on, such as an operation that runs out of memory, ends the
// process there and then. Names are passed by value, so it is the caller who makes them, before the
// operation begins: memory that runs out there is the caller's to deal with.
//
// The debug log shows what was forwarded and why events were refused. Not in it: error frames that
// the HAL reports, the statuses of the service, operation mode, version and additional width, and
// the events of a frame that is in error already. A capture alone cannot tell about those.
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
    void TcfbtSetVersion(int32_t halVersion) noexcept;

    // Describes the scene to come. `resolution`: frame width in pixels; `fps`: frames per second.
    // May come again while a scene runs: a description that does not qualify ends the scene, one
    // that does leaves it running.
    void TcfbtSetSceneInfo(bool isVideo, int32_t resolution, int32_t fps) noexcept;

    // Returns the service's class of a frame rate: 0 for 30, 1 for 60, 2 for 90, 3 for 144, 4 for
    // any other.
    int32_t GetTcfbtFpsScene(int32_t fps) noexcept;

    // Starts the described scene: hands the registered thread ids to the service, then asks it to
    // start the scene. `operationMode`: the camera's operation mode, as the configuration lists
    // them. When the service does not accept the scene it keeps the thread ids, until the next
    // scene that it accepts has ended. A scene that runs already is started again just so, and runs
    // on whatever the result.
    //
    // Returns -1 when the scene does not qualify, else the service's status, 0 for started.
    int32_t TcfbtNotifySceneStart(int32_t operationMode) noexcept;

    // Ends the running scene: takes its thread ids back from the service, drops the temporary ones
    // and all frames in flight. The next scene has to be described anew.
    //
    // Returns -1, with nothing done, when no scene runs, else the service's status; the scene has
    // ended whatever that is.
    int32_t TcfbtNotifySceneEnd() noexcept;

    // A frame begins. Frames must follow one another without a gap; one that does not is not
    // forwarded, nor is anything of it. When 16 frames are in flight the oldest is given up, and
    // reported unless it has been or was never forwarded.
    //
    // Returns -1, with nothing done, when no scene runs; 0 when the frame was forwarded and the
    // service took it, or was not forwarded; 1 when the service answered anything but 0.
    int32_t TcfbtNotifyFrameStart(int64_t halFrameNumber) noexcept;

    // Reports a frame as bad, on the HAL's own knowledge. `stage`: where it went wrong, -1 when
    // that is not known. Changes nothing about what is known of the frame: one that will not go on
    // has to be ended too, as it keeps its place otherwise.
    //
    // Returns -1, with nothing done, when no scene runs, else the service's status.
    int32_t TcfbtNotifyErrorFrame(int64_t frameNumber, int32_t stage) noexcept;

    // A frame is done. Forwarded unless the frame is not in flight, began out of sequence or was
    // reported by this library.
    //
    // Returns as TcfbtNotifyFrameStart does.
    int32_t TcfbtNotifyFrameEnd(int64_t halFrameNumber) noexcept;

    // A stage of a frame begins. Stages of a frame must run one after another; the first breach of
    // that is reported, and nothing more of the frame's stages is forwarded. A stage that does not
    // exist is reported each time and does no harm to its frame. `stageArg1` and `stageArg2` reach
    // the service as they are; `nodeName` is only logged.
    //
    // Returns as TcfbtNotifyFrameStart does; a report changes nothing about that.
    int32_t TcfbtNotifyStageStart(int32_t stage, int64_t halFrameNumber, int32_t stageArg1,
                                  int32_t stageArg2, std::string nodeName) noexcept;

    // A stage of a frame is done; the rules are those of its start. `nodeName` is only logged.
    //
    // Returns as TcfbtNotifyStageStart does.
    int32_t TcfbtNotifyStageEnd(int32_t stage, int64_t halFrameNumber,
                                std::string nodeName) noexcept;

    // The processing node `nodeName` has finished a frame on its port `portId`: the way in which
    // most HALs report everything. Where the configuration says that this ends a stage, the end of
    // that stage and the start of the next one follow from it; for the last stage, the end of the
    // frame; for stage 0, also the start of the next frame and of its stage 0. With a single stage
    // no frame's end ever follows. Other nodes and ports are ignored. `currentCameraId`: the camera
    // that the node worked for; `isMaterCamera`: whether that is the master camera of a
    // multi-camera setup.
    //
    // Exactly one node end that counts must come per stage and frame. The ports of a stage are
    // alternatives: a node that reports two of its listed ports for one frame ends its stage twice,
    // the second of which breaks the frame. Then every frame is reported and none ever ends, though
    // the scene has started well. Only
    // the last of several stages may end twice: its frame is gone by then.
    //
    // A frame begins with the node end of the frame before it, so there is none to begin frame 0,
    // and stages and ends of frames below 1 are not derived: frame 0 is never boosted, its node
    // ends only begin frame 1.
    void TcfbtNotifyNodeEnd(int64_t halFrameNumber, std::string nodeName, int32_t portId,
                            int32_t currentCameraId, bool isMaterCamera) noexcept;

    // Offers the multi-camera node, one whose name holds "MCTFE0", to the stage table under the
    // name that it has for the master camera. Only a stage -1 would take the name, and no table has
    // one, so this changes nothing. TcfbtNotifyNodeEnd does it by itself.
    void TcfbtRemapStage(bool isMaterCamera, int32_t currentCameraId,
                         std::string nodeName) noexcept;

    // Registers a thread for all scenes to come. `name` must be "SoloThreadManager",
    // "AuxThreadManager" or "RecyclThreadManager"; other names are ignored. The service learns of
    // the thread at the next scene start or TcfbtSetTids.
    void TcfbtAddPersistTids(std::string name, int32_t tid) noexcept;

    // Registers a thread until the running scene, or the next one, has ended, on whichever object.
    // The service learns of it as above.
    void TcfbtAddTempTids(int32_t tid) noexcept;

    // Hands all threads of the scene to the service, those that it already knows included, each
    // once, in ascending order. Works without a scene too: they then count for the next one.
    //
    // Returns the service's status.
    int32_t TcfbtSetTids() noexcept;

    // Takes threads back from the service; they stay registered here.
    //
    // Returns -1, with nothing done, when no scene runs, else the service's status.
    int32_t TcfbtRemoveTids(const std::vector<int32_t>& tids) noexcept;

    // Writes the number of persistent thread ids to the debug log. Must not overlap
    // TcfbtAddPersistTids.
    void DumpInfo() noexcept;

    // Shared by all objects. The two lists are guarded by the mutexes of whichever object is
    // called, so with several objects their thread id and scene operations must not run at the same
    // time.
    static LocalConfig localConfig;
    static std::vector<int32_t> persistTids;  // Never emptied.
    static std::vector<int32_t> tempTids;     // Emptied at the end of a scene.

  private:
    // The operations of the same names, without a copy of the node's name for each derived event.
    int32_t NotifyStageStart(int32_t stage, int64_t halFrameNumber, int32_t stageArg1,
                             int32_t stageArg2, const std::string& nodeName);
    int32_t NotifyStageEnd(int32_t stage, int64_t halFrameNumber, const std::string& nodeName);
    void StartStageOfNode(int32_t stage, int64_t halFrameNumber, const std::string& nodeName);
    static void RemapStage(bool isMaterCamera, int32_t currentCameraId,
                           const std::string& nodeName);

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

// HALs hold the object by value, so they need the standard library, in the debug mode, that the
// library was built with. The CMake package and pkg-config say its size there.
#ifdef TARVO_CAMERA_FRAME_BOOST_SIZE
static_assert(sizeof(TarvoCameraFrameBoost) == TARVO_CAMERA_FRAME_BOOST_SIZE,
              "built for another C++ standard library, or another debug mode of it, than the HAL");
#endif
