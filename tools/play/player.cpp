#include "tools/play/player.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace tools {
namespace {

using desktop::ServiceFunction;

const std::string NO_SCENE = "no scene is running";
const std::string IN_ERROR = "the frame is in error";

// What a line of the library's log says about the fate of an event.
struct Verdict {
    std::string_view format;  // After the part that says where the line comes from.
    Counter counter;
    const char* reason;
};

constexpr Verdict VERDICTS[] = {
    {"cameraframeboost disabled", Counter::ScenesRefused,
     "switched off, or the operation mode is not supported"},
    {"frameNumber: %ld already exists", Counter::FrameStartsRefused, "already in flight"},
    {"frameNumber continuity check fail, lastFrameNumber: %ld, current frameNumber: %ld",
     Counter::FrameStartsRefused, "does not follow the newest frame"},
    {"current frameData size(%d) > MAX_FRAME_TRACKED(%d), mark and notify frame error",
     Counter::FramesEvicted, "too many frames in flight"},
    {"frameNumber: %ld not exist", Counter::FrameEndsRefused, "not in flight"},
    {"frameNumber not exist, frameNumber = %ld", Counter::StageEventsRefused,
     "the frame is not in flight"},
    {"is error frame, notify frame error, frameNumber = %ld", Counter::StageEventsRefused,
     "the frame is in error"},
    {"stage error, notify frame error, frameNumber = %ld, stage = %d, stageCount = %d",
     Counter::StageEventsRefused, "no such stage"},
    {"stage status check error, notify frame error, frameNumber = %ld, stage = %d, "
     "error stage = %d",
     Counter::StageEventsRefused, "out of order with another stage"},
    {"stage status check error, notify frame error, frameNumber = %ld, stage = %d",
     Counter::StageEventsRefused, "the stage has run already, or has not started"},
};

const Verdict* VerdictOf(const desktop::LogLine& line) {
    constexpr std::string_view origin = "%s %d:%s() ";
    const std::string_view format = std::string_view(line.format).substr(origin.size());
    const auto* found =
        std::find_if(std::begin(VERDICTS), std::end(VERDICTS),
                     [format](const Verdict& verdict) { return verdict.format == format; });
    return found == std::end(VERDICTS) ? nullptr : found;
}

// The frame and stage events that a call stands for.
struct Attempts {
    int64_t stageEvents = 0;
    int64_t frameEnds = 0;
    bool isIgnoredNode = false;
};

Attempts AttemptsOf(const Call& call) {
    const std::string_view name = call.operation->name;
    if (name == "TcfbtNotifyStageStart" || name == "TcfbtNotifyStageEnd") {
        return {1, 0, false};
    }
    if (name == "TcfbtNotifyFrameEnd") {
        return {0, 1, false};
    }
    if (name != "TcfbtNotifyNodeEnd") {
        return {};
    }
    const auto frame = std::get<int64_t>(call.arguments[0]);
    const auto& node = std::get<std::string>(call.arguments[1]);
    const LocalConfig& config = TarvoCameraFrameBoost::localConfig;
    if (!config.IsStagePortVaild(node, std::get<int32_t>(call.arguments[2]))) {
        return {0, 0, true};
    }
    const int32_t stage = config.GetStageByNodeName(node);
    if (stage == 0) {
        return {frame >= 1 ? 3 : 1, 0, false};
    }
    if (frame < 1) {
        return {};
    }
    return stage + 1 < config.GetStageCount() ? Attempts{2, 0, false} : Attempts{1, 1, false};
}

// The node end that ends `stage`, for a frame to be filled in.
Call NodeEndOf(int32_t stage) {
    const LocalConfig& config = TarvoCameraFrameBoost::localConfig;
    NodePortInfo info;
    if (!config.GetNodePortByStage(stage, info) || info.nodePorts.empty() ||
        config.GetStageByNodeName(info.nodeName) != stage) {
        throw SessionError("stage " + std::to_string(stage) +
                           " of the configuration cannot be recorded through, expected a node of "
                           "its own with a port");
    }
    const int32_t port = *std::min_element(info.nodePorts.begin(), info.nodePorts.end());
    return {FindOperation("TcfbtNotifyNodeEnd"), {int64_t{0}, info.nodeName, port, 0, true}};
}

}  // namespace

Player::Player(Report& playReport, bool isRealTime,
               std::function<void(int64_t done, int64_t all)> onProgress)
    : report(playReport), realTime(isRealTime), progress(std::move(onProgress)) {
    desktop::SetObserver(this);
    TarvoCameraFrameBoost::localConfig = LocalConfig();
    TarvoCameraFrameBoost::persistTids.clear();
    TarvoCameraFrameBoost::tempTids.clear();
    report.ShowLoading(effects);
}

Player::~Player() {
    desktop::SetObserver(nullptr);
}

void Player::OnEffect(const desktop::Effect& effect) {
    effects.push_back(effect);
}

void Player::Play(const Call& call, size_t line) {
    if (call.operation->name == "TcfbtSetSceneInfo") {
        sceneFps = std::get<int32_t>(call.arguments[2]);
    }
    effects.clear();
    const std::optional<int32_t> result = call.operation->call(boost, call.arguments);
    const Tally tally = Judge(call, result);
    total.Add(tally);
    report.Show(Played{line, call, result, std::move(effects), tally});
}

void Player::Play(const Recording& recording, size_t line) {
    const int32_t stageCount = TarvoCameraFrameBoost::localConfig.GetStageCount();
    if (stageCount < 1) {
        throw SessionError("the configuration has no stages, expected one that has");
    }
    std::vector<Call> nodeEnds;
    nodeEnds.reserve(static_cast<size_t>(stageCount));
    for (int32_t stage = 0; stage < stageCount; ++stage) {
        nodeEnds.push_back(NodeEndOf(stage));
    }
    const auto reportNodeEnd = [&](size_t stage, int64_t frame) {
        nodeEnds[stage].arguments[0] = frame;
        Play(nodeEnds[stage], line);
    };

    const int64_t first = recording.first.value_or(std::max<int64_t>(nextFrame, 1));
    const int64_t last = first + recording.frames - 1;
    if (first != nextFrame) {
        // A frame is opened by the one before it leaving the first node.
        reportNodeEnd(0, first - 1);
    }
    nextFrame = last + 1;

    // In each frame time every stage finishes a frame, each stage one frame behind the stage before
    // it. The frame that is furthest along is reported first: it makes room for the others.
    auto due = std::chrono::steady_clock::now();
    for (int64_t newest = first; newest < last + stageCount; ++newest) {
        for (int32_t stage = stageCount - 1; stage >= 0; --stage) {
            const int64_t frame = newest - stage;
            if (frame >= first && frame <= last) {
                reportNodeEnd(static_cast<size_t>(stage), frame);
            }
        }
        if (newest <= last) {
            progress(newest - first + 1, recording.frames);
        }
        if (realTime && sceneFps > 0) {
            due += std::chrono::nanoseconds(std::chrono::seconds(1)) / sceneFps;
            std::this_thread::sleep_until(due);
        }
    }
}

// What became of a call: the service was called, the log says why it was not, or neither, which has
// one reason for each kind of event.
Tally Player::Judge(const Call& call, const std::optional<int32_t>& result) const {
    Tally tally;
    for (const desktop::Effect& effect : effects) {
        if (const auto* line = std::get_if<desktop::LogLine>(&effect.event)) {
            if (const Verdict* verdict = VerdictOf(*line)) {
                tally.Add(verdict->counter, 1, verdict->reason);
            }
        } else if (const auto* service = std::get_if<desktop::ServiceCall>(&effect.event)) {
            switch (service->function) {
                case ServiceFunction::SceneStart:
                    if (service->status == 0) {
                        tally.Add(Counter::ScenesStarted);
                    } else {
                        tally.Add(Counter::ScenesRefused, 1, "by the service");
                    }
                    break;
                case ServiceFunction::FrameStart:
                    tally.Add(Counter::FramesStarted);
                    break;
                case ServiceFunction::FrameEnd:
                    tally.Add(Counter::FramesEnded);
                    break;
                case ServiceFunction::StageStart:
                case ServiceFunction::StageEnd:
                    tally.Add(Counter::StageEventsForwarded);
                    break;
                case ServiceFunction::NotifyErrOfUser:
                    tally.Add(Counter::ErrorReports);
                    break;
                default:
                    break;
            }
        }
    }

    const std::string_view name = call.operation->name;
    const bool isNodeEnd = name == "TcfbtNotifyNodeEnd";
    // A node end gives no result, but while a scene runs it always leaves a line.
    const bool isRefused = isNodeEnd ? effects.empty() : result == -1;
    if (name == "TcfbtNotifySceneStart") {
        if (isRefused && effects.empty()) {
            tally.Add(Counter::ScenesRefused, 1, "not described as a scene to boost");
        }
        return tally;
    }
    if (name == "TcfbtNotifyFrameStart" && isRefused) {
        tally.Add(Counter::FrameStartsRefused, 1, NO_SCENE);
    }
    const Attempts attempts = AttemptsOf(call);
    const std::string& reason = isRefused ? NO_SCENE : IN_ERROR;
    tally.Add(Counter::StageEventsRefused,
              attempts.stageEvents - tally.Get(Counter::StageEventsForwarded).total -
                  tally.Get(Counter::StageEventsRefused).total,
              reason);
    tally.Add(Counter::FrameEndsRefused,
              attempts.frameEnds - tally.Get(Counter::FramesEnded).total -
                  tally.Get(Counter::FrameEndsRefused).total,
              reason);
    if (attempts.isIgnoredNode) {
        tally.Add(Counter::NodeEndsIgnored, 1, "this node and port end no stage");
    }
    return tally;
}

}  // namespace tools
