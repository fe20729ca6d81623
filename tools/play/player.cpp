#include "tools/play/player.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "tools/log/calls.h"
#include "tools/log/message.h"

namespace tools {
Player::Player(Watcher playWatcher, Pace playPace)
    : watcher(std::move(playWatcher)), pace(std::move(playPace)) {
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
    for (const ConfiguredStage& stage : configuration.stages) {
        if (stage.stage != recordable || stage.ports.empty() ||
            configuration.StageOf(stage.node) != &stage) {
            break;
        }
        ++recordable;
    }
    watcher({nullptr, time, {}, std::move(effects), &configuration});
}

std::optional<std::string> Player::WhyNotRecordable() const {
    if (*configuration.stageCount < 1) {
        return "the configuration has no stages, expected one that has";
    }
    if (recordable < *configuration.stageCount) {
        return fmt::format(
            "stage {} of the configuration cannot be recorded through, expected a node of its own "
            "with a port",
            recordable);
    }
    return std::nullopt;
}

void Player::Play(const Line& line) {
    if (const auto* call = std::get_if<Call>(&line)) {
        PlayCall(*call);
    } else if (const auto* recording = std::get_if<Recording>(&line)) {
        PlayRecording(*recording);
    } else if (const auto* wait = std::get_if<Wait>(&line)) {
        PassTime(time + wait->micros);
    } else if (const auto* status = std::get_if<ServiceStatus>(&line)) {
        desktop::SetServiceStatus(status->function, status->status);
    }
}

void Player::PlayCall(const Call& call) {
    if (call.form->name == "TcfbtSetSceneInfo") {
        sceneFps = call.Get<int32_t>("fps");
    }
    const std::optional<int32_t> result = Make(call, boost);
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
    for (int64_t newest = first; newest < last + stageCount && !pace.isInterrupted(); ++newest) {
        for (int32_t stage = stageCount - 1; stage >= 0; --stage) {
            const int64_t frame = newest - stage;
            if (frame >= first && frame <= last) {
                reportNodeEnd(stage, frame);
            }
        }
        if (newest <= last) {
            pace.onProgress(newest - first + 1, recording.frames);
        }
        if (sceneFps > 0) {
            PassTime(begun + (newest - first + 1) * SECOND / sceneFps);
        }
    }
}

void Player::PassTime(Micros until) {
    // A slice at a time, so that an interrupt is heard.
    constexpr std::chrono::milliseconds slice(50);
    const auto due = begin + std::chrono::microseconds(until);
    while (pace.isRealTime && std::chrono::steady_clock::now() < due) {
        if (pace.isInterrupted()) {
            return;
        }
        std::this_thread::sleep_until(std::min(due, std::chrono::steady_clock::now() + slice));
    }
    time = until;
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
