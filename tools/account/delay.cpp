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
constexpr uint64_t MOST_BETWEEN = 1000;  // More is another count.

struct DelayFinder {
    using Numbers = std::vector<int64_t>;

    Judging& judging;
    Scene& scene = judging.scene;
    const Schedule& schedule = judging.schedule;
    // By stage, and by frame that it was slow with: what came late of that.
    std::map<int32_t, std::map<uint32_t, Numbers>> blamedOf{};
    Numbers nobodysFault{};
    Micros longest = 0;

    void Find(Micros threshold) {
        const std::vector<uint32_t>& outputs = schedule.Outputs();
        for (const uint32_t frame : outputs) {
            scene.frames[frame].output = schedule.LastStage() < 0
                                             ? scene.frames[frame].end
                                             : scene.PassOf(frame, schedule.LastStage()).left;
        }
        for (size_t i = 1; i < outputs.size(); ++i) {
            if (HasLateInterval(outputs[i - 1], outputs[i], threshold)) {
                Blame(outputs[i - 1], outputs[i]);
            }
        }
        for (const auto& [stage, blamed] : blamedOf) {
            RaiseRuns(stage, blamed);
        }
        if (!nobodysFault.empty()) {
            RaiseLate(outputs.size(), threshold);
        }
    }

    // Between two outputs: how many frames never came out, the last of them that has lines, and the
    // first that came out later.
    struct Between {
        int64_t missing = 0;
        uint32_t lost = NO_INDEX, overtaken = NO_INDEX;
    };

    // Works out the interval between two outputs; whether it is late.
    bool HasLateInterval(uint32_t before, uint32_t frame, Micros threshold) {
        Frame& row = scene.frames[frame];
        const Micros from = scene.frames[before].output;
        if (judging.IsDoubtful(frame) || judging.IsDoubtful(before) ||
            !judging.IsTimed(from, row.output) || scene.frames[before].epoch != row.epoch) {
            return false;
        }
        row.interval = std::max<Micros>(row.output - from, 0);
        row.isLate = row.interval > threshold;
        row.hasFinding = row.hasFinding || row.isLate;
        scene.lateFrames += row.isLate ? 1 : 0;
        return row.isLate;
    }

    // Adds a late frame to what it came late of.
    void Blame(uint32_t before, uint32_t frame) {
        const Frame& row = scene.frames[frame];
        const Micros from = scene.frames[before].output;
        const Between between = BetweenOf(before, frame);
        // The rate is the one at which it came, and not at which it came out.
        const bool hasCome = scene.stageCount > 0 && scene.PassOf(frame, 0).HasLeft();
        const Micros period = schedule.PeriodAt(hasCome ? scene.PassOf(frame, 0).left : row.output);
        const Micros stood = judging.Stood(from, row.output);
        // Each frame that never came out leaves a period empty, and so does one that comes later.
        const Micros delay = row.interval - period * (1 + between.missing) - stood;
        const double small = between.missing > 0 ? SMALL_BESIDE_MISSING : SMALL;
        if (static_cast<double>(delay) < small * static_cast<double>(period)) {
            Trouble* trouble = stood > 0 ? StandstillIn(from - FOR_GOOD, row.output) : nullptr;
            trouble = trouble != nullptr ? trouble : judging.TroubleOf(between.lost);
            if (trouble != nullptr) {
                trouble->late.push_back(row.number);
            }
            return;
        }
        // A frame that others overtake is told of as such.
        const uint32_t behind = between.overtaken == NO_INDEX ? frame : between.overtaken;
        Trouble* known = judging.TroubleOf(behind);
        if (known != nullptr && known->finding.check == Check::StageOrder) {
            known->late.push_back(row.number);
        } else if (!Follow(behind, row.number, from - FARTHEST_BACK, delay, period)) {
            nobodysFault.push_back(row.number);
            longest = std::max(longest, row.interval);
        }
    }

    Between BetweenOf(uint32_t before, uint32_t frame) const {
        const Frame& row = scene.frames[frame];
        const int64_t first = scene.frames[before].number;
        Between between;
        if (row.number <= first ||
            static_cast<uint64_t>(row.number) - static_cast<uint64_t>(first) > MOST_BETWEEN) {
            return between;
        }
        for (int64_t number = first + 1; number < row.number; ++number) {
            const uint32_t other = judging.FrameOf(row.epoch, number);
            if (other == NO_INDEX) {
                between.missing += std::binary_search(judging.droppedUnseen.begin(),
                                                      judging.droppedUnseen.end(), number)
                                       ? 1
                                       : 0;
            } else if (scene.frames[other].isNeverOut) {
                ++between.missing;
                between.lost = other;
            } else if (scene.frames[other].output >= row.output && between.overtaken == NO_INDEX) {
                between.overtaken = other;
            }
        }
        return between;
    }

    Trouble* StandstillIn(Micros from, Micros to) const {
        const auto found = std::find_if(
            judging.troubles.begin(), judging.troubles.end(), [&](const Trouble& trouble) {
                return trouble.finding.check == Check::Standstill && trouble.finding.time < to &&
                       trouble.finding.time >= from;
            });
        return found == judging.troubles.end() ? nullptr : &*found;
    }

    // From the output of a late frame back along whatever came later, arrival or the frame ahead,
    // until its delay is explained, but no further back than `farthest`. `period`: at which it
    // came. False when neither a stage nor another rate is to blame.
    bool Follow(uint32_t frame, int64_t number, Micros farthest, Micros delay, Micros period) {
        const double enough = EXPLAINED * static_cast<double>(delay);
        Micros explained = 0, worst = 0;
        uint32_t worstFrame = NO_INDEX;
        int32_t worstStage = -1;
        bool isOfRate = false;
        for (int32_t stage = schedule.LastStage();
             frame != NO_INDEX && stage >= 0 && static_cast<double>(explained) < enough;) {
            if (!scene.PassOf(frame, stage).HasLeft()) {
                --stage;
                continue;
            }
            const Micros left = scene.PassOf(frame, stage).left;
            const Schedule::Cause cause = schedule.CauseOf(frame, stage);
            if (left < farthest || cause.begin == NO_TIME) {
                break;
            }
            // What is too slow for good is told for all frames.
            if (const SlowRun* run = SlowForGoodAt(stage, left)) {
                judging.troubles[run->trouble].late.push_back(number);
                return true;
            }
            // It waited for one that came at another rate.
            isOfRate = isOfRate || (stage == 0 && schedule.PeriodAt(left) > period);
            const Micros excess = UnusualOf(frame, stage, cause.begin);
            explained += std::max<Micros>(excess, 0);
            if (excess > worst) {
                worst = excess;
                worstFrame = frame;
                worstStage = stage;
            }
            frame = cause.frame;
            stage = cause.isInStage ? stage : stage - 1;
        }
        if (worstFrame == NO_INDEX || worst <= LeastOf(worstStage)) {
            return isOfRate;
        }
        blamedOf[worstStage][worstFrame].push_back(number);
        return true;
    }

    const SlowRun* SlowForGoodAt(int32_t stage, Micros time) const {
        const auto found =
            std::find_if(judging.slowRuns.begin(), judging.slowRuns.end(), [&](const SlowRun& run) {
                return run.isForGood && run.stage == stage && time >= run.begin && time <= run.end;
            });
        return found == judging.slowRuns.end() ? nullptr : &*found;
    }

    // How much longer than usual the stage took for the frame, which it could begin with then, as
    // far as the process did not stand.
    Micros UnusualOf(uint32_t frame, int32_t stage, Micros begin) const {
        const Micros left = scene.PassOf(frame, stage).left;
        const Micros usual = stage == 0
                                 ? schedule.PeriodAt(left) * (1 + judging.droppedBefore[frame])
                                 : schedule.UsualDelay(stage);
        // Where several frames are in a stage at once, one may seem slow that was no longer in it
        // than all.
        const Micros arrival = scene.ArrivalOf(frame, stage);
        const Micros since = stage == 0 || arrival == NO_TIME
                                 ? begin
                                 : std::max(begin, arrival + schedule.UsualStay(stage) - usual);
        return left - since - usual - judging.Stood(since, left);
    }

    // By less than that no stage is slow.
    Micros LeastOf(int32_t stage) const {
        return std::max(
            {Micros{2500}, schedule.UsualDelay(stage) * 15 / 100, 2 * judging.resolution});
    }

    Micros ExcessOf(uint32_t frame, int32_t stage) const {
        const Micros begin = schedule.CauseOf(frame, stage).begin;
        return begin == NO_TIME
                   ? 0
                   : scene.PassOf(frame, stage).left - begin - schedule.UsualDelay(stage);
    }

    // Frames in a row that a stage was slow with are one finding.
    void RaiseRuns(int32_t stage, const std::map<uint32_t, Numbers>& blamed) {
        const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
        size_t done = 0;  // Positions before this one are told.
        for (size_t position = 0; position < left.size(); ++position) {
            const auto one = blamed.find(left[position]);
            if (one == blamed.end()) {
                continue;
            }
            if (position < done) {
                Numbers& late = judging.troubles.back().late;
                late.insert(late.end(), one->second.begin(), one->second.end());
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
            RaiseRun(stage, first, last, one->second);
            done = last + 1;
        }
    }

    void RaiseRun(int32_t stage, size_t first, size_t last, const Numbers& blamed) {
        const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
        Numbers numbers;
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
        const Micros usual = stage == 0                     ? schedule.PeriodAt(pass.left)
                             : schedule.KeptBack(stage) > 0 ? schedule.UsualStay(stage)
                                                            : schedule.UsualDelay(stage);
        const size_t number = judging.troubles.size();
        Trouble& trouble = judging.Raise(
            isStall ? Check::SensorStall : Check::SlowStage, Severity::Warning, left[first], stage,
            pass.place, begin,
            fmt::format(fmt::runtime(isStall ? wording::STALL : wording::SLOW),
                        fmt::arg("frame", numbers.front()), fmt::arg("frames", FramesText(numbers)),
                        fmt::arg("stage", judging.StageName(stage)), fmt::arg("time", Ms(took)),
                        fmt::arg("usual", Ms(usual)),
                        fmt::arg("each", numbers.size() == 1 ? "" : " each")));
        trouble.finding.frames = RangesOf(numbers);
        for (const int64_t late : blamed) {
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
        trouble.About(nobodysFault);
        trouble.finding.times = static_cast<int64_t>(nobodysFault.size());
    }
};

// Raises that a stage is too slow for frames that waited for it in a row; from one position in the
// order in which they left it to another.
void RaiseIfSlowForGood(Judging& judging, int32_t stage, size_t from, size_t to) {
    const Scene& scene = judging.scene;
    const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
    const Micros period = judging.schedule.PeriodAt(scene.PassOf(left[from], stage).left);
    const Micros tooSlow = OverPeriod(period);
    const auto workOf = [&](size_t i) {
        return judging.IsDoubtful(left[i]) ? period : judging.WorkOf(left[i], stage, period);
    };
    // The frame that the first of them waits for may be slow, too.
    if (scene.frames[left[from - 1]].epoch == scene.frames[left[from]].epoch) {
        --from;
    }
    while (from < to && workOf(from) <= tooSlow) {
        ++from;
    }
    while (to > from && workOf(to) <= tooSlow) {
        --to;
    }
    // Of two in turn, as one may take long where the other is quick.
    std::vector<Micros> pairs;
    Micros sum = 0;
    for (size_t i = from; i <= to; ++i) {
        const Micros work = workOf(i);
        sum += work > HANG_PERIODS * period ? period : work;
        pairs.push_back(work + workOf(std::min(i + 1, to)));
    }
    const Micros mean = sum / static_cast<Micros>(to - from + 1);
    const Micros begin = scene.PassOf(left[from], stage).begin;
    const Micros end = scene.PassOf(left[to], stage).left;
    const bool isBehindAnother =
        std::any_of(judging.slowRuns.begin(), judging.slowRuns.end(),
                    [&](const SlowRun& run) { return run.begin < end && run.end > begin; });
    if (end - begin < FOR_GOOD || mean <= tooSlow || MedianOf(pairs, 0) <= period + tooSlow ||
        isBehindAnother) {
        return;
    }
    judging.slowRuns.push_back({stage, begin, end, true, judging.troubles.size()});
    const int64_t first = scene.frames[left[from]].number;
    const int64_t last = scene.frames[left[to]].number;
    Trouble& trouble = judging.Raise(
        Check::SlowStage, Severity::Error, left[from], stage, scene.PassOf(left[from], stage).place,
        begin,
        fmt::format(wording::SLOW_FOR_GOOD, fmt::arg("stage", judging.StageName(stage)),
                    fmt::arg("time", Fixed(static_cast<double>(mean) / 1000, 1)),
                    fmt::arg("first", first), fmt::arg("last", last),
                    fmt::arg("period", Fixed(static_cast<double>(period) / 1000, 1))));
    trouble.finding.frames = {{first, last}};
}

}  // namespace

void FindRates(Judging& judging) {
    for (const RateStretch& stretch : judging.schedule.Rates()) {
        judging.Raise(
            Check::Rate, Severity::Warning, NO_INDEX, 0, stretch.place, stretch.begin,
            fmt::format(
                wording::RATE,
                fmt::arg("rate", Fixed(1e6 / static_cast<double>(stretch.period), 1)),
                fmt::arg("time", Fixed(static_cast<double>(stretch.end - stretch.begin) / 1e6, 1)),
                fmt::arg("fps", judging.scene.Rate())));
    }
}

// A stage that takes longer than a period while frames wait for it.
void FindSlowForGood(Judging& judging) {
    const Scene& scene = judging.scene;
    // From the last stage on: what waits for a stage that waits for another is not to blame.
    for (int32_t stage = scene.stageCount - 1; stage > 0; --stage) {
        const std::vector<uint32_t>& left = scene.order[static_cast<size_t>(stage)];
        const auto waits = [&](size_t i) {
            return judging.schedule.CauseOf(left[i], stage).isInStage;
        };
        for (size_t next = 1; next < left.size();) {
            const size_t first = next++;
            if (!waits(first)) {
                continue;
            }
            while (next < left.size() && waits(next) &&
                   scene.frames[left[next]].epoch == scene.frames[left[first]].epoch) {
                ++next;
            }
            RaiseIfSlowForGood(judging, stage, first, next - 1);
        }
    }
}

void FindLate(Judging& judging, Micros threshold) {
    DelayFinder{judging}.Find(threshold);
}

// Before the first output there is no interval that would show it.
void FindSlowFirst(Judging& judging) {
    Scene& scene = judging.scene;
    const Schedule& schedule = judging.schedule;
    if (scene.isBeginningMissing || schedule.Outputs().empty()) {
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
