#include "tools/account/account.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/base/text.h"
#include "tools/log/message.h"

namespace tools {

const char* NameOf(FrameStatus status) {
    static constexpr const char* NAMES[FRAME_STATUSES] = {"complete", "dropped", "error", "evicted",
                                                          "refused",  "unseen",  "open"};
    return NAMES[static_cast<size_t>(status)];
}

const char* NameOf(Check check) {
    static constexpr const char* NAMES[CHECKS] = {"scene-refused",
                                                  "disabled",
                                                  "two-cameras",
                                                  "frame-lost",
                                                  "frame-gap",
                                                  "numbers-restart",
                                                  "duplicate-frame",
                                                  "stage-order",
                                                  "stage-unreported",
                                                  "second-port",
                                                  "stage-never-hit",
                                                  "stuck",
                                                  "slow-stage",
                                                  "sensor-stall",
                                                  "standstill",
                                                  "rate",
                                                  "late",
                                                  "evicted",
                                                  "slots-held",
                                                  "thread-not-set",
                                                  "node-ignored",
                                                  "lines-lost",
                                                  "clock-jump",
                                                  "not-understood",
                                                  "cpu-wait"};
    return NAMES[static_cast<size_t>(check)];
}

const char* NameOf(ThreadState state) {
    static constexpr const char* NAMES[THREAD_STATES] = {"running", "runnable", "sleeping",
                                                         "blocked", "gone",     "unknown"};
    return NAMES[static_cast<size_t>(state)];
}

const char* ReasonOf(Reason reason) {
    static const char* const TEXTS[] = {"",
                                        RefusalOf(MessageKind::FrameNotContinuous),
                                        RefusalOf(MessageKind::FrameAlreadyExists),
                                        RefusalOf(MessageKind::EndedFrameNotExist),
                                        RefusalOf(MessageKind::StageNotInRange),
                                        RefusalOf(MessageKind::StageOutOfOrder),
                                        RefusalOf(MessageKind::StageOutOfTurn),
                                        TABLE_FULL,
                                        "ended before it had been through all stages",
                                        "not seen to leave the stage",
                                        "lines of the log are missing"};
    return TEXTS[static_cast<size_t>(reason)];
}

Micros Scene::ArrivalOf(size_t frame, int32_t stage) const {
    for (int32_t before = stage - 1; before >= 0; --before) {
        if (PassOf(frame, before).HasLeft()) {
            return PassOf(frame, before).left;
        }
    }
    return stage == 0 ? frames[frame].start : NO_TIME;
}

StageTimes Scene::TimesOf(size_t frame, int32_t stage) const {
    const StagePass& pass = PassOf(frame, stage);
    StageTimes times{.start = ArrivalOf(frame, stage), .end = pass.left};
    if (pass.HasLeft() && times.start != NO_TIME && pass.begin != NO_TIME) {
        const Micros length = std::max<Micros>(pass.left - times.start, 0);
        times.work = std::min(pass.left - pass.begin, length);
        times.wait = length - times.work;
    }
    return times;
}

Severity WorstOf(const Account& account) {
    Severity worst = Severity::Note;
    for (const SceneFinding& finding : account.findings) {
        worst = std::max(worst, finding.severity);
    }
    for (const Scene& scene : account.scenes) {
        for (const SceneFinding& finding : scene.findings) {
            worst = std::max(worst, finding.severity);
        }
    }
    return worst;
}

std::set<int32_t> CamerasOf(const Scene& scene) {
    std::set<int32_t> cameras;
    for (const Reporter& reporter : scene.reporters) {
        cameras.insert(reporter.camera);
    }
    return cameras;
}

void Totals::Add(const Account& account, int64_t sign) {
    worst = std::max(worst, WorstOf(account));
    for (const Scene& scene : account.scenes) {
        frames += sign * (scene.frameCount - scene.onlyOpened);
        mixed += sign * (scene.isMixed ? scene.frameCount - scene.onlyOpened : 0);
        neverOut += sign * std::ssize(scene.neverOut);
        notBoosted += sign * scene.notBoosted;
        untold += sign * scene.untold;
        late += sign * scene.lateFrames;
        if (scene.isStarted) {
            lateThreshold = std::max(lateThreshold, scene.lateThreshold);
            isStarted = true;
        }
    }
}

std::string LateText(Micros lateThreshold) {
    return Fixed(static_cast<double>(lateThreshold) / 1000, 1);
}

std::string VerdictOf(const Account& account) {
    Totals totals;
    totals.Add(account);
    return VerdictOf(totals);
}

// What a viewer of the video would see comes first: frames that never came out, and late ones.
std::string VerdictOf(const Totals& totals) {
    const auto& [frames, mixed, neverOut, notBoosted, untold, late, lateThreshold, isStarted,
                 worst] = totals;
    if (!isStarted) {
        return "Nothing was boosted: no scene was started.";
    }
    const bool isWell = worst == Severity::Note;
    if (frames <= 0) {
        return isWell ? "Nothing was boosted: no frame was reported."
                      : "Nothing was boosted: no frame was reported, and there is something to "
                        "look at.";
    }
    const std::string all = Counted(frames, "frame");
    std::vector<std::string> parts;
    if (neverOut > 0) {
        parts.push_back(fmt::format("{} never came out", neverOut));
    }
    if (late > 0) {
        parts.push_back(fmt::format("{} came out late, more than {} ms after the frame before",
                                    late, LateText(lateThreshold)));
    }
    if (notBoosted > 0) {
        parts.push_back(fmt::format("{} {} not boosted from start to end", notBoosted,
                                    notBoosted == 1 ? "was" : "were"));
    }
    if (untold > 0) {
        parts.push_back(
            fmt::format("what became of {} is not known, as lines of the log are missing", untold));
    }
    if (mixed > 0) {
        parts.push_back(
            fmt::format("what became of {} is not known, as two objects record at once", mixed));
    }
    if (parts.empty()) {
        return isWell ? fmt::format("All is well: {}, all boosted, none late.", all)
                      : fmt::format(
                            "{}, all boosted, none late, but there is something to look at.", all);
    }
    std::string verdict = "Of " + all + " ";
    for (size_t i = 0; i < parts.size(); ++i) {
        verdict += (i > 0 ? "; " : "") + parts[i];
    }
    return verdict + ".";
}

std::string LineOf(const Account& account, const Scene* scene, const SceneFinding& finding) {
    Finding told;
    told.check = NameOf(finding.check);
    told.severity = finding.severity;
    told.message = finding.message;
    told.place = finding.place;
    if (scene != nullptr && finding.time > scene->begin) {
        told.message += fmt::format(" ({:.3f} s into the scene)",
                                    static_cast<double>(finding.time - scene->begin) / 1e6);
    }
    if (finding.place.line == 0) {
        return fmt::format("{}: {} [{}]", NameOf(told.severity), told.message, told.check);
    }
    return ToString(told, finding.place.input < account.inputs.size()
                              ? account.inputs[finding.place.input]
                              : "line");
}

}  // namespace tools
