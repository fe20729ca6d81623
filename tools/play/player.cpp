#include "tools/play/player.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/log/calls.h"
#include "tools/log/message.h"

namespace tools {
Player::Player(Watcher playWatcher, Interrupted playInterrupted)
    : watcher(std::move(playWatcher)), isInterrupted(std::move(playInterrupted)) {
    TarvoCameraFrameBoost::localConfig = LocalConfig();
    TarvoCameraFrameBoost::persistTids.clear();
    TarvoCameraFrameBoost::tempTids.clear();
    std::vector<desktop::Effect> effects = recorder.Take();
    for (const desktop::Effect& effect : effects) {
        if (const auto* line = std::get_if<desktop::LogLine>(&effect.event)) {
            if (const auto message = ParseMessage(line->text)) {
                AddDumped(*message, configuration);
            }
        }
    }
    // The dump does not have it where a stage could not be loaded.
    configuration.stageCount = TarvoCameraFrameBoost::localConfig.GetStageCount();
    watcher({nullptr, time, {}, std::move(effects), &configuration});
}

std::optional<std::string> Player::WhyNotRecordable() const {
    int32_t recordable = 0;  // Through so many stages from 0 on a recording can go.
    for (const ConfiguredStage& stage : configuration.stages) {
        const bool isItsOwn = configuration.StageOf(stage.node) == &stage;
        recordable += stage.stage == recordable && !stage.ports.empty() && isItsOwn ? 1 : 0;
    }
    if (recordable > 0 && recordable == *configuration.stageCount) {
        return std::nullopt;
    }
    return fmt::format(
        "stage {} of the configuration cannot be recorded through, expected a node of its own "
        "with a port",
        recordable);
}

void Player::Play(const Line& line) {
    if (const auto* call = std::get_if<Call>(&line)) {
        PlayCall(*call);
    } else if (const auto* recording = std::get_if<Recording>(&line)) {
        PlayRecording(*recording);
    } else if (const auto* wait = std::get_if<Wait>(&line)) {
        time += wait->micros;
    } else if (const auto* status = std::get_if<ServiceStatus>(&line)) {
        desktop::SetServiceStatus(status->function, status->status);
    }
}

void Player::PlayCall(const Call& call) {
    if (call.form->name == "TcfbtSetSceneInfo") {
        sceneFps = call.Get<int32_t>("fps");
    }
    const std::optional<int32_t> result = call.form->call(boost, call.arguments);
    watcher({&call, time, result, recorder.Take(), &configuration});
}

void Player::PlayRecording(const Recording& recording) {
    const int32_t stageCount = *configuration.stageCount;
    const auto reportNodeEnd = [this](int32_t stage, int64_t frame) {
        const auto& [number, node, ports] = configuration.stages[static_cast<size_t>(stage)];
        PlayCall({FormOf("TcfbtNotifyNodeEnd"), {frame, node, ports.front(), 0, true}});
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
    const Micros begun = time;
    for (int64_t newest = first; newest < last + stageCount && !isInterrupted(); ++newest) {
        for (int32_t stage = stageCount - 1; stage >= 0; --stage) {
            const int64_t frame = newest - stage;
            if (frame >= first && frame <= last) {
                reportNodeEnd(stage, frame);
            }
        }
        if (sceneFps > 0) {
            time = begun + (newest - first + 1) * SECOND / sceneFps;
        }
    }
}

void WriteLogLine(std::ostream& out, const Format& format, int64_t time, int32_t thread,
                  const desktop::LogLine& line) {
    std::string text;
    text.reserve(256);  // Few lines are longer.
    AppendRecord(
        text, format,
        {time, CAPTURE_PROCESS, thread, desktop::LetterOf(line.priority), line.tag, line.text});
    out << text;
}

}  // namespace tools
