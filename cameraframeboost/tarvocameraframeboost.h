// Camera frame boost: reports the camera's scenes, frames and stages to the boost service, so that
// camera threads get a CPU in time for 4K video at 60 frames per second.
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

// What a camera HAL calls while a camera is open, in this order:
//
//     TcfbtAddPersistTids                         once in a process, for its thread managers
//     TcfbtSetVersion                             once for an object
//     TcfbtSetSceneInfo, TcfbtNotifySceneStart    when a scene begins
//     TcfbtAddTempTids, TcfbtSetTids              for the threads of this scene, once it runs
//     TcfbtNotifyNodeEnd (or the frame and stage  for every frame
//         operations, for HALs that know them)
//     TcfbtNotifySceneEnd                         when the scene ends, and before the object is
//                                                 destroyed
//
// Objects. At most one object in a process may have a scene running. To the service, all objects
// are scene 0: two of them would announce the same frame numbers, and the first to end its scene
// would end the other's and take its threads back. A second object may exist, for a camera that
// does not record, as long as its thread id and scene operations do not overlap those of the
// first: the lists of thread ids are shared by all objects but each object guards them with mutexes
// of its own, so that overlapping calls can crash. A HAL with two cameras uses one object for both,
// or lets them take turns under a lock of its own. An object that is destroyed while its scene runs
// makes no call of the service: the scene and its thread ids stay there. End the scene first.
//
// A scene is boosted when it is video of 3840 pixels (or the configured additional width) at 60
// frames per second, in an operation mode that the configuration lists, with boosting switched on,
// and the boost service accepts it. Everything else is refused, and then costs next to nothing.
//
// The service's arguments follow from that: there is one kind of scene, so its scene is always 0
// and its class of frame rate 1. Stage starts that follow from a node end carry the arguments 0 and
// 20. In an error report the last argument, the error stage, is always -1: the service learns which
// event was wrong, but not which other stage made it wrong. Only TcfbtSetTids may pass scene 1,
// when it is called while no scene that qualifies is described.
//
// Results. A frame or stage operation that returns 0 has either forwarded the event or kept it
// back. The debug log shows which.
//
// Errors. A frame that breaks the order is reported to the service by this library: a frame start
// may report an older frame that never ended, a stage event its own frame. The HAL reports only
// errors that it alone knows of, with TcfbtNotifyErrorFrame. A frame that is lost in the pipeline
// keeps its place in the table of frames in flight and is reported late, when the table is full
// with 16 (see FrameTracker): a HAL that knows of a loss reports the frame and ends it. A frame
// that was lost in stage 0 has not opened the next one. The HAL then starts the next frame and its
// stage 0 before that frame leaves stage 0, and only then ends the lost frame, or the two frames
// after the lost frame are not boosted either.
//
// No operation throws. One that cannot go on, because memory has run out for example, ends the
// process at once. Names are passed by value, so the caller makes the copy before the operation
// begins: running out of memory there is the caller's to handle.
//
// The debug log shows what was forwarded and why events were refused. Not in it are error frames
// that the HAL reports, the statuses of the service, operation mode, version and additional width,
// and the events of a frame that is in error already.
//
// Threads. Frame, stage, node and thread id operations may be called from any number of threads at
// once. The scene operations (TcfbtSetVersion, TcfbtSetSceneInfo, TcfbtNotifySceneStart and
// TcfbtNotifySceneEnd) write fields that the others read without a lock: call them while no other
// thread is in the object. The service is called on the thread of the HAL that called the
// operation, never with a lock held. From inside its functions it may call frame, stage, node and
// thread id operations, and end the scene unless TcfbtNotifySceneStart is still running, but not
// describe or start one. With the debug switch on, some lines are logged with the tracker's lock
// held: logging then slows the threads down and changes the order in which they go on.
//
// Frame numbers are the HAL's, 64 bits wide. Frames are distinguished by the low 32 bits, which
// service and trace get. Stages count from 0 to the configured number of stages less one.
//
// Names that mislead; other programs use them, so they stay:
//
//     resolution               the width of a frame, in pixels
//     isMaterCamera            is master camera
//     GetTcfbtFpsScene         the class of a frame rate, nothing about a scene
//     TcfbtNotifyErrorFrame    reports a frame; does not end it or mark it
//     TcfbtNotifyNodeEnd       may also start and end frames and stages
//     TcfbtRemapStage          changes nothing
//     TcfbtSetTids             adds to the threads that the service has; replaces none
//     TcfbtRemoveTids          takes threads back until the next TcfbtSetTids; forgets none
//     DumpInfo                 logs one number
//     "RecyclThreadManager"    without an e behind the l
//     cfbtScene                0: a scene to boost, 1: none
class TarvoCameraFrameBoost {
  public:
    // Sets the HAL's interface version. The library only passes it on to the service, with each
    // scene start.
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
    // them. A scene that is running already is handed over and started once more.
    //
    // Returns 0 when the scene has started; -1, without a call of the service, when the scene
    // does not qualify; else the status of the service that refused it. Then the scene is not
    // boosted, but the service keeps the thread ids until the next scene that did start has ended.
    // Whatever the result, a scene that was running goes on.
    int32_t TcfbtNotifySceneStart(int32_t operationMode) noexcept;

    // Ends the running scene: takes its thread ids back from the service, drops the temporary ones
    // of all objects and all frames in flight. The next scene has to be described anew.
    //
    // Returns -1, with nothing done, when no scene runs, else the service's status; the scene has
    // ended whatever the status is.
    int32_t TcfbtNotifySceneEnd() noexcept;

    // A frame begins. Its number must be one above the highest in the table of frames in flight;
    // any number will do while the table is empty. A frame out of sequence is not forwarded, nor
    // are its stages and its end, but it takes a place in the table. A number that is in flight
    // already is ignored. So a gap costs one frame (two when frames are started by node ends): the
    // next number is one above the highest again. But numbers that go down are refused until they
    // have passed the highest in the table: when they start again at 1 while a scene runs, as many
    // frames are refused as the scene had run, with all results 0. A HAL whose numbers start again
    // ends the scene, describes it and starts it anew, which empties the table.
    //
    // When 16 frames are in flight the lowest number is dropped, and reported unless it has been
    // reported before or was never forwarded.
    //
    // Returns -1, with nothing done, when no scene runs; 0 when the frame was forwarded and the
    // service took it, or was not forwarded; 1 when the service answered anything but 0.
    int32_t TcfbtNotifyFrameStart(int64_t halFrameNumber) noexcept;

    // Reports a frame that the HAL itself knows to be bad. The frame comes first here, the
    // stage first in TcfbtNotifyStageStart and TcfbtNotifyStageEnd. `stage`: where it went wrong,
    // -1 when the stage is not known. The frame stays in the table as it is: a frame that will not
    // go on has to be ended too.
    //
    // Returns -1, with nothing done, when no scene runs, else the service's status.
    int32_t TcfbtNotifyErrorFrame(int64_t frameNumber, int32_t stage) noexcept;

    // A frame is done. Forwarded unless the frame is not in flight, began out of sequence or was
    // reported by this library.
    //
    // Returns as TcfbtNotifyFrameStart does.
    int32_t TcfbtNotifyFrameEnd(int64_t halFrameNumber) noexcept;

    // A stage of a frame begins. The stage comes first here, the frame first in
    // TcfbtNotifyErrorFrame. Stages of a frame must run one after another; the first event out of
    // order is reported, and no more stages of the frame are forwarded. A stage that does not exist
    // is reported each time, and its frame goes on. `stageArg1` and `stageArg2` reach the service
    // as they are; `nodeName` is only logged.
    //
    // Returns as TcfbtNotifyFrameStart does; a report changes nothing about that.
    int32_t TcfbtNotifyStageStart(int32_t stage, int64_t halFrameNumber, int32_t stageArg1,
                                  int32_t stageArg2, std::string nodeName) noexcept;

    // A stage of a frame is done; the rules are those of its start, and so is the order of stage
    // and frame. `nodeName` is only logged.
    //
    // Returns as TcfbtNotifyStageStart does.
    int32_t TcfbtNotifyStageEnd(int32_t stage, int64_t halFrameNumber,
                                std::string nodeName) noexcept;

    // The processing node `nodeName` has finished a frame on its port `portId`. Most HALs report
    // nothing else. Report it before the next node has the frame: otherwise that node's end may
    // come first, which is out of order. Where the configuration says that this ends a stage, the
    // library derives the end of that stage and the start of the next one; for the last stage, the
    // end of the frame; for stage 0, also the start of the next frame and of its stage 0. With a
    // single stage no frame's end is derived. Other nodes and ports are ignored. `currentCameraId`:
    // the camera that the node worked for; `isMaterCamera`: whether it is the master camera of a
    // multi-camera setup, true with one camera. Both are only logged.
    //
    // Exactly one node end that counts must come for each stage of each frame. The ports of a stage
    // are alternatives: a node that reports two of its listed ports for one frame ends its stage
    // twice, and the second end is out of order. Then every frame is reported and none ever ends,
    // although the scene has started well. Only the last of several stages may end twice, since its
    // frame has left the table by then.
    //
    // A frame begins with the node end of the frame before it, so nothing begins frame 0, and
    // stages and ends of frames below 1 are not derived: frame 0 is never boosted, the node end of
    // its stage 0 only begins frame 1.
    void TcfbtNotifyNodeEnd(int64_t halFrameNumber, std::string nodeName, int32_t portId,
                            int32_t currentCameraId, bool isMaterCamera) noexcept;

    // Changes nothing. It looks up the multi-camera node, one whose name holds "MCTFE0", under the
    // name that it has for the master camera, and would rename stage -1, which no table has.
    // TcfbtNotifyNodeEnd does the same by itself.
    void TcfbtRemapStage(bool isMaterCamera, int32_t currentCameraId,
                         std::string nodeName) noexcept;

    // Registers a thread for all scenes to come, on all objects. `name` must be
    // "SoloThreadManager", "AuxThreadManager" or "RecyclThreadManager", which are treated alike;
    // other names are dropped without a word. An id can never be taken out of the list again, so
    // register each thread once in a process, not each time a camera is opened. The service learns
    // of the thread at the next scene start or TcfbtSetTids.
    void TcfbtAddPersistTids(std::string name, int32_t tid) noexcept;

    // Registers a thread until the running scene, or the next one, of any object has ended. The
    // service learns of it as above.
    void TcfbtAddTempTids(int32_t tid) noexcept;

    // Hands all threads of the scene to the service, each once, in ascending order, including those
    // that it already knows. Works without a running scene too: the threads then count for the next
    // one. Before a scene that qualifies is described, the service gets them for scene 1.
    //
    // Returns the service's status.
    int32_t TcfbtSetTids() noexcept;

    // Takes threads back from the service. They stay registered here: the next TcfbtSetTids hands
    // them over again.
    //
    // Returns -1, with nothing done, when no scene runs, else the service's status.
    int32_t TcfbtRemoveTids(const std::vector<int32_t>& tids) noexcept;

    // Writes the number of persistent thread ids to the debug log. Must not overlap
    // TcfbtAddPersistTids.
    void DumpInfo() noexcept;

    // Shared by all objects. The two lists are guarded by the mutexes of the object that is called,
    // so thread id and scene operations of two objects must not run at the same time.
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
    bool isSceneStarted = false;  // The service has accepted the scene, so events go to it.

    std::mutex persistTidsMutex;            // Guards persistTids.
    std::mutex tempTidsMutex;               // Guards tempTids.
    std::mutex sceneTidsMutex;              // Guards sceneTids.
    std::unordered_set<int32_t> sceneTids;  // Of all threads that the service got for it.

    FrameTracker frameTracker;  // Has a lock of its own.
};

// HALs hold the object by value, so they need the standard library, in the debug mode, that the
// library was built with. The CMake package and pkg-config say its size there.
#ifdef TARVO_CAMERA_FRAME_BOOST_SIZE
static_assert(sizeof(TarvoCameraFrameBoost) == TARVO_CAMERA_FRAME_BOOST_SIZE,
              "built for another C++ standard library, or another debug mode of it, than the HAL");
#endif
