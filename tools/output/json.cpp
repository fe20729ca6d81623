// The account for programs.

#include <nlohmann/json.hpp>

#include "tools/check/check.h"
#include "tools/output/outputs.h"

namespace tools {

// docs/account.schema.json says what is in it, and which changes raise this.
constexpr int VERSION = 2;

// The library looks for functions of this name in the namespace of what it converts, or has a list
// of: hence they are in no unnamed one.
static void to_json(Json& json, const Statistics& statistics) {
    json = {{"count", statistics.count},           {"p50", Milliseconds(statistics.p50)},
            {"p90", Milliseconds(statistics.p90)}, {"p95", Milliseconds(statistics.p95)},
            {"p99", Milliseconds(statistics.p99)}, {"max", Milliseconds(statistics.max)}};
}

static void to_json(Json& json, const FrameRange& range) {
    json = {range.first, range.last};
}

static void to_json(Json& json, const Shares& shares) {
    for (size_t state = 0; state < THREAD_STATES; ++state) {
        json[NameOf(static_cast<ThreadState>(state))] = Milliseconds(shares[state]);
    }
}

static void to_json(Json& json, const CauseLink::Ran& ran) {
    json = {{"thread", ran.thread},
            {"name", ran.name},
            {"priority", ran.priority},
            {"time", Milliseconds(ran.length)}};
}

static void to_json(Json& json, const CauseLink& link) {
    json = {{"thread", link.thread},
            {"name", link.name},
            {"state", NameOf(link.state)},
            {"from", Milliseconds(link.begin)},
            {"time", Milliseconds(link.length)},
            {"pieces", link.pieces},
            {"priority", link.priority},
            {"cpu", link.cpu >= 0 ? Json(link.cpu) : Json()},
            {"ran", link.ran},
            {"waker", link.waker.empty() ? Json() : Json(link.waker)},
            {"interrupt", link.isByInterrupt}};
}

static Json ToJson(const Account& account, const SceneFinding& finding) {
    const bool isPlaced = finding.at.place.line != 0;
    Json json = {{"check", RowOf(KindOf(finding.what)).name},
                 {"severity", NameOf(SeverityOf(finding))},
                 {"frame", finding.frame ? Json(*finding.frame) : Json()},
                 {"frames", RangesOf(finding.own)},
                 {"harmed", RangesOf(finding.harmed)},
                 {"stage", finding.stage >= 0 ? Json(finding.stage) : Json()},
                 {"time", Milliseconds(finding.at.time)},
                 {"times", finding.times},
                 {"line", isPlaced ? Json(finding.at.place.line) : Json()},
                 {"message", finding.message}};
    if (finding.states) {
        json["states"] = *finding.states;
    }
    if (!finding.chain.empty()) {
        json["chain"] = finding.chain;
    }
    if (isPlaced && account.inputs.size() > 1 && finding.at.place.input < account.inputs.size()) {
        json["file"] = account.inputs[finding.at.place.input];
    }
    return json;
}

static Json ToJson(const Account& account, const std::vector<SceneFinding>& findings) {
    Json list = Json::array();
    for (const SceneFinding& finding : findings) {
        list.push_back(ToJson(account, finding));
    }
    return list;
}

static void to_json(Json& json, const Finding& finding) {
    json = {{"check", finding.check},
            {"severity", NameOf(finding.severity)},
            {"message", finding.message}};
}

static void to_json(Json& json, const LoadedConfiguration& loaded) {
    json = {{"process", loaded.process}};
    json.update(JsonOf(loaded.configuration));
    json["findings"] = loaded.findings;
}

static void to_json(Json& json, const Waiting& waiting) {
    json = {{"threads", waiting.threads}, {"inside", waiting.inside}};
}

static Json ToJson(const SceneScheduling& scene, const SchedTrace& trace) {
    Json threads = Json::array();
    for (const ThreadUse& use : scene.threads) {
        Json thread = {{"thread", trace.threads[use.thread].tid},
                       {"name", trace.threads[use.thread].name},
                       {"stages", use.stages},
                       {"handed", scene.isHandedKnown ? Json(use.isHanded) : Json()}};
        thread.update(Json(use.shares));
        threads.push_back(std::move(thread));
    }
    return {{"threads", std::move(threads)},
            {"waiting", {{"handed", scene.handed}, {"others", scene.others}}}};
}

static Json ToJson(const Account& account, const JudgedScene& scene) {
    Json frames = {{"all", scene.figures.frameCount}};
    for (size_t i = 0; i < FRAME_STATUSES; ++i) {
        frames[NameOf(static_cast<FrameStatus>(i))] = scene.figures.statusCounts[i];
    }
    Json stages = Json::array();
    for (size_t i = 0; i < scene.figures.stages.size(); ++i) {
        Json stage = {{"stage", i}, {"node", scene.stageNames[i]}};
        stage.update(Json(scene.figures.stages[i]));
        stage["wait"] = scene.figures.waits[i];
        stage["work"] = scene.figures.works[i];
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
            {"latency", scene.figures.latency},
            {"interval", scene.figures.interval},
            {"stages", std::move(stages)},
            {"findings", ToJson(account, scene.findings)}};
}

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
                 {"configurations", account.configurations},
                 {"findings", ToJson(account, account.findings)},
                 {"scenes", Json::array()}};
    if (scheduling != nullptr) {
        json["trace"] = {{"file", scheduling->trace.name},
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
