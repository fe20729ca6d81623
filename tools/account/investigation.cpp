#include "tools/account/investigation.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cmath>
#include <utility>

namespace tools {
namespace {

// Findings of a kind that are told one by one. More become one.
constexpr int64_t TOLD_ONE_BY_ONE = 5;
// Frames after which nothing more is expected to follow from a trouble.
constexpr int64_t AFTERMATH = 16;
// Frames without which it cannot be said that a stage is never hit.
constexpr size_t ENOUGH_FRAMES = 8;

std::string Milliseconds(Micros time) {
    return std::to_string(std::llround(static_cast<double>(time) / 1000.0));
}

std::string Number(int64_t number) {
    return std::to_string(number);
}

std::string Counted(int64_t count, const std::string& what) {
    return Number(count) + " " + what + (count == 1 ? "" : "s");
}

std::string Fixed(double value) {
    const auto tenths = std::llround(value * 10);
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

// "a, b and c"
std::string Join(const std::vector<std::string>& parts) {
    std::string text;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) {
            text += i + 1 == parts.size() ? " and " : ", ";
        }
        text += parts[i];
    }
    return text;
}

bool HasEnded(const Observed& seen, int32_t stage) {
    return (seen.ended >> stage & 1) != 0;
}

// For comparing names as people misread them: without blanks, in one case.
std::string Simplified(std::string_view name) {
    std::string text;
    for (const char c : name) {
        if (std::isspace(static_cast<unsigned char>(c)) == 0) {
            text += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    return text;
}

}  // namespace

void Usual::Add(Micros length) {
    const Micros bin = std::clamp<Micros>(length / BIN, 0, static_cast<Micros>(bins.size()) - 1);
    ++bins[static_cast<size_t>(bin)];
    ++count;
}

Micros Usual::Median() const {
    // As more are added the median hardly moves.
    if (count > medianOf + medianOf / 16) {
        int64_t below = 0;
        size_t bin = 0;
        while (below + bins[bin] <= count / 2) {
            below += bins[bin++];
        }
        median = static_cast<Micros>(bin) * BIN;
        medianOf = count;
    }
    return median;
}

void Investigation::FrameList::Add(int64_t frame) {
    isUnbroken = isUnbroken && (count == 0 || frame == last + 1);
    last = frame;
    ++count;
    if (first.size() < 6) {
        first.push_back(frame);
    }
}

std::string Investigation::FrameList::ToString() const {
    if (count > 2 && isUnbroken) {
        return Number(first.front()) + " to " + Number(last);
    }
    std::vector<std::string> parts;
    for (const int64_t frame : first) {
        parts.push_back(Number(frame));
    }
    const auto more = count - static_cast<int64_t>(first.size());
    if (more > 0) {
        parts.push_back(Number(more) + " more");
    }
    return Join(parts);
}

Investigation::Investigation(Scene& investigated, const Progress& sceneProgress, Listener onFinding)
    : scene(investigated), progress(sceneProgress), listener(std::move(onFinding)) {}

std::string Investigation::StageName(int32_t stage) const {
    std::string text = "stage " + std::to_string(stage);
    const auto index = static_cast<size_t>(stage);
    if (stage >= 0 && index < scene.stageNames.size() && !scene.stageNames[index].empty()) {
        text += " (" + scene.stageNames[index] + ")";
    }
    return text;
}

Investigation::Trouble& Investigation::Raise(const char* check, Severity severity,
                                             const Observed& seen, int32_t stage,
                                             std::string what) {
    Trouble& trouble = troubles.emplace_back();
    trouble.id = ++lastId;
    trouble.touched = examined;
    AccountedFinding& finding = trouble.finding;
    finding.check = check;
    finding.severity = severity;
    finding.message = std::move(what);
    finding.place = seen.trouble.line != 0 ? seen.trouble : lastOfFrame;
    finding.time = seen.troubleTime;
    finding.frame = seen.number;
    finding.stage = stage;
    return trouble;
}

// The one trouble of that kind and stage that the scene has; it counts another frame.
Investigation::Trouble& Investigation::RaiseOfScene(const char* check, Severity severity,
                                                    const Observed& seen, int32_t stage,
                                                    std::string what) {
    const auto found = std::find_if(troubles.begin(), troubles.end(), [&](const Trouble& trouble) {
        return trouble.isOfScene && trouble.finding.check == check &&
               trouble.finding.stage == stage;
    });
    Trouble& trouble =
        found != troubles.end() ? *found : Raise(check, severity, seen, stage, std::move(what));
    trouble.isOfScene = true;
    trouble.frames.Add(seen.number);
    return trouble;
}

Investigation::Trouble* Investigation::Find(int64_t id) {
    const auto found = std::find_if(troubles.begin(), troubles.end(),
                                    [id](const Trouble& trouble) { return trouble.id == id; });
    return found == troubles.end() ? nullptr : &*found;
}

// The trouble of missing lines that the scene's `hole`-th frame may suffer from.
Investigation::Trouble* Investigation::FindLostLines(size_t hole) {
    const auto found =
        std::find_if(troubles.begin(), troubles.end(), [hole](const Trouble& trouble) {
            return trouble.finding.check == "lines-lost" && hole <= trouble.hole + AFTERMATH &&
                   trouble.hole <= hole + AFTERMATH;
        });
    return found == troubles.end() ? nullptr : &*found;
}

// One hole shows in many places, and all are one trouble.
Investigation::Trouble& Investigation::RaiseLostLines(const Observed& seen, size_t hole) {
    Trouble* trouble = FindLostLines(hole);
    if (trouble == nullptr) {
        trouble = &Raise("lines-lost", Severity::Warning, seen, -1, "");
        trouble->costsFrame = false;
        trouble->finding.frame.reset();
    }
    trouble->hole = std::max(trouble->hole, hole);
    return *trouble;
}

// The trouble of the frame before that kept this one from being started as it should have been.
Investigation::Trouble* Investigation::CauseBefore(const Observed& seen) {
    for (const Examined& before : recent) {
        if (before.opensNoFollower && before.trouble != 0 && before.number < seen.number) {
            Trouble* trouble = Find(before.trouble);
            // A node that reports nothing for a while leaves frames that nobody ever speaks of.
            if (trouble != nullptr) {
                return trouble;
            }
        }
        if (before.number == seen.number - 1) {
            break;
        }
    }
    return nullptr;
}

// The first stage that the frame was not told to have left; the stage count when there is none.
int32_t Investigation::StageNotLeft(const Observed& seen) const {
    return std::min(std::countr_one(seen.ended), scene.stageCount);
}

void Investigation::Examine(const Observed& seen, size_t position) {
    ++examined;
    Frame& frame = scene.frames[position];
    if (seen.isDoubtful) {
        frame.interval = NO_TIME;
    }
    lastOfFrame = frame.place;
    for (const Observed::End& end : seen.ends) {
        const bool isLater = std::pair(end.place.input, end.place.line) >
                             std::pair(lastOfFrame.input, lastOfFrame.line);
        lastOfFrame = isLater ? end.place : lastOfFrame;
    }
    frame.isLate = frame.interval != NO_TIME && frame.interval > scene.lateThreshold;
    if (frame.isLate) {
        ++scene.lateFrames;
    }
    const int32_t stageNotLeft = StageNotLeft(seen);
    if (frame.stage < 0 && frame.status != FrameStatus::Complete &&
        stageNotLeft < scene.stageCount) {
        frame.stage = stageNotLeft;
    }

    Trouble* cause = nullptr;
    if (!seen.isEarly) {
        Trouble* delay = frame.isLate ? FindDelay(seen, frame, position) : nullptr;
        const bool isPushedOutByDelay = delay != nullptr && frame.status == FrameStatus::Evicted &&
                                        seen.ended >> (scene.stageCount - 1) != 0;
        if (isPushedOutByDelay) {
            delay->evicted.Add(seen.number);
            cause = delay;
        } else {
            cause = FindStatusCause(seen, frame, scene.StagesOf(position), stageNotLeft);
        }
        JoinWaiting(seen, position);
        if (cause == nullptr) {
            cause = delay;
        }
    }
    if (cause != nullptr) {
        cause->touched = examined;
        frame.hasFinding = true;
        if (frame.status != FrameStatus::Complete && cause->finding.check == "lines-lost") {
            frame.reason = Outcome::Unknown;
            ++scene.untold;
        } else if (frame.status != FrameStatus::Complete) {
            ++scene.notBoosted;
        }
    }
    if (seen.isDoubtful) {
        NoteAbsent(seen, position);
    }
    hasStarted = hasStarted || seen.isStarted;
    recent.push_front({seen.number, cause == nullptr ? 0 : cause->id, frame.output,
                       seen.overtakenStage == 0 || !HasEnded(seen, 0) ||
                           frame.status == FrameStatus::Unseen ||
                           frame.status == FrameStatus::Refused || seen.repeatedStage == 0});
    if (recent.size() > 8) {
        recent.pop_back();
    }
    CloseTroubles(false);
}

// What a frame that does not follow the newest one came after.
std::string Investigation::DescribeGap(const Observed& seen) {
    const int64_t newest = seen.newestBefore;
    if (newest == NO_FRAME) {
        return " came after a gap";
    }
    std::string text = " came after frame " + Number(newest);
    if (static_cast<int32_t>(newest) == static_cast<int32_t>(seen.number - 1)) {
        return text + ": frame numbers do not fit into 32 bits any more";
    }
    FrameList missing;
    for (int64_t number = newest + 1; number < seen.number && missing.count < 1000; ++number) {
        missing.Add(number);
    }
    return missing.count == 0 ? text : text + "; " + missing.ToString() + " never started";
}

// Why the frame's status is what it is; null where nothing is wrong with it.
Investigation::Trouble* Investigation::FindStatusCause(const Observed& seen, const Frame& frame,
                                                       std::span<const StageTimes> times,
                                                       int32_t stageNotLeft) {
    const std::string name = "frame " + Number(seen.number);
    const bool isComplete = frame.status == FrameStatus::Complete;
    // Of a frame that is lost, the line that last tells of it is the one to look at.
    const auto index = static_cast<size_t>(stageNotLeft);
    Observed last = seen;
    last.trouble = stageNotLeft > 0 ? seen.ends[index - 1].place : frame.place;
    last.troubleTime = stageNotLeft > 0 ? times[index - 1].end : frame.start;
    const bool hasStageLeft = stageNotLeft < scene.stageCount;
    const bool isAnyStageHit = std::any_of(progress.newest.begin(), progress.newest.end(),
                                           [](size_t newest) { return newest != Progress::NONE; });
    // The HAL ended it although it had not gone through all stages, as others do.
    const bool isGivenUp =
        seen.isEndedDirectly && hasStageLeft && isAnyStageHit && seen.ended >> stageNotLeft == 0;
    const bool wentOn =
        hasStageLeft && !isGivenUp && (seen.ended >> stageNotLeft != 0 || seen.hasEnded);
    if (seen.isDoubtful && (seen.isLineMissing || isGivenUp || !isComplete)) {
        Trouble& trouble = RaiseLostLines(last, seen.index);
        // The best to name is the first that nobody saw come out of the first stage.
        if (!trouble.namesFrame) {
            trouble.namesFrame = !HasEnded(seen, 0);
            if (trouble.namesFrame || !trouble.finding.frame) {
                trouble.finding.frame = seen.number;
            }
        }
        if (!isComplete) {
            trouble.untold.Add(seen.number);
        }
        return &trouble;
    }

    if (!isComplete && hasStageLeft && isAnyStageHit && progress.newest[index] == Progress::NONE &&
        scene.frames.size() >= ENOUGH_FRAMES) {
        return &RaiseOfScene("stage-never-hit", Severity::Error, seen, stageNotLeft,
                             "no frame ever left " + StageName(stageNotLeft));
    }
    // Without a stage to tell by, it is frames that were ended later.
    const size_t overtaker =
        isAnyStageHit && hasStageLeft ? progress.newest[index] : progress.newestEnded;
    const bool isLost = isGivenUp || (!wentOn && !seen.IsThrough(scene.stageCount) &&
                                      overtaker != Progress::NONE && overtaker > seen.index);
    const auto raiseLost = [&](const char* how) {
        return &Raise("frame-lost", Severity::Error, last, stageNotLeft,
                      name + " never left " +
                          (hasStageLeft ? StageName(stageNotLeft) : "the pipeline") +
                          (stageNotLeft > 0 && stageNotLeft + 1 == scene.stageCount
                               ? ", or its end there was not reported"
                               : "") +
                          how);
    };
    const auto raiseRepeat = [&](Severity severity) {
        const auto& first = seen.ends[static_cast<size_t>(seen.repeatedStage)];
        const std::string stage = name + ": " + StageName(seen.repeatedStage);
        return first.port != seen.repeat.port
                   ? &Raise("second-port", severity, seen, seen.repeatedStage,
                            stage + " ended twice, on port " + std::to_string(first.port) +
                                " and on port " + std::to_string(seen.repeat.port))
                   : &Raise("stage-order", severity, seen, seen.repeatedStage,
                            stage + " was reported twice");
    };

    // That is then behind whatever else befell the frame.
    if (seen.repeatedStage >= 0 &&
        seen.ends[static_cast<size_t>(seen.repeatedStage)].camera != seen.repeat.camera) {
        return &RaiseOfScene("two-cameras", Severity::Error, seen, -1, "");
    }

    // What did no harm to the frame.
    const auto raiseHarmless = [&]() -> Trouble* {
        Trouble* trouble = nullptr;
        if (seen.repeatedStage >= 0) {
            trouble = raiseRepeat(Severity::Warning);
        } else if (seen.isDuplicate) {
            trouble = &Raise("duplicate-frame", Severity::Warning, seen, -1,
                             name + " was started again while it was in flight");
        } else if (seen.overtakenStage >= 0) {
            // Only the first stage's order matters to the library.
            trouble = &Raise("stage-order",
                             seen.overtakenStage == 0 ? Severity::Error : Severity::Warning, seen,
                             seen.overtakenStage,
                             name + " left " + StageName(seen.overtakenStage) + " after frame " +
                                 Number(seen.overtaker) + ", out of order");
        }
        if (trouble != nullptr) {
            trouble->costsFrame = false;
        }
        return trouble;
    };

    Trouble* before = isComplete ? nullptr : CauseBefore(seen);
    switch (frame.status) {
        case FrameStatus::Complete:
            if (isGivenUp) {
                Trouble* trouble = raiseLost(", and the HAL ended it");
                trouble->finding.severity = Severity::Warning;
                trouble->costsFrame = false;
                return trouble;
            }
            return raiseHarmless();
        case FrameStatus::Unseen:
            if (before != nullptr) {
                before->unseen.Add(seen.number);
                return before;
            }
            // The first frames were in the pipeline already when the scene was started.
            return !hasStarted ? nullptr
                               : &Raise("frame-gap", Severity::Error, seen, -1,
                                        name + " was never started: the end of " + StageName(0) +
                                            " of the frame before it was not reported");
        case FrameStatus::Refused:
            if (frame.reason == Outcome::AlreadyInFlight) {
                return &Raise("duplicate-frame", Severity::Error, seen, -1,
                              name + " was started while a frame of that number was in flight");
            }
            if (before != nullptr) {
                before->refused.Add(seen.number);
                return before;
            }
            return &Raise("frame-gap", Severity::Error, seen, -1, name + DescribeGap(seen));
        case FrameStatus::Error:
            break;
        case FrameStatus::Evicted:
        case FrameStatus::Open:
            if (isLost) {
                return raiseLost("");
            }
            if (wentOn && frame.status == FrameStatus::Open) {
                return &Raise(
                    "stage-unreported", Severity::Error, seen, stageNotLeft,
                    name + ": the end of " + StageName(stageNotLeft) + " was never reported");
            }
            if (frame.status == FrameStatus::Evicted) {
                if (Trouble* delay = Find(delayId)) {
                    delay->evicted.Add(seen.number);
                    return delay;
                }
                return &Raise("evicted", Severity::Error, seen, stageNotLeft,
                              name + " was pushed out of the table: too many frames in flight");
            }
            return raiseHarmless();
    }

    if (seen.isReportedByHal && isLost) {
        return raiseLost(", as the HAL reported");
    }
    if (seen.violation == Outcome::Forwarded) {
        return &Raise("frame-reported", Severity::Warning, seen, frame.stage,
                      name + " was reported as bad by the HAL");
    }
    if (seen.isDuplicate) {
        if (before != nullptr) {
            before->inError.Add(seen.number);
            return before;
        }
        return &Raise("duplicate-frame", Severity::Error, seen, -1,
                      name + " was started again while it was in flight");
    }
    if (seen.repeatedStage >= 0) {
        return raiseRepeat(Severity::Error);
    }
    if (wentOn) {
        return &Raise("stage-unreported", Severity::Error, seen, stageNotLeft,
                      name + " went on to " + StageName(seen.violationStage) + ", but the end of " +
                          StageName(stageNotLeft) + " was never reported");
    }
    std::string what = name + ": " + StageName(seen.violationStage);
    if (seen.violation == Outcome::NoSuchStage) {
        what += " does not exist, there are " + std::to_string(scene.stageCount);
    } else if (seen.violation == Outcome::OutOfOrder) {
        what += (seen.violationOther < seen.violationStage ? " was reported before "
                                                           : " was reported after ") +
                StageName(seen.violationOther) +
                (seen.violationOther < seen.violationStage ? " had ended" : " had begun");
    } else {
        what += " was reported out of turn";
    }
    // Two stages that changed places are told by the one that was to come first.
    const int32_t stage =
        seen.violation == Outcome::OutOfOrder && seen.violationOther < seen.violationStage
            ? seen.violationOther
            : seen.violationStage;
    return &Raise("stage-order", Severity::Error, seen, stage, std::move(what));
}

// What made a late frame late.
Investigation::Trouble* Investigation::FindDelay(const Observed& seen, const Frame& frame,
                                                 size_t position) {
    const auto late = [&](Trouble* trouble) {
        trouble->late.Add(seen.number);
        trouble->longest = std::max(trouble->longest, frame.interval);
        return trouble;
    };
    const Micros period = progress.intervals.Median();
    const Micros excess = frame.interval - period;
    Micros missing = 0;
    for (const Examined& before : recent) {
        if (before.output != NO_TIME && before.output < frame.output) {
            break;
        }
        missing += period;
        Trouble* trouble = before.trouble != 0 ? Find(before.trouble) : nullptr;
        if (trouble != nullptr && excess - missing < period / 2) {
            return late(trouble);
        }
    }

    int32_t stage = -1;
    Micros longestWork = 0, longestWait = 0;
    const auto times = scene.StagesOf(position);
    for (int32_t s = 0; s < scene.stageCount; ++s) {
        const auto i = static_cast<size_t>(s);
        if (times[i].work == NO_TIME) {
            continue;
        }
        if (const Micros work = times[i].work - progress.works[i].Median(); work > longestWork) {
            longestWork = work;
            stage = s;
        }
        longestWait = std::max(longestWait, times[i].wait - progress.waits[i].Median());
    }
    if (stage < 0 || longestWork < longestWait || longestWork < excess / 2) {
        if (Trouble* delay = longestWait >= excess / 2 ? Find(delayId) : nullptr) {
            return late(delay);
        }
        return late(&RaiseOfScene("late", Severity::Note, seen, -1, ""));
    }

    const auto i = static_cast<size_t>(stage);
    const std::string took = Milliseconds(times[i].work) +
                             " ms (usual: " + Milliseconds(progress.works[i].Median()) + ")";
    const std::string name = "frame " + Number(seen.number);
    Observed moment = seen;
    moment.trouble = seen.ends[i].place;
    moment.troubleTime = times[i].end;
    if (stage == 0 && !IsCaughtUp(position, longestWork)) {
        Trouble& trouble =
            Raise("sensor-stall", Severity::Warning, moment, stage,
                  name + " came out late: it left " + StageName(0) + " only after " + took +
                      "; the frames behind it kept their distance, so the sensor stood still");
        trouble.costsFrame = false;
        return &trouble;
    }
    Trouble& trouble = Raise("slow-stage", Severity::Warning, moment, stage,
                             name + " came out late: " + StageName(stage) + " took " + took);
    trouble.costsFrame = false;
    delayId = trouble.id;
    return &trouble;
}

// Whether frames that queued at the first stage came out of it faster than usual afterwards: it was
// its node that was slow then, and not the sensor.
bool Investigation::IsCaughtUp(size_t position, Micros excess) const {
    const Micros usual = progress.works[0].Median();
    Micros won = 0;
    for (size_t next = position + 1; next < std::min(position + 9, scene.frames.size()); ++next) {
        const StageTimes& times = scene.StagesOf(next)[0];
        if (times.work != NO_TIME) {
            won += std::max<Micros>(usual - times.work, 0);
        }
    }
    return won > excess / 2;
}

// Where lines are missing there may be none left of a frame.
void Investigation::NoteAbsent(const Observed& seen, size_t position) {
    constexpr size_t NEAR = 8;     // Frames come that much out of order at most.
    constexpr int64_t MANY = 100;  // Beyond that the numbers mean something else.
    Trouble* open = FindLostLines(seen.index);
    if (open == nullptr || recent.empty()) {
        return;
    }
    int64_t newest = recent.front().number;
    for (const Examined& before : recent) {
        newest = std::max(newest, before.number);
    }
    const auto from = scene.frames.begin() + static_cast<std::ptrdiff_t>(position);
    const auto to =
        from + static_cast<std::ptrdiff_t>(std::min(NEAR, scene.frames.size() - position));
    for (int64_t number = newest + 1; number < seen.number && seen.number - newest <= MANY;
         ++number) {
        if (std::none_of(from, to, [number](const Frame& next) { return next.number == number; })) {
            open->absent.Add(number);
        }
    }
}

void Investigation::JoinWaiting(const Observed& seen, size_t position) {
    Trouble* delay = Find(delayId);
    if (delay == nullptr || delay->finding.frame == seen.number) {
        return;
    }
    const Micros noticeable = std::max<Micros>(progress.intervals.Median() / 5, 3000);
    const auto times = scene.StagesOf(position);
    for (size_t i = 0; i < times.size(); ++i) {
        if (times[i].wait != NO_TIME && times[i].wait - progress.waits[i].Median() >= noticeable) {
            delay->waited.Add(seen.number);
            delay->touched = examined;
            // Waiting does not make a lost one of what is in flight at the end.
            scene.frames[position].hasFinding |= scene.frames[position].status != FrameStatus::Open;
            return;
        }
    }
    // A single frame may slip through between two that wait.
    if (examined > delay->touched + 2) {
        delayId = 0;
    }
}

void Investigation::NoteLostLines(const Disturbance& disturbance, size_t opened) {
    Observed seen;
    seen.trouble = disturbance.place;
    seen.troubleTime = disturbance.time;
    Trouble& trouble = RaiseLostLines(seen, opened);
    trouble.lines += std::max<int64_t>(disturbance.amount, 1);
    // Frames that it may concern are examined only when others have followed them.
    trouble.touched = examined + 4 * AFTERMATH;
}

void Investigation::NoteFinding(AccountedFinding finding) {
    if (listener) {
        listener(finding);
    }
    scene.findings.push_back(std::move(finding));
}

void Investigation::NoteIgnored(const std::string& node, int32_t port, const Place& place) {
    const auto found = std::find_if(ignored.begin(), ignored.end(), [&](const Ignored& other) {
        return other.port == port && other.node == node;
    });
    if (found != ignored.end()) {
        ++found->times;
    } else if (ignored.size() < 256) {  // More are no nodes, but nonsense.
        ignored.push_back({node, port, 1, place});
    }
}

void Investigation::CloseTroubles(bool all) {
    for (auto trouble = troubles.begin(); trouble != troubles.end();) {
        if (all || (!trouble->isOfScene && examined > trouble->touched + AFTERMATH)) {
            Conclude(*trouble);
            trouble = troubles.erase(trouble);
        } else {
            ++trouble;
        }
    }
}

// Puts a trouble and what followed from it into words.
void Investigation::Conclude(Trouble& trouble) {
    AccountedFinding& finding = trouble.finding;
    std::string& text = finding.message;
    if (finding.check == "late") {
        const std::string limit = Fixed(static_cast<double>(scene.lateThreshold) / 1000.0) + " ms";
        const Micros usual = progress.intervals.Median();
        text = Number(trouble.late.count) + " of " + Number(examined) +
               " frames came out late, more than " + limit +
               " after the frame before, and no single stage was to blame (" +
               trouble.late.ToString() + "); the longest interval was " +
               Milliseconds(trouble.longest) + " ms";
        if (usual > scene.lateThreshold) {
            text += "; the camera delivers a frame each " + Milliseconds(usual) +
                    " ms, fewer than described";
        }
        finding.times = trouble.late.count;
        if (trouble.late.count * 200 > examined || trouble.longest > 2 * scene.lateThreshold) {
            finding.severity = Severity::Warning;
        }
        return NoteFinding(finding);
    }
    if (finding.check == "two-cameras") {
        text = "two cameras report their nodes here as one: " +
               Counted(trouble.frames.count, "frame") + " left a stage once for each (" +
               trouble.frames.ToString() + "); what else is found here may come from that";
        finding.times = trouble.frames.count;
        return NoteFinding(finding);
    }
    if (finding.check == "lines-lost") {
        text = (trouble.lines > 1 ? Number(trouble.lines) + " lines" : std::string("lines")) +
               " of the capture are missing" +
               (finding.frame ? " around frame " + Number(*finding.frame) : "");
        if (trouble.untold.count > 0) {
            text += ": what became of " + trouble.untold.ToString() + " cannot be told";
        }
        if (trouble.absent.count > 0) {
            text += (trouble.untold.count > 0 ? "; of " : ": of ") + trouble.absent.ToString() +
                    " no line is left, so that no count includes " +
                    (trouble.absent.count == 1 ? "it" : "them");
        }
    }
    if (trouble.isOfScene) {
        text += "; " + Counted(trouble.frames.count, "frame") + " not boosted to the end";
        finding.times = trouble.frames.count;
        return NoteFinding(finding);
    }

    std::vector<std::string> consequences;
    const auto tell = [&consequences](const FrameList& frames, const char* one, const char* many) {
        if (frames.count > 0) {
            consequences.push_back(frames.ToString() + (frames.count == 1 ? one : many));
        }
    };
    tell(trouble.unseen, " was not in flight", " were not in flight");
    tell(trouble.refused, " came after a gap and was refused",
         " came after a gap and were refused");
    tell(trouble.inError, " was in error", " were in error");
    tell(trouble.evicted, " was pushed out of the table", " were pushed out of the table");
    if (!consequences.empty()) {
        text += "; therefore " + Join(consequences);
    }
    const int64_t cost = trouble.unseen.count + trouble.refused.count + trouble.inError.count +
                         trouble.evicted.count + (trouble.costsFrame ? 1 : 0);
    if (cost > 0) {
        text += ": " + Counted(cost, "frame") + " not boosted";
    }
    consequences.clear();
    tell(trouble.waited, " waited behind it", " waited behind it");
    if (trouble.waited.count == 0) {
        tell(trouble.late, " came out late", " came out late");
    }
    if (!consequences.empty()) {
        text += "; " + Join(consequences);
    }

    Kind& kind = kinds[{finding.check, finding.stage}];
    ++kind.times;
    if (finding.frame) {
        kind.frames.Add(*finding.frame);
    }
    if (kind.times <= TOLD_ONE_BY_ONE) {
        NoteFinding(std::move(finding));
    }
}

void Investigation::TellIgnored(const std::optional<Configuration>& configuration) {
    for (const Ignored& node : ignored) {
        AccountedFinding finding;
        finding.check = "node-ignored";
        finding.place = node.place;
        finding.times = node.times;
        finding.message = "node \"" + node.node + "\", port " + std::to_string(node.port) +
                          ", ends no stage; reported " + Number(node.times) + " times";
        if (configuration) {
            for (const ConfiguredStage& stage : configuration->stages) {
                const auto index = static_cast<size_t>(stage.stage);
                const bool isHit =
                    index < progress.newest.size() && progress.newest[index] != Progress::NONE;
                const bool isNamed = node.node.find(stage.node) != std::string::npos;
                if (!isNamed &&
                    Simplified(node.node).find(Simplified(stage.node)) == std::string::npos) {
                    continue;
                }
                finding.stage = stage.stage;
                if (isNamed) {
                    std::vector<std::string> ports;
                    for (const int32_t port : stage.ports) {
                        ports.push_back(std::to_string(port));
                    }
                    finding.message += "; stage " + std::to_string(stage.stage) + " expects " +
                                       (ports.empty() ? "no port" : "port " + Join(ports));
                } else {
                    finding.message += "; stage " + std::to_string(stage.stage) + " expects \"" +
                                       stage.node + "\", which differs in case or blanks";
                }
                if (!isHit || !isNamed) {
                    finding.severity = Severity::Warning;
                }
                break;
            }
        }
        NoteFinding(std::move(finding));
    }
}

// Many of a kind become one finding.
void Investigation::FoldKinds() {
    std::vector<AccountedFinding>& findings = scene.findings;
    for (const auto& [key, kind] : kinds) {
        if (kind.times <= TOLD_ONE_BY_ONE) {
            continue;
        }
        const auto isOfKind = [checked = key](const AccountedFinding& finding) {
            return finding.check == checked.first && finding.stage == checked.second;
        };
        const auto first = std::find_if(findings.begin(), findings.end(), isOfKind);
        first->times = kind.times;
        first->message = Number(kind.times) + " times, at " + kind.frames.ToString() +
                         "; the first: " + first->message;
        for (const AccountedFinding& finding : findings) {
            if (isOfKind(finding)) {
                first->severity = std::max(first->severity, finding.severity);
            }
        }
        findings.erase(std::remove_if(first + 1, findings.end(), isOfKind), findings.end());
    }
}

void Investigation::Close(const std::vector<int64_t>& holders, size_t places,
                          const std::optional<Configuration>& configuration) {
    CloseTroubles(true);
    TellIgnored(configuration);
    // Where no frame gets through, it goes without saying that they pile up.
    const bool isAnyThrough = std::none_of(
        scene.findings.begin(), scene.findings.end(),
        [](const AccountedFinding& finding) { return finding.check == "stage-never-hit"; });
    if (isAnyThrough && (!holders.empty() || pushedOut > 0)) {
        FrameList frames;
        for (const int64_t holder : holders) {
            frames.Add(holder);
        }
        AccountedFinding finding;
        finding.check = "slots-held";
        finding.place = scene.to;
        finding.time = scene.end;
        finding.times = frames.count;
        finding.severity =
            pushedOut > 0 || 2 * holders.size() >= places ? Severity::Warning : Severity::Note;
        finding.message = Counted(frames.count, "lost frame") + " (" + frames.ToString() +
                          ") still held " + (frames.count == 1 ? "its place" : "their places") +
                          " of the " + std::to_string(places) + " at the end of the scene";
        if (frames.count == 0) {
            finding.message = "no lost frame held a place at the end of the scene";
        }
        if (pushedOut > 0) {
            finding.message += "; " + Number(pushedOut) +
                               " had been pushed out by newer frames when there were too many";
        }
        NoteFinding(std::move(finding));
    }
    FoldKinds();
    std::stable_sort(scene.findings.begin(), scene.findings.end(),
                     [](const AccountedFinding& one, const AccountedFinding& other) {
                         return one.severity != other.severity
                                    ? one.severity > other.severity
                                    : std::pair(one.place.input, one.place.line) <
                                          std::pair(other.place.input, other.place.line);
                     });
}

}  // namespace tools
