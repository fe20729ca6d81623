// Frames that came out late, and what they were waiting for.

#include <algorithm>
#include <map>

#include "tools/account/wording.h"
#include "tools/base/text.h"

namespace tools {
namespace {

// A stage that takes this much more than a period, on average, while frames wait for it cannot keep
// up; and for that long. Less is what the clocks of sensor and system differ by.
constexpr Micros OverPeriod(Micros period) {
    return period + period / 50 + MILLISECOND / 2;
}
constexpr Micros FOR_GOOD = SECOND;
// A frame that stood for that many periods is one that hung, not one of a stage that is slow.
constexpr Micros HANG_PERIODS = 6;
// Of a delay, what has to be explained, and what is too little to look at, in periods.
constexpr double EXPLAINED = 0.9;
constexpr double SMALL = 0.25;
// Where frames are missing as well, what is left of a delay varies more.
constexpr double SMALL_BESIDE_MISSING = 0.5;
// How far back a delay is followed from where it shows.
constexpr Micros FARTHEST_BACK = 2 * SECOND;

class DelayFinder {
  public:
    explicit DelayFinder(Judging& sceneJudging)
        : judging(sceneJudging), scene(judging.scene), schedule(judging.schedule) {}

    void Find(Micros threshold) {
        const std::vector<uint32_t>& outputs = schedule.Outputs();
        for (const uint32_t frame : outputs) {
            scene.frames[frame].output = OutputOf(frame);
        }
        for (size_t i = 1; i < outputs.size(); ++i) {
            Look(outputs, i, threshold);
        }
        for (auto& [stage, blamed] : blamedOf) {
            RaiseRuns(stage, blamed);
        }
        if (!nobodysFault.empty()) {
            RaiseLate(outputs.size(), threshold);
        }
    }

  private:
    struct Blamed {
        uint32_t frame;  // That the stage was slow with.
        std::vector<int64_t> late;
    };

    Micros OutputOf(uint32_t frame) const {
        return schedule.LastStage() < 0 ? scene.frames[frame].end
                                        : scene.PassOf(frame, schedule.LastStage()).left;
    }

    void Look(const std::vector<uint32_t>& outputs, size_t position, Micros threshold) {
        const uint32_t frame = outputs[position];
        const uint32_t before = outputs[position - 1];
        Frame& row = scene.frames[frame];
        const Micros from = OutputOf(before);
        const Micros to = OutputOf(frame);
        if (judging.IsDoubtful(frame) || judging.IsDoubtful(before) || !judging.IsTimed(from, to) ||
            scene.frames[before].epoch != row.epoch) {
            return;
        }
        row.interval = std::max<Micros>(to - from, 0);
        row.isLate = row.interval > threshold;
        if (!row.isLate) {
            return;
        }
        ++scene.lateFrames;
        row.hasFinding = true;
        // The rate is the one at which it came, and not at which it came out.
        const bool hasCome = scene.stageCount > 0 && scene.PassOf(frame, 0).HasLeft();
        const Micros period = schedule.PeriodAt(hasCome ? scene.PassOf(frame, 0).left : to);
        // Each frame that never came out leaves a period empty, and so does one that comes later.
        Micros missing = 0;
        uint32_t overtaken = NO_INDEX;
        std::optional<uint32_t> lost;
        const int64_t first = scene.frames[before].number;
        for (const auto& [number, other] : Between(first, row.number, row.epoch)) {
            if (other == NO_INDEX || scene.frames[other].isNeverOut) {
                missing += period;
                lost = other != NO_INDEX ? std::optional(other) : lost;
            } else if (OutputOf(other) >= to && overtaken == NO_INDEX) {
                overtaken = other;
            }
        }
        const Micros stood = judging.Stood(from, to);
        const Micros delay = row.interval - period - missing - stood;
        const double small =
            (missing > 0 ? SMALL_BESIDE_MISSING : SMALL) * static_cast<double>(period);
        if (const auto standstill = std::find_if(judging.troubles.begin(), judging.troubles.end(),
                                                 [&](const Trouble& trouble) {
                                                     return trouble.finding.check ==
                                                                Check::Standstill &&
                                                            trouble.finding.time < to &&
                                                            trouble.finding.time >= from - FOR_GOOD;
                                                 });
            stood > 0 && standstill != judging.troubles.end() &&
            static_cast<double>(delay) < small) {
            standstill->late.push_back(row.number);
            return;
        }
        if (static_cast<double>(delay) < small) {
            if (lost && judging.IsExplained(*lost)) {
                judging.troubles[judging.causes[*lost] - 1].late.push_back(row.number);
            }
            return;
        }
        // A frame that others overtake is told of as such.
        const uint32_t behind = overtaken == NO_INDEX ? frame : overtaken;
        if (judging.IsExplained(behind) &&
            judging.troubles[judging.causes[behind] - 1].finding.check == Check::StageOrder) {
            judging.troubles[judging.causes[behind] - 1].late.push_back(row.number);
        } else if (schedule.LastStage() < 0 ||
                   !Follow(behind, row.number, from - FARTHEST_BACK, delay, period)) {
            BlameNobody(row);
        }
    }

    void BlameNobody(const Frame& row) {
        nobodysFault.push_back(row.number);
        longest = std::max(longest, row.interval);
    }

    // Frames of the numbers between two, those without any line as NO_INDEX.
    std::vector<std::pair<int64_t, uint32_t>> Between(int64_t first, int64_t last, uint16_t epoch) {
        if (last <= first || static_cast<uint64_t>(last) - static_cast<uint64_t>(first) > 1000) {
            return {};
        }
        if (last - first > 1 && index.empty()) {
            for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
                index[{scene.frames[frame].epoch, scene.frames[frame].number}] = frame;
            }
            std::sort(judging.droppedUnseen.begin(), judging.droppedUnseen.end());
        }
        std::vector<std::pair<int64_t, uint32_t>> between;
        for (int64_t number = first + 1; number < last; ++number) {
            const auto found = index.find({epoch, number});
            if (found != index.end()) {
                between.emplace_back(number, found->second);
            } else if (std::binary_search(judging.droppedUnseen.begin(),
                                          judging.droppedUnseen.end(), number)) {
                between.emplace_back(number, NO_INDEX);
            }
        }
        return between;
    }

    // From the output of a late frame back along whatever came later, arrival or the frame ahead,
    // until its delay is explained, but no further back than `farthest`. `period`: at which it
    // came. False when neither a stage nor another rate is to blame.
    bool Follow(uint32_t late, int64_t number, Micros farthest, Micros delay, Micros period) {
        uint32_t frame = late;
        int32_t stage = schedule.LastStage();
        Micros explained = 0, worst = 0;
        uint32_t worstFrame = NO_INDEX;
        int32_t worstStage = -1;
        bool isOfRate = false;
        while (frame != NO_INDEX && stage >= 0) {
            if (!scene.PassOf(frame, stage).HasLeft()) {
                --stage;
                continue;
            }
            const Micros left = scene.PassOf(frame, stage).left;
            if (left < farthest) {
                break;
            }
            const Schedule::Cause cause = schedule.CauseOf(frame, stage);
            if (cause.begin == NO_TIME) {
                break;
            }
            // What is too slow for good is told for all frames.
            for (const SlowRun& run : judging.slowRuns) {
                if (run.isForGood && run.stage == stage && left >= run.begin && left <= run.end) {
                    judging.troubles[run.trouble].late.push_back(number);
                    return true;
                }
            }
            // It waited for one that came at another rate.
            isOfRate = isOfRate || (stage == 0 && schedule.PeriodAt(left) > period);
            const Micros usual = stage == 0
                                     ? schedule.PeriodAt(left) * (1 + judging.droppedBefore[frame])
                                     : schedule.UsualDelay(stage);
            // Where several frames are in a stage at once, one may seem slow that was no longer in
            // it than all.
            const Micros arrival = scene.ArrivalOf(frame, stage);
            const Micros since =
                stage == 0 || arrival == NO_TIME
                    ? cause.begin
                    : std::max(cause.begin, arrival + schedule.UsualStay(stage) - usual);
            const Micros excess = left - since - usual - judging.Stood(since, left);
            explained += std::max<Micros>(excess, 0);
            if (excess > worst) {
                worst = excess;
                worstFrame = frame;
                worstStage = stage;
            }
            if (static_cast<double>(explained) >= EXPLAINED * static_cast<double>(delay)) {
                break;
            }
            frame = cause.frame;
            stage = cause.isInStage ? stage : stage - 1;
        }
        const Micros least =
            worstStage < 0 ? 0
                           : std::max({Micros{2500}, schedule.UsualDelay(worstStage) * 15 / 100,
                                       2 * judging.resolution});
        if (worstFrame == NO_INDEX || worst <= least) {
            return isOfRate;
        }
        std::vector<Blamed>& blamed = blamedOf[worstStage];
        const auto known = std::find_if(blamed.begin(), blamed.end(), [&](const Blamed& other) {
            return other.frame == worstFrame;
        });
        if (known != blamed.end()) {
            known->late.push_back(number);
        } else {
            blamed.push_back({worstFrame, {number}});
        }
        return true;
    }

    Micros ExcessOf(uint32_t frame, int32_t stage) const {
        const Micros begin = schedule.CauseOf(frame, stage).begin;
        return begin == NO_TIME
                   ? 0
                   : scene.PassOf(frame, stage).left - begin - schedule.UsualDelay(stage);
    }

    // Frames in a row that a stage was slow with are one finding.
    void RaiseRuns(int32_t stage, std::vector<Blamed>& blamed) {
        const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
        std::vector<size_t> positions(scene.frames.size());
        for (size_t i = 0; i < left.size(); ++i) {
            positions[left[i]] = i;
        }
        std::sort(blamed.begin(), blamed.end(), [&](const Blamed& one, const Blamed& other) {
            return positions[one.frame] < positions[other.frame];
        });
        size_t done = 0;  // Positions before this one are told.
        for (const Blamed& one : blamed) {
            const size_t position = positions[one.frame];
            if (position < done) {
                judging.troubles.back().late.insert(judging.troubles.back().late.end(),
                                                    one.late.begin(), one.late.end());
                continue;
            }
            size_t first = position, last = position;
            const Micros half = ExcessOf(left[position], stage) / 2;
            while (stage > 0 && first > done && ExcessOf(left[first - 1], stage) > half) {
                --first;
            }
            while (stage > 0 && last + 1 < left.size() && ExcessOf(left[last + 1], stage) > half) {
                ++last;
            }
            RaiseRun(stage, left, first, last, one);
            done = last + 1;
        }
    }

    void RaiseRun(int32_t stage, const std::vector<uint32_t>& left, size_t first, size_t last,
                  const Blamed& blamed) {
        std::vector<int64_t> numbers;
        std::vector<Micros> works;
        for (size_t i = first; i <= last; ++i) {
            numbers.push_back(scene.frames[left[i]].number);
            // Where frames are kept back, people know how long they are in the stage.
            const Micros arrival =
                schedule.KeptBack(stage) > 0 ? scene.ArrivalOf(left[i], stage) : NO_TIME;
            const Micros begin =
                arrival == NO_TIME ? schedule.CauseOf(left[i], stage).begin : arrival;
            works.push_back(scene.PassOf(left[i], stage).left - begin);
        }
        const StagePass& pass = scene.PassOf(left[first], stage);
        const Micros begin = pass.left - works.front();
        const Micros took = MedianOf(works, 0);
        const bool isStall =
            stage == 0 && !IsCaughtUp(left, last, took - schedule.PeriodAt(pass.left));
        const std::string time = Ms(took);
        const std::string usual = Ms(stage == 0                     ? schedule.PeriodAt(pass.left)
                                     : schedule.KeptBack(stage) > 0 ? schedule.UsualStay(stage)
                                                                    : schedule.UsualDelay(stage));
        const auto name = judging.StageName(stage);
        const size_t number = judging.troubles.size();
        Trouble& trouble = judging.Raise(
            isStall ? Check::SensorStall : Check::SlowStage, Severity::Warning, left[first], stage,
            pass.place, begin,
            isStall ? fmt::format(wording::STALL, fmt::arg("frame", numbers.front()),
                                  fmt::arg("stage", name), fmt::arg("time", time),
                                  fmt::arg("usual", usual))
                    : fmt::format(wording::SLOW, fmt::arg("frames", FramesText(numbers)),
                                  fmt::arg("stage", name), fmt::arg("time", time),
                                  fmt::arg("usual", usual),
                                  fmt::arg("each", numbers.size() == 1 ? "" : " each")));
        trouble.finding.frames = RangesOf(numbers);
        for (const int64_t late : blamed.late) {
            if (std::find(numbers.begin(), numbers.end(), late) == numbers.end()) {
                trouble.late.push_back(late);
            }
        }
        if (!isStall) {
            FindWaiting(stage, left, last, trouble);
        }
        judging.slowRuns.push_back(
            {stage, begin, scene.PassOf(left[last], stage).left, false, number});
    }

    // Whether frames that queued at the first stage came out of it faster than usual afterwards: it
    // was its node that was slow then, and not the sensor.
    bool IsCaughtUp(const std::vector<uint32_t>& left, size_t position, Micros excess) const {
        Micros won = 0;
        for (size_t next = position + 1; next < left.size(); ++next) {
            const Micros time = scene.PassOf(left[next], 0).left;
            const Micros before = scene.PassOf(left[next - 1], 0).left;
            const Micros interval = time - before;
            const Micros period = schedule.PeriodAt(time);
            if (interval > period - period / 10 || !judging.IsTimed(before, time)) {
                break;
            }
            won += period - interval;
        }
        return won > excess / 2;
    }

    // Frames that had to wait at the stage behind a slow one.
    void FindWaiting(int32_t stage, const std::vector<uint32_t>& left, size_t last,
                     Trouble& trouble) const {
        const Micros noticeable = std::max<Micros>(schedule.Period() / 5, 3 * MILLISECOND) +
                                  (schedule.KeptBack(stage) > 0 ? schedule.UsualStay(stage) : 0);
        for (size_t next = last + 1; next < left.size(); ++next) {
            const StageTimes times = scene.TimesOf(left[next], stage);
            if (stage == 0 || times.wait == NO_TIME || times.wait < noticeable) {
                break;
            }
            trouble.waited.push_back(scene.frames[left[next]].number);
            scene.frames[left[next]].hasFinding = true;
        }
    }

    void RaiseLate(size_t outputs, Micros threshold) {
        const bool isMany = nobodysFault.size() * 200 > outputs || longest > 2 * threshold;
        Trouble& trouble = judging.Raise(
            Check::Late, isMany ? Severity::Warning : Severity::Note, NO_INDEX, -1, scene.from,
            NO_TIME,
            fmt::format(
                wording::LATE,
                fmt::arg("frames", fmt::format("{} of {} frames", nobodysFault.size(), outputs)),
                fmt::arg("limit", Fixed(static_cast<double>(threshold) / 1000, 1)),
                fmt::arg("numbers", NumbersText(nobodysFault)), fmt::arg("longest", Ms(longest))));
        for (uint32_t frame = 0; frame < scene.frames.size(); ++frame) {
            if (scene.frames[frame].number == nobodysFault.front()) {
                const auto [place, time] = judging.LastOf(frame);
                trouble.finding.place = place;
                trouble.finding.time = time;
                break;
            }
        }
        trouble.finding.frame = nobodysFault.front();
        trouble.finding.frames = RangesOf(nobodysFault);
        trouble.finding.times = static_cast<int64_t>(nobodysFault.size());
    }

    Judging& judging;
    Scene& scene;
    const Schedule& schedule;
    std::map<int32_t, std::vector<Blamed>> blamedOf;  // By stage.
    std::vector<int64_t> nobodysFault;
    Micros longest = 0;
    std::map<std::pair<uint16_t, int64_t>, uint32_t> index;  // Of frames; made when first needed.
};

}  // namespace

void FindRates(Judging& judging) {
    for (const RateStretch& stretch : judging.schedule.Rates()) {
        const int32_t fps = judging.scene.fps > 0 ? judging.scene.fps : 60;
        judging.Raise(
            Check::Rate, Severity::Warning, NO_INDEX, 0, stretch.place, stretch.begin,
            fmt::format(
                wording::RATE,
                fmt::arg("rate", Fixed(1e6 / static_cast<double>(stretch.period), 1)),
                fmt::arg("time", Fixed(static_cast<double>(stretch.end - stretch.begin) / 1e6, 1)),
                fmt::arg("fps", fps)));
    }
}

// A stage that takes longer than a period while frames wait for it.
void FindSlowForGood(Judging& judging) {
    Scene& scene = judging.scene;
    const Schedule& schedule = judging.schedule;
    if (!scene.hasTimes) {
        return;
    }
    std::vector<SlowRun> runs;
    std::vector<std::string> messages;
    std::vector<std::pair<uint32_t, uint32_t>> ends;
    // From the last stage on: what waits for a stage that waits for another is not to blame.
    for (int32_t stage = scene.stageCount - 1; stage > 0; --stage) {
        const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
        for (size_t from = 1; from < left.size();) {
            if (!schedule.CauseOf(left[from], stage).isInStage) {
                ++from;
                continue;
            }
            size_t to = from;
            while (to + 1 < left.size() && schedule.CauseOf(left[to + 1], stage).isInStage &&
                   scene.frames[left[to + 1]].epoch == scene.frames[left[from]].epoch) {
                ++to;
            }
            const size_t next = to + 1;
            const Micros period = schedule.PeriodAt(scene.PassOf(left[from], stage).left);
            const auto workOf = [&](size_t i) {
                const Micros done = scene.PassOf(left[i], stage).left;
                const Micros work = schedule.WorkOf(left[i], stage);
                return work == NO_TIME || judging.IsDoubtful(left[i])
                           ? period
                           : work - judging.Stood(done - work, done);
            };
            // The frame that the first of them waits for may be slow, too.
            if (scene.frames[left[from - 1]].epoch == scene.frames[left[from]].epoch &&
                workOf(from - 1) > OverPeriod(period)) {
                --from;
            }
            while (from < to && workOf(from) <= OverPeriod(period)) {
                ++from;
            }
            while (to > from && workOf(to) <= OverPeriod(period)) {
                --to;
            }
            // Of two in turn, as one may take long where the other is quick.
            std::vector<Micros> pairs;
            Micros sum = 0;
            for (size_t i = from; i <= to; ++i) {
                const Micros work = workOf(i);
                sum += work > HANG_PERIODS * period ? period : work;
                pairs.push_back(work + workOf(i < to ? i + 1 : i));
            }
            const bool isRule = MedianOf(pairs, 0) > period + OverPeriod(period);
            const Micros mean = sum / static_cast<Micros>(to - from + 1);
            const Micros begin = scene.PassOf(left[from], stage).begin;
            const Micros end = scene.PassOf(left[to], stage).left;
            const bool isBehindAnother =
                std::any_of(runs.begin(), runs.end(),
                            [&](const SlowRun& run) { return run.begin < end && run.end > begin; });
            if (end - begin >= FOR_GOOD && mean > OverPeriod(period) && isRule &&
                !isBehindAnother) {
                runs.push_back({stage, begin, end, true, 0});
                ends.emplace_back(left[from], left[to]);
                messages.push_back(
                    fmt::format(wording::SLOW_FOR_GOOD, fmt::arg("stage", judging.StageName(stage)),
                                fmt::arg("time", Fixed(static_cast<double>(mean) / 1000, 1)),
                                fmt::arg("first", scene.frames[left[from]].number),
                                fmt::arg("last", scene.frames[left[to]].number),
                                fmt::arg("period", Fixed(static_cast<double>(period) / 1000, 1))));
            }
            from = next;
        }
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        runs[i].trouble = judging.troubles.size();
        const auto [first, last] = ends[i];
        Trouble& trouble =
            judging.Raise(Check::SlowStage, Severity::Error, first, runs[i].stage,
                          scene.PassOf(first, runs[i].stage).place, runs[i].begin, messages[i]);
        trouble.finding.frames = {{scene.frames[first].number, scene.frames[last].number}};
        judging.slowRuns.push_back(runs[i]);
    }
}

void FindLate(Judging& judging, Micros threshold) {
    DelayFinder(judging).Find(threshold);
}

// Before the first output there is no interval that would show it.
void FindSlowFirst(Judging& judging) {
    Scene& scene = judging.scene;
    const Schedule& schedule = judging.schedule;
    if (scene.isBeginningMissing || !scene.hasTimes || schedule.Outputs().empty()) {
        return;
    }
    const uint32_t first = schedule.Outputs().front();
    const Frame& row = scene.frames[first];
    if (!row.isStarted || judging.IsDoubtful(first)) {
        return;
    }
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        const Micros begin = stage == 0 ? row.start : schedule.CauseOf(first, stage).begin;
        const StagePass& pass = scene.PassOf(first, stage);
        if (begin == NO_TIME || !pass.HasLeft()) {
            continue;
        }
        const Micros took = pass.left - begin - judging.Stood(begin, pass.left);
        const Micros usual = stage == 0 ? schedule.PeriodAt(begin) : schedule.UsualStay(stage);
        if (took > usual + HANG_PERIODS * schedule.Period()) {
            judging.Raise(stage == 0 ? Check::SensorStall : Check::SlowStage, Severity::Warning,
                          first, stage, pass.place, begin,
                          fmt::format(wording::SLOW_FIRST, fmt::arg("frame", row.number),
                                      fmt::arg("stage", judging.StageName(stage)),
                                      fmt::arg("time", Ms(took)), fmt::arg("usual", Ms(usual))));
            judging.slowRuns.push_back(
                {stage, begin, pass.left, false, judging.troubles.size() - 1});
            return;
        }
    }
}

}  // namespace tools
