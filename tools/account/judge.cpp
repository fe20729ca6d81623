#include "tools/account/judge.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

#include "tools/account/wording.h"
#include "tools/base/text.h"

namespace tools {
namespace {

void MakeStatistics(Scene& scene) {
    std::vector<Micros> latencies, intervals;
    for (const Frame& frame : scene.frames) {
        if (frame.start != NO_TIME && frame.end != NO_TIME) {
            latencies.push_back(frame.end - frame.start);
        }
        if (frame.interval != NO_TIME) {
            intervals.push_back(frame.interval);
        }
    }
    scene.latency = StatisticsOf(latencies);
    scene.interval = StatisticsOf(intervals);
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        std::vector<Micros> stays, waits, works;
        for (size_t frame = 0; frame < scene.frames.size(); ++frame) {
            const StageTimes times = scene.TimesOf(frame, stage);
            if (times.wait != NO_TIME) {
                stays.push_back(times.wait + times.work);
                waits.push_back(times.wait);
                works.push_back(times.work);
            }
        }
        scene.stages.push_back(StatisticsOf(stays));
        scene.waits.push_back(StatisticsOf(waits));
        scene.works.push_back(StatisticsOf(works));
    }
}

// Frames that a hang or a slow stage left no room for were dropped because of it: it is told first,
// and is as bad.
void BlameForDrops(Judging& judging) {
    for (Trouble& trouble : judging.troubles) {
        SceneFinding& finding = trouble.finding;
        for (const SlowRun& run : judging.slowRuns) {
            if (finding.stage != 0 || run.stage <= 0 || finding.time < run.begin) {
                continue;
            }
            if (finding.check == Check::Stuck && finding.time <= run.end) {
                finding.severity = Severity::Note;
            }
            if (finding.check == Check::FrameLost &&
                finding.time <= run.end + 2 * judging.schedule.Period()) {
                judging.troubles[run.trouble].finding.severity = Severity::Error;
            }
        }
    }
}

// Counts what became of the frames, and takes out those that are none.
void CountFrames(Judging& judging) {
    Scene& scene = judging.scene;
    std::sort(scene.neverOut.begin(), scene.neverOut.end());
    scene.neverOut.erase(std::unique(scene.neverOut.begin(), scene.neverOut.end()),
                         scene.neverOut.end());
    const auto stages = static_cast<size_t>(scene.stageCount);
    size_t kept = 0;
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        if (judging.skipped[frame]) {
            continue;
        }
        Frame& row = scene.frames[frame];
        const bool isOnlyOpened = judging.schedule.LastStage() >= 0 && !row.isUntold &&
                                  !row.isNeverOut && judging.NextStage(frame) == 0;
        scene.onlyOpened += isOnlyOpened ? 1 : 0;
        if (row.isUntold) {
            row.reason = row.status == FrameStatus::Complete ? row.reason : Reason::LinesMissing;
            ++scene.untold;
        } else if (judging.IsExplained(frame)) {
            row.hasFinding = true;
            scene.notBoosted += row.status != FrameStatus::Complete && !isOnlyOpened ? 1 : 0;
        }
        if (row.status == FrameStatus::Open && row.isNeverOut) {
            row.reason = Reason::NeverLeft;
        }
        const int32_t next = judging.NextStage(frame);
        if (row.stage < 0 && row.status != FrameStatus::Complete && next < scene.stageCount) {
            row.stage = next;
        }
        ++scene.statusCounts[static_cast<size_t>(row.status)];
        if (kept != frame) {
            std::copy_n(scene.passes.begin() + static_cast<std::ptrdiff_t>(frame * stages), stages,
                        scene.passes.begin() + static_cast<std::ptrdiff_t>(kept * stages));
            scene.frames[kept] = row;
        }
        ++kept;
    }
    scene.frames.resize(kept);
    scene.passes.resize(kept * stages);
    scene.order.clear();
    scene.order.shrink_to_fit();
    scene.frameCount =
        static_cast<int64_t>(kept) + static_cast<int64_t>(judging.droppedUnseen.size());
    scene.notBoosted += static_cast<int64_t>(judging.droppedUnseen.size());
    for (const Trouble& trouble : judging.troubles) {
        scene.untold += trouble.absent;
        scene.frameCount += trouble.absent;
    }
}

void JudgeScene(Scene& scene, const std::vector<ConfiguredStage>& stages, Micros resolution,
                const JudgeOptions& options) {
    scene.lateThreshold = std::llround(options.latePeriods * 1e6 / scene.Rate());
    if (!scene.isStarted) {
        return;
    }
    const Schedule schedule(scene);
    Judging judging(scene, schedule, resolution);
    scene.isMixed = FindTwoObjects(judging);
    if (!scene.isMixed) {
        FindHoles(judging);
        FindStandstills(judging);
        ClassifyFrames(judging);
        FindNeverHit(judging);
        FindNoneHit(judging, stages);
        FindMissingNumbers(judging);
        FindLost(judging);
        FindRestarts(judging);
        FindOrder(judging);
        FindRates(judging);
        FindSlowForGood(judging);
        FindLate(judging, scene.lateThreshold);
        FindSlowFirst(judging);
        FindEvictions(judging);
        FindThreads(judging);
        FindIgnored(judging, stages);
        FindClockSteps(judging);
        FindLinesLost(judging);
        BlameForDrops(judging);
    }
    CountFrames(judging);
    for (Trouble& trouble : judging.troubles) {
        TellConsequences(trouble);
        scene.findings.push_back(std::move(trouble.finding));
    }
    JoinFindings(scene, options.toldOneByOne);
    MakeStatistics(scene);
}

// Scenes of two processes at the same time are two cameras at work.
void FindSeveralProcesses(Account& account) {
    for (size_t i = 1; i < account.scenes.size(); ++i) {
        const Scene& scene = account.scenes[i];
        for (size_t j = 0; j < i; ++j) {
            const Scene& other = account.scenes[j];
            if (scene.process != other.process && scene.isStarted && other.isStarted &&
                scene.from.input == other.to.input && scene.from.line < other.to.line) {
                account.findings.push_back(
                    {Check::TwoCameras, Severity::Note,
                     fmt::format(wording::TWO_PROCESSES, other.process, scene.process), scene.from,
                     scene.begin});
                return;
            }
        }
    }
}

// Of which count a frame is, and its number.
std::pair<uint16_t, int64_t> KeyOf(const Frame& frame) {
    return {frame.epoch, frame.number};
}

}  // namespace

void JoinFindings(Scene& scene, size_t toldOneByOne) {
    std::map<std::pair<Check, int32_t>, std::vector<SceneFinding*>> kinds;
    for (SceneFinding& finding : scene.findings) {
        kinds[{finding.check, finding.stage}].push_back(&finding);
    }
    std::vector<SceneFinding> findings;
    for (auto& [kind, same] : kinds) {
        const bool isAlwaysAlone =
            kind.first == Check::NodeIgnored || kind.first == Check::ThreadNotSet;
        if (same.size() <= toldOneByOne || isAlwaysAlone) {
            for (SceneFinding* finding : same) {
                findings.push_back(std::move(*finding));
            }
            continue;
        }
        SceneFinding all = *same.front();
        std::vector<int64_t> frames;
        all.frames.clear();
        for (const SceneFinding* finding : same) {
            all.severity = std::max(all.severity, finding->severity);
            all.frames.insert(all.frames.end(), finding->frames.begin(), finding->frames.end());
            if (finding->frame) {
                frames.push_back(*finding->frame);
            }
        }
        all.times = static_cast<int64_t>(same.size());
        all.message = fmt::format("{} times{}; the first: {}", all.times,
                                  frames.empty() ? "" : ", at " + NumbersText(frames), all.message);
        findings.push_back(std::move(all));
    }
    std::stable_sort(
        findings.begin(), findings.end(), [](const SceneFinding& one, const SceneFinding& other) {
            return one.severity != other.severity
                       ? one.severity > other.severity
                       : std::pair(one.time, one.place) < std::pair(other.time, other.place);
        });
    scene.findings = std::move(findings);
}

Judging::Judging(Scene& judged, const Schedule& itsSchedule, Micros ofTimes)
    : scene(judged),
      schedule(itsSchedule),
      resolution(ofTimes),
      byNumber(judged.frames.size()),
      causes(judged.frames.size()),
      droppedBefore(judged.frames.size()),
      skipped(judged.frames.size()) {
    std::iota(byNumber.begin(), byNumber.end(), 0);
    std::stable_sort(byNumber.begin(), byNumber.end(), [this](uint32_t one, uint32_t other) {
        return KeyOf(scene.frames[one]) < KeyOf(scene.frames[other]);
    });
}

uint32_t Judging::FrameOf(uint16_t epoch, int64_t number) const {
    const std::pair key(epoch, number);
    const auto next = std::partition_point(byNumber.begin(), byNumber.end(), [&](uint32_t frame) {
        return KeyOf(scene.frames[frame]) <= key;
    });
    return next != byNumber.begin() && KeyOf(scene.frames[*std::prev(next)]) == key
               ? *std::prev(next)
               : NO_INDEX;
}

void Trouble::About(const std::vector<int64_t>& numbers) {
    finding.frame = numbers.front();
    finding.frames = RangesOf(numbers);
}

Trouble& Judging::Raise(Check check, Severity severity, uint32_t frame, int32_t stage,
                        const Place& place, Micros time, std::string message) {
    Trouble& trouble = troubles.emplace_back();
    trouble.finding = {check, severity, std::move(message), place, time};
    trouble.finding.stage = stage;
    if (frame != NO_INDEX) {
        trouble.About({scene.frames[frame].number});
    }
    return trouble;
}

bool Judging::IsEarly(uint32_t frame) const {
    const Frame& row = scene.frames[frame];
    return scene.isBeginningMissing && !row.isStarted && !row.isGap &&
           (firstStarted == NO_INDEX || row.number <= scene.frames[firstStarted].number);
}

bool Judging::IsOut(uint32_t frame) const {
    return schedule.LastStage() < 0 ? scene.frames[frame].isEnded
                                    : scene.PassOf(frame, schedule.LastStage()).HasLeft();
}

bool Judging::IsTimed(Micros from, Micros to) const {
    return std::none_of(scene.clockSteps.begin(), scene.clockSteps.end(),
                        [&](const auto& step) { return step.time >= from && step.time <= to; });
}

int32_t Judging::NextStage(uint32_t frame) const {
    for (int32_t stage = scene.stageCount; stage > 0; --stage) {
        if (scene.PassOf(frame, stage - 1).HasLeft()) {
            return stage;
        }
    }
    return 0;
}

int32_t Judging::Unreported(uint32_t frame) const {
    const int32_t next = NextStage(frame);
    for (int32_t stage = 0; stage < next; ++stage) {
        if (!scene.PassOf(frame, stage).HasLeft()) {
            return stage;
        }
    }
    return -1;
}

std::pair<Place, Micros> Judging::LastOf(uint32_t frame) const {
    const Frame& row = scene.frames[frame];
    std::pair<Place, Micros> last(row.place, std::max(row.told, row.start));
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        const StagePass& pass = scene.PassOf(frame, stage);
        if (pass.HasLeft() && pass.left >= last.second) {
            last = {pass.place, pass.left};
        }
    }
    return last;
}

std::string Judging::StageName(int32_t stage) const {
    const auto index = static_cast<size_t>(stage);
    const bool isNamed =
        stage >= 0 && index < scene.stageNames.size() && !scene.stageNames[index].empty();
    return isNamed ? fmt::format("stage {} ({})", stage, scene.stageNames[index])
                   : fmt::format("stage {}", stage);
}

void ClassifyFrames(Judging& judging) {
    Scene& scene = judging.scene;
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        if (scene.frames[frame].isStarted && judging.firstStarted == NO_INDEX) {
            judging.firstStarted = frame;
        }
    }
    for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
        Frame& row = scene.frames[frame];
        row.isOut = judging.IsOut(frame);
        const bool isThrough =
            judging.NextStage(frame) == scene.stageCount && judging.Unreported(frame) < 0;
        const bool hasStages = judging.schedule.LastStage() >= 0;
        const bool isEarly = judging.IsEarly(frame);
        const auto set = [&row](FrameStatus status, Reason reason) {
            row.status = status;
            row.reason = reason;
        };
        if (row.isEnded && (isThrough || !hasStages || isEarly)) {
            set(FrameStatus::Complete, Reason::None);
        } else if (row.isEnded) {
            set(FrameStatus::Dropped, Reason::EndedByHal);
        } else if (row.violation != Reason::None) {
            set(FrameStatus::Error, row.violation);
            row.stage = row.violationStage;
        } else if (row.isEvicted) {
            set(FrameStatus::Evicted, Reason::Evicted);
        } else if (row.isGap) {
            set(FrameStatus::Refused, Reason::Gap);
        } else if (row.isDuplicate && !row.isStarted) {
            set(FrameStatus::Refused, Reason::AlreadyInFlight);
        } else if (!row.isStarted && !isEarly) {
            set(FrameStatus::Unseen, Reason::NotInFlight);
        }
    }
}

void Judge(Account& account, const JudgeOptions& options) {
    for (Scene& scene : account.scenes) {
        const auto* known = ConfigurationOf(account.configurations, scene.configuration);
        JudgeScene(scene, known == nullptr ? std::vector<ConfiguredStage>() : known->stages,
                   account.resolution, options);
    }
    FindSeveralProcesses(account);
}

}  // namespace tools
