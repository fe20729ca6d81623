// Frames whose events were out of order, missing or told twice, and what followed from that.

#include <algorithm>
#include <unordered_map>

#include "tools/account/wording.h"

namespace tools {
namespace {

struct OrderFinder {
    Judging& judging;
    Scene& scene = judging.scene;
    // The first stage that others overtook the frame in, and by whom.
    std::vector<std::pair<int32_t, uint32_t>> overtaken{};
    std::unordered_map<uint32_t, const Scene::Repeat*> repeats{};  // Of each frame the first.
    uint32_t cause = 0;  // As Judging::causes: of the frame before, if it opened none.

    void Find() {
        FindOvertaken();
        for (const Scene::Repeat& repeat : scene.repeats) {
            repeats.try_emplace(repeat.frame, &repeat);
        }
        bool hasStarted = false, isAfterUntold = false;
        for (const uint32_t frame : judging.byNumber) {
            Frame& row = scene.frames[frame];
            // What follows one of which nothing is known may suffer from that.
            row.isUntold = row.isUntold || (isAfterUntold && cause == 0 && !row.isStarted &&
                                            row.status != FrameStatus::Complete);
            isAfterUntold = row.isUntold;
            if (row.isUntold) {
                continue;
            }
            if (judging.skipped[frame]) {
                cause = judging.causes[frame];
                hasStarted = true;
                continue;
            }
            if (!judging.IsExplained(frame) && !judging.IsEarly(frame)) {
                Examine(frame, hasStarted);
            }
            isAfterUntold = row.isUntold;
            hasStarted = hasStarted || row.isStarted;
            // What follows a frame that opened none suffers from that.
            if (judging.IsExplained(frame) && OpensNoFollower(frame)) {
                cause = judging.causes[frame];
            } else if (row.isStarted) {
                cause = 0;
            }
        }
    }

    void FindOvertaken() {
        overtaken.assign(scene.frames.size(), {-1, NO_INDEX});
        for (int32_t stage = scene.stageCount - 1; stage >= 0; --stage) {
            uint32_t newest = NO_INDEX;
            for (const uint32_t frame : scene.order[static_cast<size_t>(stage)]) {
                const bool isBehind = newest != NO_INDEX &&
                                      scene.frames[newest].epoch == scene.frames[frame].epoch &&
                                      scene.frames[newest].number > scene.frames[frame].number;
                if (isBehind) {
                    overtaken[frame] = {stage, newest};
                } else {
                    newest = frame;
                }
            }
        }
    }

    bool OpensNoFollower(uint32_t frame) const {
        const Frame& row = scene.frames[frame];
        const bool hasLeft = scene.stageCount > 0 && scene.PassOf(frame, 0).HasLeft();
        return !hasLeft || overtaken[frame].first == 0 || !row.isStarted ||
               (repeats.contains(frame) && repeats.at(frame)->stage == 0);
    }

    Trouble& Raise(Check check, Severity severity, uint32_t frame, int32_t stage,
                   std::string message, bool isHarmless = false) {
        const Frame& row = scene.frames[frame];
        const auto [place, time] = judging.LastOf(frame);
        Trouble& trouble = judging.Raise(
            check, severity, frame, stage, row.trouble.line != 0 ? row.trouble : place,
            row.trouble.line != 0 ? row.troubleTime : time, std::move(message));
        trouble.cost = isHarmless ? 0 : 1;
        judging.Explain(frame, judging.troubles.size() - 1);
        return trouble;
    }

    void Examine(uint32_t frame, bool hasStarted) {
        Frame& row = scene.frames[frame];
        if (judging.IsDoubtful(frame)) {
            row.isUntold = row.status != FrameStatus::Complete;
            return;
        }
        // Nothing started a scene's first frame, and it is not missed.
        const bool isUnseen = !row.isStarted && !row.isGap && !row.isDuplicate;
        if (isUnseen && !hasStarted) {
            return;
        }
        // One that was only opened, and never came.
        if (row.isGap && frame == judging.byNumber.back() && judging.NextStage(frame) == 0 &&
            judging.schedule.LastStage() >= 0) {
            return;
        }
        const auto repeat = repeats.find(frame);
        const bool isRepeated = repeat != repeats.end();
        const int32_t unreported = judging.Unreported(frame);
        if (unreported >= 0 && !(isRepeated && repeat->second->stage < unreported) &&
            (row.isStarted || unreported > 0)) {
            Raise(Check::StageUnreported, Severity::Error, frame, unreported,
                  fmt::format(wording::UNREPORTED, fmt::arg("frame", row.number),
                              fmt::arg("stage", judging.StageName(unreported))));
            return;
        }
        if (row.isDuplicate && row.violation != Reason::None && cause != 0) {
            Join(frame, &Trouble::inError);
            return;
        }
        if (isRepeated) {
            return RaiseRepeat(frame, *repeat->second);
        }
        if (isUnseen || row.isGap) {
            if (cause != 0) {
                Join(frame, row.isGap ? &Trouble::refused : &Trouble::unseen);
            } else if (row.isGap) {
                RaiseGap(frame);
            } else {
                Raise(Check::FrameGap, Severity::Error, frame, -1,
                      fmt::format(wording::NEVER_STARTED, fmt::arg("frame", row.number),
                                  fmt::arg("stage", judging.StageName(0))));
            }
            return;
        }
        if (row.isDuplicate) {
            const bool isHarmless = row.isStarted && row.violation == Reason::None;
            Raise(Check::DuplicateFrame, isHarmless ? Severity::Warning : Severity::Error, frame,
                  -1,
                  fmt::format(
                      fmt::runtime(row.isStarted ? wording::DUPLICATE : wording::DUPLICATE_REFUSED),
                      fmt::arg("frame", row.number)),
                  isHarmless);
            return;
        }
        if (row.violation != Reason::None) {
            return RaiseViolation(frame);
        }
        if (overtaken[frame].first >= 0) {
            // Only the first stage's order matters to the library.
            const auto [stage, other] = overtaken[frame];
            Raise(Check::StageOrder, stage == 0 ? Severity::Error : Severity::Warning, frame, stage,
                  fmt::format(wording::OVERTAKEN, fmt::arg("frame", row.number),
                              fmt::arg("stage", judging.StageName(stage)),
                              fmt::arg("other", scene.frames[other].number)),
                  true);
        }
    }

    void Join(uint32_t frame, std::vector<int64_t> Trouble::*list) {
        (judging.troubles[cause - 1].*list).push_back(scene.frames[frame].number);
        judging.causes[frame] = cause;
    }

    void RaiseRepeat(uint32_t frame, const Scene::Repeat& repeat) {
        const Frame& row = scene.frames[frame];
        const auto portOf = [this](uint16_t reporter) {
            return reporter < scene.reporters.size() ? scene.reporters[reporter].port : -1;
        };
        const int32_t first = portOf(scene.PassOf(frame, repeat.stage).reporter);
        const int32_t second = portOf(repeat.reporter);
        const bool isHarmless = row.status == FrameStatus::Complete;
        Trouble& trouble = judging.Raise(
            first != second ? Check::SecondPort : Check::StageOrder,
            isHarmless ? Severity::Warning : Severity::Error, frame, repeat.stage, repeat.place,
            repeat.time,
            fmt::format(fmt::runtime(first != second ? wording::SECOND_PORT : wording::TWICE),
                        fmt::arg("frame", row.number),
                        fmt::arg("stage", judging.StageName(repeat.stage)), fmt::arg("port", first),
                        fmt::arg("other", second)));
        trouble.cost = isHarmless ? 0 : 1;
        judging.Explain(frame, judging.troubles.size() - 1);
    }

    void RaiseGap(uint32_t frame) {
        const Frame& row = scene.frames[frame];
        const int64_t newest = row.newestBefore;
        if (row.number > INT32_MAX) {
            Raise(Check::FrameGap, Severity::Error, frame, -1,
                  fmt::format(wording::GAP_32_BITS, fmt::arg("frame", row.number),
                              fmt::arg("newest", newest)));
            return;
        }
        std::string before = fmt::format("frame {}", newest);
        if (newest < row.number && newest + 1 < row.number) {
            before += newest + 2 == row.number
                          ? fmt::format("; {} never started", row.number - 1)
                          : fmt::format("; {} to {} never started", newest + 1, row.number - 1);
        }
        Raise(Check::FrameGap, Severity::Error, frame, -1,
              fmt::format(wording::GAP, fmt::arg("frame", row.number), fmt::arg("newest", before)));
    }

    void RaiseViolation(uint32_t frame) {
        const Frame& row = scene.frames[frame];
        const std::string stage = judging.StageName(row.violationStage);
        const std::string other = judging.StageName(row.violationOther);
        const bool isBefore = row.violationOther < row.violationStage;
        const char* const sentence = row.violation == Reason::NoSuchStage ? wording::NO_SUCH_STAGE
                                     : row.violation == Reason::OutOfTurn ? wording::OUT_OF_TURN
                                     : isBefore                           ? wording::BEFORE_ENDED
                                                                          : wording::AFTER_BEGUN;
        // Two stages that changed places are told by the one that was to come first.
        Raise(Check::StageOrder, Severity::Error, frame,
              row.violation == Reason::OutOfOrder && isBefore ? row.violationOther
                                                              : row.violationStage,
              fmt::format(fmt::runtime(sentence), fmt::arg("frame", row.number),
                          fmt::arg("stage", stage), fmt::arg("other", other),
                          fmt::arg("count", scene.stageCount)));
    }
};

}  // namespace

void FindOrder(Judging& judging) {
    OrderFinder{judging}.Find();
}

}  // namespace tools
