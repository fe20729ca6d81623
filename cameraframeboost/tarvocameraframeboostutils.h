// The configuration and the frame tracker of the camera frame boost library.
//
// TarvoCameraFrameBoost asks both and is what a camera HAL talks to; neither of them calls the
// facade or the boost service.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// What the configuration says about one pipeline stage.
struct NodePortInfo {
    // The node that ends the stage when it finishes a frame. It matches every reported name that
    // contains it, so several node instances can share it. An empty one is part of every name: the
    // stage then gets each node that no higher stage gets.
    std::string nodeName;
    // The ports of that node that count. When there are none, the node never ends the stage.
    std::unordered_set<int32_t> nodePorts;
};

// The device's setup: whether boosting is wanted, for which operation modes and which extra frame
// width, and which node and ports end each pipeline stage.
//
// The library holds one instance, TarvoCameraFrameBoost::localConfig, made while it is loaded. The
// setup comes from section "TarvoCameraFrameBoostConfig" of the hardware configuration store and is
// read once, by the constructor; tools and tests that want another one construct another
// LocalConfig and move it there. Values that are missing or cannot be read leave no line in the
// log:
//
//     switch        counts as off: no scene starts
//     modes         no scene starts; a list that cannot be read switches boosting off as well
//     width         counts as 0: scenes of width 3840 qualify, and those described as 0 wide
//     stages        scenes start all the same. The table holds the stages before the first one that
//                   cannot be read, less those with an empty list; nodes of other stages are
//                   ignored. With an empty table, node ends do nothing; with some stages missing,
//                   no frame that is started by node ends reaches its end.
//
// Threads: no lock is taken. Queries may run on any number of threads at once, as long as none of
// them overlaps Load, UpdateNodeByStage or a move.
//
// Errors: no operation throws. Running out of memory aborts the process.
//
// Names that mislead; other programs use them, so they stay:
//
//     Load                  adds modes and stages to those that are there; removes none
//     GetNodePort           is always empty
//     GetNodePortByStage    the stage's node name and all of its ports
//     IsStagePortVaild      is the port valid for any stage whose name matches
//     IsLogEnable           are log lines and trace counters on
class LocalConfig {
  public:
    // The debug switch of the whole library: log lines and trace counters exist only while it is
    // true. Comes from the system property "vendor.tarvo.camera.frameboost.debug.enable", false
    // when that is unset, and is written only while a LocalConfig is made or the library is loaded.
    static bool enable;

    // Reads the debug switch, loads the configuration from the store and writes it to the debug
    // log. Aborts the process like Load.
    LocalConfig() noexcept;

    // Moved but not copied: a copy would take memory in the caller's code, where running out of it
    // need not end the process.
    LocalConfig(LocalConfig&&) noexcept = default;
    LocalConfig& operator=(LocalConfig&&) noexcept = default;

    // Fills this object from the store: switch, width and number of stages are replaced, modes and
    // stages that are not known yet are added. Always returns true. Called by the constructor.
    //
    // The lengths that the store returns are not checked. Each list is read to the length that the
    // store says, some seconds for a billion values. Values that it does not fill are 0, so a mode
    // count that is one too high makes mode 0 supported.
    //
    // Aborts the process on a port text that does not start with a decimal number, or whose number
    // does not fit 32 bits, and where there is no memory for a list as long as the store says.
    bool Load() noexcept;

    // Writes the configuration to the debug log: the switch, the modes (ascending, in upper-case
    // hexadecimal), then the stages from the highest to stage 0, each with its ports (ascending).
    // The additional width and the number of stages are not shown.
    void DumpConfig() const noexcept;

    // Returns whether frame boosting is wanted at all.
    bool GetFrameboostSwitch() const noexcept;

    // Returns an empty text, always; kept for the clients that were built against it.
    std::string GetNodePort() const noexcept;

    // Returns the number of pipeline stages that the store reports, unchecked. It may be larger
    // than the number of stages that could be loaded, and it may be negative: the first frame of a
    // scene then aborts the process.
    int32_t GetStageCount() const noexcept;

    // Returns whether boosting applies to the camera operation mode `mode`.
    bool IsModeSupported(int32_t mode) noexcept;

    // Returns the frame width in pixels that is accepted besides 3840; 0 when none is configured.
    // A scene described as 0 wide is accepted then.
    int32_t GetAdditionalSupportedWidth() noexcept;

    // Returns the debug switch, LocalConfig::enable.
    bool IsLogEnable() noexcept;

    // Copies the record of `stage` into `info` and returns true; returns false and leaves `info`
    // alone when the stage is not loaded.
    bool GetNodePortByStage(int32_t stage, NodePortInfo& info) const noexcept;

    // Gives `stage` another node name and returns true; returns false and changes nothing when the
    // stage is not loaded. Must not overlap any other call on this object.
    bool UpdateNodeByStage(int32_t stage, const std::string& nodeName) noexcept;

    // Returns the highest stage whose configured node name occurs within `nodeName`; -1 when there
    // is none.
    int32_t GetStageByNodeName(const std::string& nodeName) const noexcept;

    // Returns whether any stage's configured node name occurs within `nodeName`.
    bool IsNodeNameMatch(const std::string& nodeName) const noexcept;

    // Returns whether any stage whose configured node name occurs within `nodeName` lists `portId`.
    // This need not be the stage that GetStageByNodeName returns.
    bool IsStagePortVaild(const std::string& nodeName, int32_t portId) const noexcept;

  private:
    struct StageEntry {
        int32_t stage;
        NodePortInfo info;
    };

    friend class TarvoCameraFrameBoost;

    // GetStageByNodeName and IsStagePortVaild in one pass: sets `stage` and returns whether the
    // port is one that counts.
    bool FindStageAndPort(const std::string& nodeName, int32_t portId, int32_t& stage) const;

    void LoadSupportedModes();
    void LoadStages();

    bool frameboostSwitch = false;
    std::string nodePort;
    int32_t stageCount = 0;
    // The stage table in ascending stage number, found by binary search. Every walk over it goes
    // backwards: where several configured names match, the highest stage wins.
    std::vector<StageEntry> nodePortMap;
    std::unordered_set<int32_t> supportOperationModeList;
    int32_t additionalSupportedWidth = 0;
};

// The frames in flight and how far each has come, so that only events in pipeline order reach the
// boost service.
//
// A frame enters with CheckIfCouldStartFrame and leaves with CheckIfCouldEndFrame; in between, its
// stages must run strictly one after another, from 0 to stageCount - 1. A frame that breaks the
// order is in error from then on, and the caller is asked to report it at most once.
//
// A frame whose end never comes keeps its place in the table until the table is full, and is
// reported only then. That is late when few frames are lost. With room for 16, d frames in flight
// as a rule and one lost in every n, the first report comes about (16 - d) * n frames after the
// first loss. With d = 5 and n = 60 that is 660 frames, eleven seconds at 60 frames per second.
//
// Frame numbers are signed 64 bits wide. A frame is known by the low 32 bits of its number, taken
// as signed: frames that agree in them are the same frame, the highest is the newest and the lowest
// the oldest. All operations may be called from any thread at any time. With the debug switch on,
// log lines are written with the lock held, so a slow log makes the other threads wait.
//
// Errors: no operation throws. One that cannot go on aborts the process, with the lock held.
//
// Names that mislead; other programs use them, so they stay:
//
//     CheckIfCouldStartFrame    takes the frame in, also when it returns false, and may drop the
//                               oldest one
//     CheckIfCouldEndFrame      removes the frame, also when it returns false
//     CheckStagesStatus         records the stage's start or end, or that the frame is in error
//     CheckFrameStatus          records that an error was handed over
//     CheckStatus               does both of these
class FrameTracker {
  public:
    // How many frames are tracked at once unless the constructor gets another number. A camera
    // pipeline holds about one frame for each stage and a few more in its queues, and HALs rarely
    // report a pipeline depth above 8. Twice that is enough for a stall of a quarter of a second at
    // 60 frames per second, and still limits the table when frame ends are lost.
    static constexpr int32_t DEFAULT_MAX_FRAME_TRACKED = 16;

    // The number of pipeline stages of the current scene. Guarded by nothing: written at the start
    // of a scene, while no other thread is in this object.
    int32_t stageCount = 0;

    // `maxFrameTracked`: how many frames are tracked at once; values below 1 count as 1.
    explicit FrameTracker(int32_t maxFrameTracked = DEFAULT_MAX_FRAME_TRACKED) noexcept;

    // Takes a frame in. Returns true when it may be forwarded: it was not tracked yet, and its
    // number is one above the highest tracked one (any number will do when none is tracked). A
    // frame out of sequence is tracked too, as a frame in error. All 64 bits are compared, so above
    // 2147483648 every frame is out of sequence while others are tracked.
    //
    // When the table is full, the oldest frame is dropped. If it was admitted in sequence and its
    // error has not been handed over yet, `isError` becomes true and `errorFrameNumber` its number
    // (low 32 bits, sign extended), whatever the result; otherwise both stay as the caller set
    // them.
    //
    // Makes two flags for each stage: every million stages takes about 0.1 s and 77 MB for each
    // frame. Aborts the process when stageCount is negative, or memory runs out.
    bool CheckIfCouldStartFrame(int64_t frameNumber, bool& isError,
                                int64_t& errorFrameNumber) noexcept;

    // Removes a frame. Returns true when its end may be forwarded: it was tracked, was admitted in
    // sequence and its error was never handed over. `flag` is neither read nor written.
    bool CheckIfCouldEndFrame(int64_t frameNumber, bool& flag) noexcept;

    // Removes all frames.
    void Clear() noexcept;

    // Returns what CheckFrameStatus returns or, if that is true, what CheckStagesStatus does.
    bool CheckStatus(int64_t frameNumber, int32_t stage, bool isEnd, bool& isError) noexcept;

    // Returns true when the frame is tracked, not in error and not ended. Sets `isError` to true
    // when it finds an error of a frame admitted in sequence that has not been handed over yet;
    // otherwise leaves it alone.
    bool CheckFrameStatus(int64_t frameNumber, bool& isError) noexcept;

    // Records the start (`isEnd` false) or the end (`isEnd` true) of `stage` and returns true, when
    // it is in pipeline order. Otherwise sets `isError` to true when the caller is to report the
    // frame: on every call for a stage outside 0 to stageCount - 1; once for each frame that was
    // admitted in sequence, for a stage out of order. Never sets it to false.
    //
    // Aborts the process when it has to look at a stage that did not exist when the frame was
    // admitted.
    bool CheckStagesStatus(int64_t frameNumber, int32_t stage, bool isEnd, bool& isError) noexcept;

  private:
    using StageFlags = std::unordered_map<int32_t, std::atomic<bool>>;

    // Frame flags; nothing ever clears one.
    static constexpr uint32_t FRAME_ERROR = 1;    // Out of sequence, or a stage out of order.
    static constexpr uint32_t FRAME_STARTED = 2;  // Admitted in sequence.
    static constexpr uint32_t FRAME_ENDED = 4;    // The frame end was seen.
    static constexpr uint32_t FRAME_ERROR_NOTIFIED = 8;  // The error was handed to the caller.

    // One frame in flight.
    struct FrameData {
        std::atomic<uint32_t> status{0};  // Frame flags.
        StageFlags stageStartStatus;      // Which stages have started,
        StageFlags stageEndStatus;        // and which have ended.
        // How many of these flags are set. They are set in one fixed order, so the count says which
        // event is next, and an event that is next needs no look at the other flags.
        size_t flagsSet = 0;
    };

    using FrameTable = std::map<int32_t, FrameData>;

    // Called with the lock held. noexcept, so that a failure ends the process in here: further out
    // the lock would be released first.
    FrameData& AddFrame(int32_t key) noexcept;
    void RemoveFrame(FrameTable::iterator entry) noexcept;
    void ClearFlags(FrameData& frame) const noexcept;
    static bool IsReportable(uint32_t status) noexcept;
    int32_t FirstStageOutOfOrder(const FrameData& frame, int32_t stage) const noexcept;
    void MarkInError(FrameData& frame, int64_t frameNumber, int32_t stage, bool isEnd,
                     bool& isError) const noexcept;

    // Guards frameData and every record in it, and spareFrames. Always taken exclusively.
    std::shared_mutex frameMutex;
    // By the low 32 bits of the frame number: the first entry is the oldest frame.
    FrameTable frameData;
    // Entries of frames that have left, to be used again, so that only the first frames of a scene
    // take memory from the heap. Together with those in use there are never more than the capacity.
    std::vector<FrameTable::node_type> spareFrames;
    const int32_t MAX_FRAME_TRACKED;
};
