// Frames whose events were reported in another order than the frames went, twice, or not at all.

#include <algorithm>
#include <unordered_map>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {
namespace {

struct Misreports {
    const Scene& scene;
    const Columns& columns;
    std::vector<Cause>& causes;
    std::unordered_map<uint32_t, const Scene::Repeat*> repeats{};  // Of each row the first.

    void Find() {
        for (const Scene::Repeat& repeat : scene.repeats) {
            repeats.try_emplace(repeat.frame, &repeat);
        }
        for (uint32_t row = 0; row < scene.frames.size(); ++row) {
            const Frame& frame = scene.frames[row];
            const Fate& fate = columns.fates[row];
            const bool isOfRestart = scene.restartedAfter && !frame.isStarted &&
                                     StepOf(*scene.restartedAfter, frame.number) <= 2;
            if (!fate.isUnknown && !fate.isEarly && !fate.isNeverOut && !fate.isSkipped &&
                !isOfRestart && !columns.IsNearHole(frame.seen, scene.LastOf(row).second)) {
                Examine(row);
            }
        }
        for (int32_t stage = 0; stage < columns.stages && !scene.isAlone; ++stage) {
            FindOvertaken(stage);
        }
    }

    Cause& Add(Case what, uint32_t row, int32_t stage) {
        const Frame& frame = scene.frames[row];
        const auto [place, last] = scene.LastOf(row);
        const bool hasTrouble = frame.trouble.line != 0;
        causes.push_back({.what = what,
                          .span = {frame.seen, std::max(last, frame.end)},
                          .stage = stage,
                          .own = {frame.number},
                          .place = hasTrouble ? frame.trouble : place,
                          .time = hasTrouble ? frame.troubleTime : last});
        return causes.back();
    }

    void Examine(uint32_t row) {
        const Frame& frame = scene.frames[row];
        const Fate& fate = columns.fates[row];
        const auto repeat = repeats.find(row);
        const int32_t unreported = scene.isAlone ? -1 : scene.Unreported(row);
        if (unreported >= 0 && unreported != columns.neverHit &&
            !(repeat != repeats.end() && repeat->second->stage < unreported) &&
            (frame.isStarted || (unreported > 0 && scene.hasNodes)) && !IsSilent(row, unreported)) {
            Add(Case::Unreported, row, unreported);
        } else if (repeat != repeats.end()) {
            AddRepeat(row, *repeat->second);
        } else if (frame.isDuplicate && !IsOpenedTwice(row)) {
            const bool isHarmless = frame.isStarted && frame.violation == Violation::None;
            Add(Case::StartedAgain, row, -1).atLeast =
                isHarmless ? Severity::Note : Severity::Error;
        } else if (frame.violation != Violation::None && !IsOpenedTwice(row)) {
            AddViolation(row);
        } else if (fate.status == FrameStatus::Dropped && fate.isOut && frame.end < fate.output) {
            Add(Case::EndedEarly, row, -1);
        }
    }

    // Whether the end of stage 0 of the frame before was reported twice, which starts this one
    // twice.
    bool IsOpenedTwice(uint32_t row) const {
        const auto before = row == 0 ? repeats.end() : repeats.find(row - 1);
        return before != repeats.end() && before->second->stage == 0;
    }

    // Whether the HAL reports the stage itself and the library refused that: then no line says so.
    bool IsSilent(uint32_t row, int32_t stage) const {
        const Frame& frame = scene.frames[row];
        return columns.isByNodes[stage] == 0 &&
               (!frame.isStarted || frame.refused != NO_TIME || frame.violation != Violation::None);
    }

    void AddRepeat(uint32_t row, const Scene::Repeat& repeat) {
        const auto portOf = [this](uint16_t reporter) {
            return reporter < scene.reporters.size() ? scene.reporters[reporter].port : -1;
        };
        const int32_t first = portOf(scene.PassOf(row, repeat.stage).reporter);
        const int32_t second = portOf(repeat.reporter);
        Cause& cause = Add(first != second ? Case::SecondPort : Case::Twice, row, repeat.stage);
        cause.atLeast =
            columns.fates[row].status == FrameStatus::Complete ? Severity::Note : Severity::Error;
        cause.place = repeat.place;
        cause.time = repeat.time;
        cause.count = first;
        cause.other = second;
    }

    void AddViolation(uint32_t row) {
        const Frame& frame = scene.frames[row];
        if (columns.neverHit && frame.violation != Violation::NoSuchStage &&
            std::max(frame.violationStage, frame.violationOther) >= *columns.neverHit) {
            return;
        }
        switch (frame.violation) {
            case Violation::NoSuchStage:
                Add(Case::NoSuchStage, row, frame.violationStage).count = scene.stageCount;
                return;
            case Violation::OutOfTurn:
                Add(Case::OutOfTurn, row, frame.violationStage);
                return;
            default: {
                // Two stages that changed places: the one that was to come first is to blame.
                const auto [first, second] =
                    std::minmax(frame.violationStage, frame.violationOther);
                Add(Case::OutOfOrder, row, first).other = second;
                return;
            }
        }
    }

    // Frames that others overtake in a stage. Where many are, that is how the stage works.
    void FindOvertaken(int32_t stage) {
        const std::vector<uint32_t>& order = columns.order[stage];
        std::vector<std::pair<uint32_t, uint32_t>> overtaken;  // Rows, and by which one.
        uint32_t newest = NO_INDEX;
        for (const uint32_t row : order) {
            const bool isBehind =
                newest != NO_INDEX && newest > row && CameBefore(row, newest, stage);
            if (isBehind) {
                overtaken.emplace_back(row, newest);
            } else {
                newest = newest == NO_INDEX ? row : std::max(newest, row);
            }
        }
        const auto all = static_cast<double>(order.size());
        const size_t together = columns.together[stage];
        if (static_cast<double>(overtaken.size()) > std::max(limits::HABIT * all, 2.0) &&
            columns.holes.empty()) {
            std::vector<int64_t> numbers;
            numbers.reserve(overtaken.size());
            for (const auto& [row, by] : overtaken) {
                numbers.push_back(scene.frames[row].number);
            }
            AddHabit(Case::Reorders, stage, std::move(numbers));
        } else if (stage > 0 && static_cast<double>(together) > limits::GROUPED * all) {
            AddHabit(Case::SeveralAtOnce, stage, TogetherIn(stage));
        } else {
            for (const auto& [row, by] : overtaken) {
                const Fate& fate = columns.fates[row];
                const Frame& frame = scene.frames[row];
                if (!fate.isUnknown && !fate.isEarly &&
                    !columns.IsNearHole(frame.seen, scene.LastOf(row).second) &&
                    frame.violation == Violation::None) {
                    Cause& cause = Add(Case::Overtaken, row, stage);
                    cause.atLeast = stage == 0 ? Severity::Error : Severity::Note;
                    cause.place = scene.PassOf(row, stage).place;
                    cause.time = scene.LeftOf(row, stage);
                    cause.other = scene.frames[by].number;
                }
            }
        }
    }

    // Whether a frame came to the stage before another one of a higher number: then that overtook
    // it there, and not before.
    bool CameBefore(uint32_t row, uint32_t other, int32_t stage) const {
        for (int32_t before = stage - 1; before >= 0; --before) {
            const Pass& one = scene.PassOf(row, before);
            const Pass& two = scene.PassOf(other, before);
            if (one.HasLeft() && two.HasLeft()) {
                return std::pair(one.left, one.place) < std::pair(two.left, two.place);
            }
        }
        return true;
    }

    std::vector<int64_t> TogetherIn(int32_t stage) const {
        const std::vector<uint32_t>& order = columns.order[stage];
        std::vector<int64_t> numbers;
        Micros before = NO_TIME;
        for (size_t i = 0; i < order.size(); ++i) {
            const Micros left = scene.LeftOf(order[i], stage);
            const Micros next = i + 1 < order.size() ? scene.LeftOf(order[i + 1], stage) : NO_TIME;
            if ((before != NO_TIME && left - before <= limits::TOGETHER) ||
                (next != NO_TIME && next - left <= limits::TOGETHER)) {
                numbers.push_back(scene.frames[order[i]].number);
            }
            before = left;
        }
        return numbers;
    }

    void AddHabit(Case what, int32_t stage, std::vector<int64_t> numbers) {
        const std::vector<uint32_t>& order = columns.order[stage];
        std::sort(numbers.begin(), numbers.end());
        Cause cause{.what = what, .span = {scene.begin, scene.stop}, .stage = stage};
        const uint32_t row = scene.RowOf(numbers.front());
        cause.own = std::move(numbers);
        cause.other = static_cast<int64_t>(order.size());
        cause.place = scene.PassOf(row, stage).place;
        cause.time = scene.LeftOf(row, stage);
        causes.push_back(std::move(cause));
    }
};

}  // namespace

void FindMisreports(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    Misreports{scene, columns, causes}.Find();
}

}  // namespace tools
