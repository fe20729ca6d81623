// Frames whose events were reported in another order than the frames went, twice, or not at all.

#include <algorithm>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {
namespace {

struct Misreports {
    const Scene& scene;
    const Columns& columns;
    std::vector<Cause>& causes;

    void Find() {
        for (uint32_t row = 0; row < scene.frames.size(); ++row) {
            const Frame& frame = scene.frames[row];
            const bool isOfRestart = scene.restartedAfter && !frame.isStarted &&
                                     StepOf(*scene.restartedAfter, frame.number) <= 2;
            const Fate& fate = columns.fates[row];
            if (IsSure(row) && !fate.isNeverOut && !fate.isSkipped && !isOfRestart) {
                Examine(row);
            }
        }
        for (int32_t stage = 0; stage < columns.stages && !scene.isAlone; ++stage) {
            FindOvertaken(stage);
        }
    }

    // Whether all lines of the frame are there.
    bool IsSure(uint32_t row) const {
        const Fate& fate = columns.fates[row];
        return !fate.isUnknown && !fate.isEarly &&
               !columns.IsNearHole(scene.frames[row].seen, scene.LastOf(row).time);
    }

    Cause& Add(Case what, uint32_t row, int32_t stage, bool isError = false) {
        const Frame& frame = scene.frames[row];
        return causes.emplace_back(Cause{.what = what,
                                         .span = {frame.seen, scene.SeenUntil(row)},
                                         .stage = stage,
                                         .own = {frame.number},
                                         .at = scene.TroubleOf(row),
                                         .atLeast = isError ? Severity::Error : Severity::Note});
    }

    void Examine(uint32_t row) {
        const Frame& frame = scene.frames[row];
        const Fate& fate = columns.fates[row];
        const auto& repeats = scene.repeats;
        const auto repeat = repeats.find(frame.number);
        const int32_t unreported = scene.isAlone ? -1 : scene.Unreported(row);
        const bool isInOrder = !frame.violation;
        // The end of stage 0 of the frame before was reported twice, which starts this one twice.
        const auto before = row == 0 ? repeats.end() : repeats.find(scene.frames[row - 1].number);
        const bool isOpenedTwice = before != repeats.end() && before->second.stage == 0;
        // No line names a stage that the HAL reports itself and the library refused.
        const bool isSilent = unreported >= 0 && columns.isByNodes[unreported] == 0 &&
                              (!frame.isStarted || frame.refused != NO_TIME || !isInOrder);
        if (unreported >= 0 && unreported != columns.neverHit && !isSilent &&
            !(repeat != repeats.end() && repeat->second.stage < unreported) &&
            (frame.isStarted || (unreported > 0 && scene.hasNodes))) {
            Add(Case::Unreported, row, unreported);
        } else if (repeat != repeats.end()) {
            AddRepeat(row, repeat->second);
        } else if (frame.isDuplicate && !isOpenedTwice) {
            Add(Case::StartedAgain, row, -1, !frame.isStarted || !isInOrder);
        } else if (!isInOrder && !isOpenedTwice) {
            AddViolation(row);
        } else if (fate.status == FrameStatus::Dropped && fate.isOut && frame.refused > frame.end) {
            Add(Case::EndedEarly, row, -1);
        }
    }

    void AddRepeat(uint32_t row, const Scene::Repeat& repeat) {
        const Pass& pass = scene.PassOf(row, repeat.stage);
        const int32_t first = scene.reporters[pass.reporter].port;
        const int32_t second = scene.reporters[repeat.pass.reporter].port;
        Cause& cause = Add(first != second ? Case::SecondPort : Case::Twice, row, repeat.stage,
                           columns.fates[row].status != FrameStatus::Complete);
        cause.at = repeat.pass.left;
        cause.count = first;
        cause.other = second;
    }

    void AddViolation(uint32_t row) {
        const Frame& frame = scene.frames[row];
        const auto [first, second] = std::minmax(frame.violationStage, frame.violationOther);
        if (frame.violation == MessageKind::StageNotInRange) {
            Add(Case::NoSuchStage, row, frame.violationStage).count = scene.stageCount;
        } else if (columns.neverHit && second >= *columns.neverHit) {
            return;  // That explains it.
        } else if (frame.violation == MessageKind::StageOutOfTurn) {
            Add(Case::OutOfTurn, row, frame.violationStage);
        } else {
            // Of two stages that changed places the one that was to come first is to blame.
            Add(Case::OutOfOrder, row, first).other = second;
        }
    }

    // Frames that others overtake in a stage. Where many are, that is how the stage works.
    void FindOvertaken(int32_t stage) {
        const std::vector<uint32_t>& order = columns.order[stage];
        const auto all = static_cast<double>(order.size());
        std::vector<uint32_t> overtaken, by;
        uint32_t newest = 0;
        for (const uint32_t row : order) {
            if (newest > row && CameBefore(row, newest, stage)) {
                overtaken.push_back(row);
                by.push_back(newest);
            }
            newest = std::max(newest, row);
        }
        if (static_cast<double>(overtaken.size()) > std::max(limits::HABIT * all, 2.0) &&
            columns.holes.empty()) {
            return AddHabit(Case::Reorders, stage, std::move(overtaken));
        }
        if (std::vector<uint32_t> together = TogetherIn(stage);
            stage > 0 && static_cast<double>(together.size()) > limits::GROUPED * all) {
            return AddHabit(Case::SeveralAtOnce, stage, std::move(together));
        }
        for (size_t i = 0; i < overtaken.size(); ++i) {
            const uint32_t row = overtaken[i];
            if (IsSure(row) && !scene.frames[row].violation) {
                Cause& cause = Add(Case::Overtaken, row, stage, stage == 0);
                cause.at = scene.LeftAt(row, stage);
                cause.other = scene.frames[by[i]].number;
            }
        }
    }

    // Frames that left the stage together with another one.
    std::vector<uint32_t> TogetherIn(int32_t stage) const {
        const std::vector<uint32_t>& order = columns.order[stage];
        const auto isTogether = [&](size_t i) {
            return i > 0 && i < order.size() &&
                   scene.LeftOf(order[i], stage) - scene.LeftOf(order[i - 1], stage) <=
                       limits::TOGETHER;
        };
        std::vector<uint32_t> together;
        for (size_t i = 0; i < order.size(); ++i) {
            if (isTogether(i) || isTogether(i + 1)) {
                together.push_back(order[i]);
            }
        }
        return together;
    }

    // Whether a frame came to the stage before another one of a higher number: then that overtook
    // it there, and not before.
    bool CameBefore(uint32_t row, uint32_t other, int32_t stage) const {
        for (int32_t before = stage - 1; before >= 0; --before) {
            const Pass& one = scene.PassOf(row, before);
            const Pass& two = scene.PassOf(other, before);
            if (one.HasLeft() && two.HasLeft()) {
                return one.left < two.left;
            }
        }
        return true;
    }

    void AddHabit(Case what, int32_t stage, std::vector<uint32_t> rows) {
        std::ranges::sort(rows);
        Cause& cause = causes.emplace_back(Cause{.what = what,
                                                 .span = {scene.begin, scene.stop},
                                                 .stage = stage,
                                                 .at = scene.LeftAt(rows.front(), stage),
                                                 .other = std::ssize(columns.order[stage])});
        for (const uint32_t row : rows) {
            cause.own.push_back(scene.frames[row].number);
        }
    }
};

}  // namespace

void FindMisreports(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    Misreports{scene, columns, causes}.Find();
}

}  // namespace tools
