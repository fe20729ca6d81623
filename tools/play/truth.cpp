#include "tools/play/truth.h"

#include <algorithm>

#include "cameraframeboost/tarvocameraframeboostutils.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

Json MillisOf(Micros time) {
    return time == NO_TIME ? Json() : Json(static_cast<double>(time) / MILLISECOND);
}

}  // namespace

Truth::Truth(const Camera& simulated, int32_t stages)
    : camera(simulated),
      stageCount(stages),
      near(FrameTracker::DEFAULT_MAX_FRAME_TRACKED * SECOND / camera.fps),
      acted(camera.faults.size()) {}

void Truth::OnDelivered(int64_t number, Micros time, bool isDropped) {
    frames.push_back({{"frame", frames.size()},
                      {"number", number},
                      {"delivered", MillisOf(isDropped ? NO_TIME : time)},
                      {"left", std::vector<Json>(camera.Stages().size())},
                      {"out", nullptr},
                      {"late", false},
                      {"boosted", false}});
}

void Truth::OnLeft(int64_t frame, int32_t stage, Micros time) {
    Json& one = frames.at(static_cast<size_t>(frame));
    Json& left = one["left"].at(static_cast<size_t>(stage));
    if (!left.is_null()) {
        return;  // Reported on a second port.
    }
    left = MillisOf(time);
    if (&left == &one["left"].back()) {
        one["out"] = left;
        one["late"] = lastOut != NO_TIME && time - lastOut > 3 * SECOND / 2 / camera.fps;
        lastOut = time;
    }
}

void Truth::OnService(const desktop::ServiceCall& call) {
    using enum desktop::ServiceFunction;
    const int32_t number = call.Argument("frame");
    std::optional<int32_t>& events = stageEvents[number];
    if (call.function == FrameStart) {
        events = 0;
    } else if (call.function == NotifyErrOfUser) {
        events.reset();
    } else if (events && (call.function == StageStart || call.function == StageEnd)) {
        ++*events;
    } else if (call.function == FrameEnd) {
        const auto frame = std::find_if(frames.rbegin(), frames.rend(), [number](const Json& one) {
            return static_cast<int32_t>(one["number"].get<int64_t>()) == number;
        });
        if (frame != frames.rend()) {
            (*frame)["boosted"] = events == 2 * stageCount;
        }
        stageEvents.erase(number);
    }
}

void Truth::OnFault(size_t fault, Micros from, Micros to) {
    Acted& span = acted.at(fault);
    span.from = span.from == NO_TIME ? from : span.from;
    span.to = std::max(span.to, to);
}

void Truth::OnBacklog(Micros time) {
    for (Acted& span : acted) {
        if (span.from != NO_TIME && span.to + near >= time) {
            span.to = std::max(span.to, time);
        }
    }
}

bool Truth::IsHidden(size_t fault) const {
    const Micros from = acted[fault].from;
    bool isHidden = from == NO_TIME;
    for (size_t i = 0; i < acted.size() && !isHidden; ++i) {
        isHidden = i != fault && acted[i].from != NO_TIME && acted[i].from - near <= from &&
                   from <= acted[i].to + near;
    }
    return isHidden;
}

void Truth::Write(std::ostream& out, Micros sceneBegin, Micros sceneEnd) {
    Json json = {{"fps", camera.fps}, {"stages", Json::array()}};
    for (const CameraNode& node : camera.Stages()) {
        json["stages"].push_back(node.name);
    }
    json["scene"] = {{"begin", MillisOf(sceneBegin)}, {"end", MillisOf(sceneEnd)}};
    json["frames"] = std::move(frames);
    auto& faults = json["faults"] = Json::array();
    for (size_t i = 0; i < acted.size(); ++i) {
        const Fault& fault = camera.faults[i];
        faults.push_back({{"fault", ToString(fault)},
                          {"kind", fault.kind},
                          {"first", fault.frame},
                          {"last", fault.last},
                          {"stage", fault.stage < 0 ? Json() : Json(fault.stage)},
                          {"amount", fault.amount == 0 ? Json() : Json(fault.amount)},
                          {"from", MillisOf(acted[i].from)},
                          {"to", MillisOf(std::min(acted[i].to, sceneEnd))},
                          {"hidden", IsHidden(i)}});
    }
    out << json << '\n';
}

}  // namespace tools
