#include "tools/output/json.h"

#include <nlohmann/json.hpp>
#include <string>

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

Json Milliseconds(Micros time) {
    return time == NO_TIME ? Json() : Json(static_cast<double>(time) / 1000.0);
}

// What is not known is null.
template <typename T>
Json OrNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json();
}

Json ToJson(const Statistics& statistics) {
    return {{"count", statistics.count},           {"p50", Milliseconds(statistics.p50)},
            {"p90", Milliseconds(statistics.p90)}, {"p95", Milliseconds(statistics.p95)},
            {"p99", Milliseconds(statistics.p99)}, {"max", Milliseconds(statistics.max)}};
}

Json ToJson(const Account& account, const Finding& finding) {
    const bool isPlaced = finding.place.line != 0;
    Json json = {{"check", finding.check},
                 {"severity", NameOf(finding.severity)},
                 {"frame", OrNull(finding.frame)},
                 {"line", isPlaced ? Json(finding.place.line) : Json()},
                 {"message", finding.message}};
    if (isPlaced && account.inputs.size() > 1 && finding.place.input < account.inputs.size()) {
        json["file"] = account.inputs[finding.place.input];
    }
    return json;
}

Json ToJson(const Account& account, const AccountedFinding& finding) {
    Json json = ToJson(account, static_cast<const Finding&>(finding));
    json["stage"] = finding.stage >= 0 ? Json(finding.stage) : Json();
    json["time"] = Milliseconds(finding.time);
    json["times"] = finding.times;
    return json;
}

template <typename Findings>
Json ListOf(const Account& account, const Findings& findings) {
    Json list = Json::array();
    for (const auto& finding : findings) {
        list.push_back(ToJson(account, finding));
    }
    return list;
}

Json ToJson(const Account& account, const Configuration& configuration) {
    Json stages = Json::array();
    for (const ConfiguredStage& stage : configuration.stages) {
        stages.push_back({{"stage", stage.stage}, {"node", stage.node}, {"ports", stage.ports}});
    }
    return {{"enabled", configuration.isEnabled},
            {"additionalWidth", OrNull(configuration.additionalWidth)},
            {"modes", configuration.modes},
            {"stageCount", OrNull(configuration.stageCount)},
            {"stages", std::move(stages)},
            {"findings", ListOf(account, account.configurationFindings)}};
}

Json ToJson(const Account& account, const Scene& scene) {
    Json frames = Json::object();
    for (size_t i = 0; i < FRAME_STATUSES; ++i) {
        frames[NameOf(static_cast<FrameStatus>(i))] = scene.statusCounts[i];
    }
    Json stages = Json::array();
    for (size_t i = 0; i < scene.stages.size(); ++i) {
        Json stage = {{"stage", i}, {"node", scene.stageNames[i]}};
        stage.update(ToJson(scene.stages[i]));
        stage["wait"] = ToJson(scene.waits[i]);
        stage["work"] = ToJson(scene.works[i]);
        stages.push_back(std::move(stage));
    }
    return {{"from", Milliseconds(scene.begin)},
            {"to", Milliseconds(scene.end)},
            {"process", scene.process >= 0 ? Json(scene.process) : Json()},
            {"width", scene.isDescribed ? Json(scene.width) : Json()},
            {"fps", scene.isDescribed ? Json(scene.fps) : Json()},
            {"started", scene.isStarted},
            {"frames", std::move(frames)},
            {"notBoosted", scene.notBoosted},
            {"notKnown", scene.untold},
            {"late", scene.lateFrames},
            {"lateThreshold", Milliseconds(scene.lateThreshold)},
            {"latency", ToJson(scene.latency)},
            {"interval", ToJson(scene.interval)},
            {"stages", std::move(stages)},
            {"findings", ListOf(account, scene.findings)}};
}

}  // namespace

void WriteJson(std::ostream& out, const Account& account) {
    Json json = {
        {"verdict", VerdictOf(account)},
        {"capture",
         {{"files", account.inputs},
          {"lines", account.lines},
          {"libraryLines", account.libraryLines},
          {"notUnderstood", account.notUnderstood},
          {"lost", account.lost},
          {"from", account.from.empty() ? Json() : Json(account.from)},
          {"to", account.to.empty() ? Json() : Json(account.to)}}},
        {"configuration", account.configuration ? ToJson(account, *account.configuration) : Json()},
        {"findings", ListOf(account, account.findings)},
        {"scenes", Json::array()}};
    for (const Scene& scene : account.scenes) {
        json["scenes"].push_back(ToJson(account, scene));
    }
    // Names from a log may hold any bytes.
    out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace tools
