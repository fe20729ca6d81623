#include "tools/account/scene_account.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "cameraframeboost/tarvocameraframeboostutils.h"

namespace tools {
namespace {

// Frames that are seen before one is examined: what became of it shows by then.
constexpr size_t WINDOW = 64;
// Of those, the ones that are seen when it is judged whether lines about a frame are missing: its
// neighbours that suffer from that have not been examined yet.
constexpr size_t JUDGED_AHEAD = 24;
// Frames at the beginning of a capture from the middle of a scene that nothing is said about.
constexpr size_t EARLY = 24;
// Frames that are kept where frames need not be kept.
constexpr size_t KEPT = 4096;
constexpr Micros SECOND = 1'000'000;
constexpr int32_t MAX_STAGES = 64;  // Observed::ended has a bit a stage.
constexpr size_t PLACES = FrameTracker::DEFAULT_MAX_FRAME_TRACKED;

int32_t KeyOf(int64_t number) {
    return static_cast<int32_t>(number);
}

Place PlaceOf(const Step& step, const Event& event) {
    return event.place.line != 0 ? event.place : step.place;
}

void NoteTrouble(Observed& seen, const Step& step, const Event& event) {
    if (seen.trouble.line == 0) {
        seen.trouble = PlaceOf(step, event);
        seen.troubleTime = step.time;
    }
}

Statistics StatisticsOf(std::vector<Micros>& values) {
    Statistics statistics;
    statistics.count = static_cast<int64_t>(values.size());
    if (values.empty()) {
        return statistics;
    }
    // The smallest value that as many per cent are not above. Each search has only to look above
    // the one before.
    auto from = values.begin();
    const auto percentile = [&](double share) {
        const auto rank = static_cast<size_t>(
            std::max(std::ceil(share * static_cast<double>(values.size())) - 1, 0.0));
        const auto nth = values.begin() + static_cast<std::ptrdiff_t>(rank);
        if (nth >= from) {
            std::nth_element(from, nth, values.end());
            from = nth;
        }
        return *nth;
    };
    statistics.p50 = percentile(0.5);
    statistics.p90 = percentile(0.9);
    statistics.p95 = percentile(0.95);
    statistics.p99 = percentile(0.99);
    statistics.max = *std::max_element(from, values.end());
    return statistics;
}

}  // namespace

SceneAccount::SceneAccount(Scene beginning, const AccountOptions& accountOptions,
                           const std::optional<Configuration>& loaded)
    : scene(std::move(beginning)),
      options(accountOptions),
      configuration(loaded),
      knowsStages(loaded.has_value() && (loaded->stageCount || !loaded->stages.empty())),
      investigation(scene, progress, [this](const AccountedFinding& finding) {
          if (options.onFinding) {
              options.onFinding(scene, finding);
          }
      }) {
    // What the library boosts comes at 60 frames per second, whatever else is not known.
    scene.lateThreshold =
        std::llround(options.latePeriods * 1e6 / (scene.fps > 0 ? scene.fps : 60));
    if (knowsStages) {
        int32_t count = loaded->stageCount.value_or(0);
        for (const ConfiguredStage& stage : loaded->stages) {
            count = std::max(count, stage.stage + 1);
        }
        GrowStages(std::clamp(count, 0, MAX_STAGES));
        for (const ConfiguredStage& stage : loaded->stages) {
            if (stage.stage >= 0 && stage.stage < scene.stageCount) {
                scene.stageNames[static_cast<size_t>(stage.stage)] = stage.node;
            }
        }
    }
}

void SceneAccount::GrowStages(int32_t count) {
    if (count <= scene.stageCount) {
        return;
    }
    const auto before = static_cast<size_t>(scene.stageCount);
    const auto after = static_cast<size_t>(count);
    std::vector<StageTimes> times(scene.frames.size() * after);
    for (size_t i = 0; i < scene.stageTimes.size(); ++i) {
        times[i / before * after + i % before] = scene.stageTimes[i];
    }
    scene.stageTimes = std::move(times);
    scene.stageCount = count;
    scene.stageNames.resize(after);
    progress.newest.resize(after, Progress::NONE);
    progress.works.resize(after);
    progress.waits.resize(after);
    lastEnds.resize(after, NO_TIME);
    for (Observed& seen : window) {
        seen.ends.resize(after);
    }
}

// The latest frame of that number that has not been examined yet.
Observed* SceneAccount::Find(int64_t number) {
    const auto found = std::find_if(window.rbegin(), window.rend(), [number](const Observed& seen) {
        return KeyOf(seen.number) == KeyOf(number);
    });
    return found == window.rend() ? nullptr : &*found;
}

Observed& SceneAccount::Open(int64_t number, const Step& step, const Event& event) {
    Settle(WINDOW);
    Frame& frame = scene.frames.emplace_back();
    frame.number = number;
    frame.place = PlaceOf(step, event);
    scene.stageTimes.resize(scene.frames.size() * static_cast<size_t>(scene.stageCount));
    Observed& seen = window.emplace_back();
    seen.number = number;
    seen.index = opened++;
    seen.isDoubtful = seen.index < doubtfulUntil;
    seen.isEarly = scene.isBeginningMissing && seen.index < EARLY;
    seen.ends.resize(static_cast<size_t>(scene.stageCount));
    return seen;
}

Observed& SceneAccount::FindOrOpen(int64_t number, const Step& step, const Event& event) {
    Observed* seen = Find(number);
    return seen != nullptr ? *seen : Open(number, step, event);
}

void SceneAccount::OnStep(const Step& step) {
    scene.to = step.place;
    if (step.time != NO_TIME) {
        scene.end = step.time;
    }
    lastPushedOut.reset();
    for (size_t i = 0; i < step.events.size(); ++i) {
        const Event& event = step.events[i];
        switch (event.kind) {
            case EventKind::FrameStart:
                OnFrameStart(step, event);
                break;
            case EventKind::FrameEnd:
                OnFrameEnd(step, event);
                break;
            case EventKind::StageStart:
                OnStageStart(step, event);
                break;
            case EventKind::StageEnd: {
                const bool isBeforeFrameEnd =
                    i + 1 < step.events.size() && step.events[i + 1].kind == EventKind::FrameEnd;
                OnStageEnd(
                    step, event,
                    isBeforeFrameEnd || (knowsStages && event.stage + 1 == scene.stageCount));
                break;
            }
            case EventKind::NodeEnd:
                if (step.call.arguments.size() > 2) {
                    investigation.NoteIgnored(std::get<std::string>(step.call.arguments[1]),
                                              std::get<int32_t>(step.call.arguments[2]),
                                              PlaceOf(step, event));
                }
                break;
            case EventKind::Eviction:
                OnEviction(step, event);
                break;
            case EventKind::Report:
                OnReport(step, event);
                break;
            case EventKind::SceneStart:
            case EventKind::SceneEnd:
                break;
        }
    }
}

void SceneAccount::OnFrameStart(const Step& step, const Event& event) {
    if (event.outcome == Outcome::NoScene) {
        return;
    }
    // Where lines are missing it was admitted most likely.
    const bool isAdmitted = event.outcome == Outcome::Forwarded || event.outcome == Outcome::Gap ||
                            event.outcome == Outcome::Unknown;
    Observed* known = Find(event.frame);
    const bool isUsedAgain = known != nullptr && isAdmitted && known->isAdmitted;
    Observed& seen = known == nullptr || isUsedAgain ? Open(event.frame, step, event) : *known;
    Frame& frame = FrameOf(seen);
    if (!isAdmitted) {
        if (event.outcome == Outcome::AlreadyInFlight) {
            NoteTrouble(seen, step, event);
            seen.isDuplicate = true;
            if (known == nullptr) {
                frame.status = FrameStatus::Refused;
                frame.reason = event.outcome;
            }
        }
        return;
    }
    frame.start = step.time;
    seen.isAdmitted = true;
    seen.isFollower = !table.empty();
    if (event.outcome != Outcome::Gap) {
        seen.isStarted = true;
        seen.isSilent = seen.isSilent || event.outcome == Outcome::Unknown;
        frame.status = FrameStatus::Open;
        frame.reason = Outcome::Forwarded;
        frame.place = PlaceOf(step, event);
    } else {
        NoteTrouble(seen, step, event);
        seen.newestBefore = event.otherFrame;
        frame.status = FrameStatus::Refused;
        frame.reason = event.outcome;
        frame.place = seen.trouble;
    }
    if (table.size() >= PLACES) {
        lastPushedOut = PushOutOldest();
    }
    table.push_back({KeyOf(event.frame), seen.index, event.frame, false});
}

void SceneAccount::OnFrameEnd(const Step& step, const Event& event) {
    if (event.outcome == Outcome::NoScene) {
        return;
    }
    Observed& seen = FindOrOpen(event.frame, step, event);
    Frame& frame = FrameOf(seen);
    if (event.outcome == Outcome::NotInFlight) {
        seen.isGone = seen.isGone || Holds(event.frame);
        if (!seen.isAdmitted && frame.status == FrameStatus::Open) {
            frame.status = FrameStatus::Unseen;
            frame.reason = event.outcome;
        }
    } else {
        if (frame.end == NO_TIME) {
            frame.end = step.time;
        }
        seen.isSilent = seen.isSilent || event.outcome != Outcome::Forwarded;
        // That it was refused in silence is then the log's fault: see IsLineMissing.
        if (frame.status == FrameStatus::Open) {
            frame.status = FrameStatus::Complete;
        }
    }
    const bool areStagesReported = scene.stageCount > 0 && progress.newest.back() != Progress::NONE;
    if (!seen.hasEnded && !areStagesReported) {
        OnOutput(seen, step.time);
    }
    seen.isEndedDirectly = !seen.hasEnded && step.call.operation != nullptr &&
                           step.call.operation->name == "TcfbtNotifyFrameEnd";
    seen.hasEnded = true;
    if (progress.newestEnded == Progress::NONE || progress.newestEnded < seen.index) {
        progress.newestEnded = seen.index;
    }
    Remove(event.frame);
}

void SceneAccount::OnStageStart(const Step& step, const Event& event) {
    if (event.outcome == Outcome::NoScene) {
        return;
    }
    Observed& seen = FindOrOpen(event.frame, step, event);
    if (event.stage >= 0 && event.stage < MAX_STAGES && event.outcome != Outcome::NoSuchStage) {
        GrowStages(knowsStages ? scene.stageCount : event.stage + 1);
        if (event.stage < scene.stageCount) {
            StageTimes& times = TimesOf(seen, event.stage);
            if (times.start == NO_TIME) {
                times.start = step.time;
            }
            if (event.outcome == Outcome::Forwarded) {
                seen.forwardedStarts |= uint64_t{1} << event.stage;
            }
        }
    }
    OnStageOutcome(seen, step, event);
}

void SceneAccount::OnStageEnd(const Step& step, const Event& event, bool isLast) {
    if (event.outcome == Outcome::NoScene) {
        return;
    }
    Observed& seen = FindOrOpen(event.frame, step, event);
    const int32_t stage = event.stage;
    if (stage >= 0 && stage < MAX_STAGES && event.outcome != Outcome::NoSuchStage) {
        GrowStages(knowsStages ? scene.stageCount : stage + 1);
    }
    if (stage >= 0 && stage < scene.stageCount && event.outcome != Outcome::NoSuchStage) {
        const auto index = static_cast<size_t>(stage);
        const uint64_t bit = uint64_t{1} << stage;
        Observed::End end{-1, -1, PlaceOf(step, event)};
        if (step.call.arguments.size() > 3) {  // A node end.
            end = {std::get<int32_t>(step.call.arguments[2]),
                   std::get<int32_t>(step.call.arguments[3]), PlaceOf(step, event)};
            if (scene.stageNames[index].empty()) {
                scene.stageNames[index] = std::get<std::string>(step.call.arguments[1]);
            }
        }
        if ((seen.ended & bit) != 0) {
            if (seen.repeatedStage < 0) {
                NoteTrouble(seen, step, event);
                seen.repeatedStage = stage;
                seen.repeat = end;
            }
        } else {
            seen.ended |= bit;
            seen.ends[index] = end;
            if (seen.overtakenStage < 0 && progress.newest[index] != Progress::NONE &&
                progress.newest[index] > seen.index) {
                NoteTrouble(seen, step, event);
                seen.overtakenStage = stage;
                seen.overtaker = scene.frames[progress.newest[index] - forgotten].number;
            }
            if (progress.newest[index] == Progress::NONE || progress.newest[index] < seen.index) {
                progress.newest[index] = seen.index;
            }
            StageTimes& times = TimesOf(seen, stage);
            if (times.start == NO_TIME) {
                times.start = stage == 0 ? FrameOf(seen).start : TimesOf(seen, stage - 1).end;
            }
            times.end = step.time;
            if (times.start != NO_TIME && times.end != NO_TIME) {
                const Micros length = std::max<Micros>(times.end - times.start, 0);
                // One that others have overtaken did not wait for them.
                times.wait = lastEnds[index] == NO_TIME || seen.overtakenStage == stage
                                 ? 0
                                 : std::clamp<Micros>(lastEnds[index] - times.start, 0, length);
                times.work = length - times.wait;
                progress.works[index].Add(times.work);
                progress.waits[index].Add(times.wait);
            }
            lastEnds[index] = step.time;
            if (isLast) {
                OnOutput(seen, step.time);
            }
        }
        if (event.outcome == Outcome::Forwarded) {
            seen.forwardedEnds |= bit;
        }
    }
    OnStageOutcome(seen, step, event);
}

void SceneAccount::OnOutput(Observed& seen, Micros time) {
    Frame& frame = FrameOf(seen);
    frame.output = time;
    if (time != NO_TIME && lastOutput != NO_TIME) {
        frame.interval = std::max<Micros>(time - lastOutput, 0);
        progress.intervals.Add(frame.interval);
    }
    lastOutput = time;
}

// What the outcome of a stage's start or end says about the frame.
void SceneAccount::OnStageOutcome(Observed& seen, const Step& step, const Event& event) {
    Frame& frame = FrameOf(seen);
    switch (event.outcome) {
        case Outcome::NotInFlight:
            seen.isGone = seen.isGone || (Holds(event.frame) && !seen.hasEnded);
            if (!seen.isAdmitted && frame.status == FrameStatus::Open) {
                NoteTrouble(seen, step, event);
                frame.status = FrameStatus::Unseen;
                frame.reason = event.outcome;
            }
            break;
        case Outcome::FrameInError:
        case Outcome::Unknown:
            seen.isSilent = true;
            break;
        case Outcome::NoSuchStage:
        case Outcome::OutOfOrder:
        case Outcome::StageOutOfTurn:
            if (seen.violation == Outcome::Forwarded) {
                NoteTrouble(seen, step, event);
                seen.violation = event.outcome;
                seen.violationStage = event.stage;
                seen.violationOther = event.otherStage;
            }
            if (frame.status == FrameStatus::Open) {
                frame.status = FrameStatus::Error;
                frame.reason = event.outcome;
                frame.stage = event.stage;
                frame.place = PlaceOf(step, event);
            }
            break;
        default:
            break;
    }
}

void SceneAccount::OnReport(const Step& step, const Event& event) {
    // What comes of an eviction has been told by that.
    Observed* seen = event.frame == NO_FRAME ? nullptr : Find(event.frame);
    if (seen == nullptr) {
        return;
    }
    Frame& frame = FrameOf(*seen);
    const bool isByHal =
        step.call.operation != nullptr && step.call.operation->name == "TcfbtNotifyErrorFrame";
    if (isByHal) {
        NoteTrouble(*seen, step, event);
        seen->isReportedByHal = true;
    }
    if (frame.status == FrameStatus::Open) {
        frame.status = FrameStatus::Error;
        frame.reason = Outcome::Reported;
        frame.stage = event.stage;
        frame.place = PlaceOf(step, event);
    }
}

// The library says only that it made room. The line comes before the one about the frame that made
// it necessary, whose start may or may not have been told of by now.
void SceneAccount::OnEviction(const Step& step, const Event& event) {
    std::optional<Held> oldest = lastPushedOut;
    if (!oldest && table.size() >= PLACES) {
        oldest = PushOutOldest();
    }
    Observed* seen = nullptr;
    if (oldest || event.frame != NO_FRAME) {
        seen = Find(oldest ? oldest->number : event.frame);
    }
    if (seen != nullptr && (!oldest || seen->index == oldest->index)) {
        Frame& frame = FrameOf(*seen);
        NoteTrouble(*seen, step, event);
        frame.status = FrameStatus::Evicted;
        frame.reason = Outcome::Evicted;
    } else if (oldest && oldest->isSettled && oldest->index >= forgotten) {
        // It had been given up for lost long before.
        Frame& frame = scene.frames[oldest->index - forgotten];
        if (frame.status == FrameStatus::Open) {
            --scene.statusCounts[static_cast<size_t>(frame.status)];
            frame.status = FrameStatus::Evicted;
            frame.reason = Outcome::Evicted;
            ++scene.statusCounts[static_cast<size_t>(frame.status)];
        }
    }
}

std::optional<SceneAccount::Held> SceneAccount::PushOutOldest() {
    const auto oldest =
        std::min_element(table.begin(), table.end(),
                         [](const Held& one, const Held& other) { return one.key < other.key; });
    const Held held = *oldest;
    table.erase(oldest);
    if (held.isSettled) {
        investigation.NotePushedOut();
    }
    return held;
}

void SceneAccount::Remove(int64_t number) {
    const auto held = std::find_if(table.begin(), table.end(), [number](const Held& entry) {
        return entry.key == KeyOf(number);
    });
    if (held != table.end()) {
        table.erase(held);
    }
}

bool SceneAccount::Holds(int64_t number) const {
    return std::any_of(table.begin(), table.end(),
                       [number](const Held& held) { return held.key == KeyOf(number); });
}

void SceneAccount::OnDisturbance(const Disturbance& disturbance) {
    scene.disturbances.push_back(disturbance);
    if (!options.keepsFrames && scene.disturbances.size() > WINDOW) {
        scene.disturbances.erase(scene.disturbances.begin());
    }
    if (disturbance.kind == Disturbance::Kind::ClockJump) {
        // No length that spans it means anything.
        lastOutput = NO_TIME;
        std::fill(lastEnds.begin(), lastEnds.end(), NO_TIME);
        for (Observed& seen : window) {
            if (!seen.IsThrough(scene.stageCount)) {
                FrameOf(seen).start = NO_TIME;
                for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
                    StageTimes& times = TimesOf(seen, stage);
                    times = times.end == NO_TIME ? StageTimes{} : times;
                }
            }
        }
        const Micros unit = std::abs(disturbance.amount) < 10 * SECOND ? 1000 : SECOND;
        AccountedFinding finding;
        finding.check = "clock-jump";
        finding.severity = Severity::Warning;
        finding.place = disturbance.place;
        finding.time = disturbance.time;
        finding.message = "the clock was set " +
                          std::string(disturbance.amount < 0 ? "back" : "forward") + " by " +
                          std::to_string(std::abs(disturbance.amount) / unit) +
                          (unit == SECOND ? " s" : " ms") + "; nothing is timed across that";
        NoteFinding(std::move(finding));
    } else if (disturbance.kind == Disturbance::Kind::LinesLost) {
        for (Observed& seen : window) {
            // Those in flight, that is: what has been overtaken is lost already.
            const auto stage = static_cast<size_t>(std::countr_one(seen.ended));
            const bool isOvertaken = stage < progress.newest.size() &&
                                     progress.newest[stage] != Progress::NONE &&
                                     progress.newest[stage] > seen.index;
            seen.isDoubtful =
                seen.isDoubtful || (!seen.IsThrough(scene.stageCount) && !isOvertaken);
        }
        doubtfulUntil = opened + 2;
        investigation.NoteLostLines(disturbance, opened);
    }
}

// Examines the oldest frames until so many remain to be examined.
void SceneAccount::Settle(size_t keep) {
    while (window.size() > keep) {
        const size_t first = window.front().index;
        for (; judged < std::min(first + JUDGED_AHEAD, opened); ++judged) {
            Judge(judged - first);
        }
        const Observed& seen = window.front();
        Frame& frame = FrameOf(seen);
        investigation.Examine(seen, first - forgotten);
        ++scene.statusCounts[static_cast<size_t>(frame.status)];
        const auto held = std::find_if(table.begin(), table.end(),
                                       [first](const Held& entry) { return entry.index == first; });
        if (held != table.end()) {
            held->isSettled = true;
        }
        window.pop_front();
        if (!options.keepsFrames && first - forgotten > KEPT) {
            const size_t old = first - forgotten - WINDOW;
            scene.frames.erase(scene.frames.begin(),
                               scene.frames.begin() + static_cast<std::ptrdiff_t>(old));
            scene.stageTimes.erase(
                scene.stageTimes.begin(),
                scene.stageTimes.begin() +
                    static_cast<std::ptrdiff_t>(old * static_cast<size_t>(scene.stageCount)));
            forgotten += old;
        }
    }
}

// Finds out whether lines about a frame are missing. If so, lines about those in flight with it
// are.
void SceneAccount::Judge(size_t position) {
    Observed& judgedOne = window[position];
    if (judgedOne.isDoubtful) {
        Remove(judgedOne.number);  // Its end may be among what is missing.
    }
    const auto reach = static_cast<size_t>(scene.stageCount) + 2;
    const bool isAtTheEnd = isCutOff && judgedOne.index + reach >= opened;
    if (judgedOne.isEarly || isAtTheEnd || !IsLineMissing(position)) {
        return;
    }
    judgedOne.isLineMissing = true;
    for (size_t i = position - std::min(position, reach);
         i < std::min(position + reach, window.size()); ++i) {
        window[i].isDoubtful = true;
        Remove(window[i].number);
    }
}

// Whether what the library did with a frame cannot be from what the capture tells.
bool SceneAccount::IsLineMissing(size_t position) const {
    const Observed& seen = window[position];
    const Frame& frame = scene.frames[seen.index - forgotten];
    const uint64_t starts = seen.forwardedStarts;
    const uint64_t ends = seen.forwardedEnds;
    if ((starts | ends) != 0 && !seen.isStarted) {
        return true;
    }
    // Stages that were forwarded have all run in order: each that started but the last has ended.
    const bool isContiguous = (starts & (starts + 1)) == 0 && (ends & (ends + 1)) == 0 &&
                              (ends == starts || ends == starts >> 1);
    // A HAL may end a frame without its stages, but the last node cannot.
    const bool lacksStages = frame.status == FrameStatus::Complete && !seen.isEndedDirectly &&
                             scene.stageCount > 0 && progress.newest.back() != Progress::NONE &&
                             std::countr_one(seen.ended) < scene.stageCount;
    if (!isContiguous || lacksStages) {
        return true;
    }
    const bool isBad = frame.status == FrameStatus::Refused ||
                       seen.violation != Outcome::Forwarded || !seen.isAdmitted;
    if ((seen.isSilent && !isBad) ||
        (seen.isGone && !seen.hasEnded && seen.isStarted && frame.status != FrameStatus::Evicted)) {
        return true;
    }
    if (seen.isStarted && seen.isFollower && seen.number <= INT32_MAX) {
        return std::none_of(window.begin(), window.begin() + static_cast<std::ptrdiff_t>(position),
                            [&](const Observed& before) {
                                return before.number == seen.number - 1 && before.isAdmitted;
                            }) &&
               position > 0;
    }
    return false;
}

Scene SceneAccount::Close(bool hasEnded) {
    isCutOff = !hasEnded;
    Settle(0);
    std::vector<int64_t> holders;
    for (const Held& held : table) {
        // Frames that were in flight when the scene ended are not lost, and not found fault with.
        if (held.index < forgotten ||
            (scene.frames[held.index - forgotten].hasFinding &&
             scene.frames[held.index - forgotten].status == FrameStatus::Open)) {
            holders.push_back(held.number);
        }
    }
    investigation.Close(holders, PLACES, configuration);
    if (options.keepsFrames) {
        MakeStatistics();
    }
    return std::move(scene);
}

void SceneAccount::MakeStatistics() {
    std::vector<Micros> values;
    values.reserve(scene.frames.size());
    for (const Frame& frame : scene.frames) {
        if (frame.start != NO_TIME && frame.end != NO_TIME) {
            values.push_back(frame.end - frame.start);
        }
    }
    scene.latency = StatisticsOf(values);
    values.clear();
    for (const Frame& frame : scene.frames) {
        if (frame.interval != NO_TIME) {
            values.push_back(frame.interval);
        }
    }
    scene.interval = StatisticsOf(values);
    const auto stages = static_cast<size_t>(scene.stageCount);
    const auto ofStages = [&](auto lengthOf) {
        std::vector<Statistics> statistics;
        for (size_t stage = 0; stage < stages; ++stage) {
            values.clear();
            for (size_t i = stage; i < scene.stageTimes.size(); i += stages) {
                if (scene.stageTimes[i].wait != NO_TIME) {
                    values.push_back(lengthOf(scene.stageTimes[i]));
                }
            }
            statistics.push_back(StatisticsOf(values));
        }
        return statistics;
    };
    scene.stages = ofStages([](const StageTimes& times) { return times.wait + times.work; });
    scene.waits = ofStages([](const StageTimes& times) { return times.wait; });
    scene.works = ofStages([](const StageTimes& times) { return times.work; });
}

}  // namespace tools
