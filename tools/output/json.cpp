// The account for programs.

#include <nlohmann/json.hpp>

#include "tools/check/check.h"
#include "tools/output/outputs.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

// docs/account.schema.json says what is in it, and which changes raise this.
constexpr int VERSION = 2;

Json Milliseconds(Micros time) {
    return time == NO_TIME ? Json() : Json(static_cast<double>(time) / 1000.0);
}

Json ToJson(const Statistics& statistics) {
    return {{"count", statistics.count},           {"p50", Milliseconds(statistics.p50)},
            {"p90", Milliseconds(statistics.p90)}, {"p95", Milliseconds(statistics.p95)},
            {"p99", Milliseconds(statistics.p99)}, {"max", Milliseconds(statistics.max)}};
}

template <typename Values>
Json ListOf(const Values& values, const auto& toJson) {
    Json list = Json::array();
    for (const auto& value : values) {
        list.push_back(toJson(value));
    }
    return list;
}

Json ToJson(const std::vector<FrameRange>& ranges) {
    return ListOf(ranges, [](const FrameRange& range) { return Json{range.first, range.last}; });
}

Json ToJson(const Shares& shares) {
    Json json;
    for (size_t state = 0; state < THREAD_STATES; ++state) {
        json[NameOf(static_cast<ThreadState>(state))] = Milliseconds(shares[state]);
    }
    return json;
}

Json ToJson(const CauseLink& link) {
    return {{"thread", link.thread},
            {"name", link.name},
            {"state", NameOf(link.state)},
            {"from", Milliseconds(link.begin)},
            {"time", Milliseconds(link.length)},
            {"pieces", link.pieces},
            {"priority", link.priority},
            {"cpu", link.cpu >= 0 ? Json(link.cpu) : Json()},
            {"ran", ListOf(link.ran,
                           [](const CauseLink::Ran& one) {
                               return Json{{"thread", one.thread},
                                           {"name", one.name},
                                           {"priority", one.priority},
                                           {"time", Milliseconds(one.length)}};
                           })},
            {"waker", link.waker.empty() ? Json() : Json(link.waker)},
            {"interrupt", link.isByInterrupt}};
}

Json ToJson(const Account& account, const SceneFinding& finding) {
    const bool isPlaced = finding.place.line != 0;
    Json json = {{"check", NameOf(finding.kind)},
                 {"severity", NameOf(finding.severity)},
                 {"frame", finding.frame ? Json(*finding.frame) : Json()},
                 {"frames", ToJson(RangesOf(finding.own))},
                 {"harmed", ToJson(RangesOf(finding.harmed))},
                 {"stage", finding.stage >= 0 ? Json(finding.stage) : Json()},
                 {"time", Milliseconds(finding.time)},
                 {"times", finding.times},
                 {"line", isPlaced ? Json(finding.place.line) : Json()},
                 {"message", finding.message}};
    if (finding.states) {
        json["states"] = ToJson(*finding.states);
    }
    if (!finding.chain.empty()) {
        json["chain"] = ListOf(finding.chain, [](const CauseLink& link) { return ToJson(link); });
    }
    if (isPlaced && account.inputs.size() > 1 && finding.place.input < account.inputs.size()) {
        json["file"] = account.inputs[finding.place.input];
    }
    return json;
}

Json ToJson(const Account& account, const std::vector<SceneFinding>& findings) {
    return ListOf(findings, [&account](const auto& finding) { return ToJson(account, finding); });
}

Json ToJson(const LoadedConfiguration& loaded) {
    Json json = {{"process", loaded.process}};
    json.update(JsonOf(loaded.configuration));
    json["findings"] = ListOf(loaded.findings, [](const Finding& finding) {
        return Json{{"check", finding.check},
                    {"severity", NameOf(finding.severity)},
                    {"message", finding.message}};
    });
    return json;
}

Json ToJson(const Waiting& waiting) {
    return {{"threads", waiting.threads}, {"inside", ToJson(waiting.inside)}};
}

Json ToJson(const SceneScheduling& scene, const SchedTrace& trace) {
    Json threads = Json::array();
    for (const ThreadUse& use : scene.threads) {
        Json thread = {{"thread", trace.threads[use.thread].tid},
                       {"name", trace.threads[use.thread].name},
                       {"stages", use.stages},
                       {"handed", scene.isHandedKnown ? Json(use.isHanded) : Json()}};
        thread.update(ToJson(use.shares));
        threads.push_back(std::move(thread));
    }
    return {{"threads", std::move(threads)},
            {"waiting", {{"handed", ToJson(scene.handed)}, {"others", ToJson(scene.others)}}}};
}

Json ToJson(const Account& account, const JudgedScene& scene) {
    Json frames = {{"all", scene.figures.frameCount}};
    for (size_t i = 0; i < FRAME_STATUSES; ++i) {
        frames[NameOf(static_cast<FrameStatus>(i))] = scene.figures.statusCounts[i];
    }
    Json stages = Json::array();
    for (size_t i = 0; i < scene.figures.stages.size(); ++i) {
        Json stage = {{"stage", i}, {"node", scene.stageNames[i]}};
        stage.update(ToJson(scene.figures.stages[i]));
        stage["wait"] = ToJson(scene.figures.waits[i]);
        stage["work"] = ToJson(scene.figures.works[i]);
        stages.push_back(std::move(stage));
    }
    return {{"from", Milliseconds(scene.begin)},
            {"to", Milliseconds(scene.end)},
            {"process", scene.process},
            {"cameras", CamerasOf(scene)},
            {"width", scene.isDescribed ? Json(scene.width) : Json()},
            {"fps", scene.isDescribed ? Json(scene.fps) : Json()},
            {"started", scene.isStarted},
            {"ended", scene.HasEnd()},
            {"restartedAfter", scene.restartedAfter ? Json(*scene.restartedAfter) : Json()},
            {"frames", std::move(frames)},
            {"neverOut", scene.figures.neverOut},
            {"notBoosted", scene.figures.notBoosted},
            {"notKnown", scene.figures.unknown},
            {"late", scene.figures.late},
            {"lateThreshold", Milliseconds(scene.columns.lateThreshold)},
            {"latency", ToJson(scene.figures.latency)},
            {"interval", ToJson(scene.figures.interval)},
            {"stages", std::move(stages)},
            {"findings", ToJson(account, scene.findings)}};
}

}  // namespace

void WriteJson(std::ostream& out, const Explained& explained) {
    const Account& account = explained.account;
    const Scheduling* const scheduling = explained.scheduling.get();
    Json json = {{"version", VERSION},
                 {"verdict", VerdictOf(account)},
                 {"capture",
                  {{"files", account.inputs},
                   {"lines", account.lines},
                   {"libraryLines", account.libraryLines},
                   {"notUnderstood", account.notUnderstood},
                   {"lost", account.lost},
                   {"from", account.from.empty() ? Json() : Json(account.from)},
                   {"to", account.to.empty() ? Json() : Json(account.to)}}},
                 {"configurations", ListOf(account.configurations,
                                           [](const auto& loaded) { return ToJson(loaded); })},
                 {"findings", ToJson(account, account.findings)},
                 {"scenes", Json::array()}};
    if (scheduling != nullptr) {
        json["trace"] = {{"file", scheduling->name},
                         {"counters", scheduling->tie.counters},
                         {"within", Milliseconds(scheduling->tie.within)},
                         {"lost", scheduling->trace.lost},
                         {"notes", scheduling->notes}};
    }
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        json["scenes"].push_back(ToJson(account, account.scenes[i]));
        if (scheduling != nullptr) {
            json["scenes"].back()["scheduling"] = ToJson(scheduling->scenes[i], scheduling->trace);
        }
    }
    // Names from a log may hold any bytes.
    out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace tools
