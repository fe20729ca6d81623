// A scene that goes on, with what it takes to read its lines.

#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "tools/account/limits.h"
#include "tools/account/scene.h"
#include "tools/log/calls.h"
#include "tools/log/capture.h"

namespace tools {

// A message about a frame, a stage or a node's end.
struct Event {
    Message message;
    Moment moment;
    // The number of the frame that it opens, or would open if the library took it.
    std::optional<int64_t> opened;
};

class RunningScene {
  public:
    Scene scene;  // Without rows and what follows from them, which Closed adds. Where numbers
                  // started again, or somebody ends it, with `stopped` and `stop`.
    Micros last;  // The time of the last line.
    std::optional<int64_t> lastOpened;  // As Event::opened.
    int32_t stagesLeft = 0;             // How many stages some frame has left.

    // `loaded`: the configuration of its process; null where it is not known.
    RunningScene(Scene begun, std::shared_ptr<LoadedConfiguration> loaded)
        : scene(std::move(begun)), last(scene.begin), known(std::move(loaded)) {
        if (known) {
            GrowStages(known->configuration.stageCount.value_or(0));
            for (const ConfiguredStage& stage : known->configuration.stages) {
                GrowStages(int64_t{stage.stage} + 1);
            }
        }
    }

    std::optional<int64_t> Opened(const Message& message) const {
        const bool isStart = message.kind == MessageKind::FrameStart ||
                             message.kind == MessageKind::FrameNotContinuous ||
                             message.kind == MessageKind::FrameAlreadyExists;
        const bool isFirstEnd = message.kind == MessageKind::NodeEnd && message.stage == 0 &&
                                (!known || !known->configuration.stageCount ||
                                 known->configuration.IsStagePort(message.name, message.port));
        return isStart || isFirstEnd ? std::optional(message.frame) : std::nullopt;
    }

    bool Has(int64_t number) const { return rows.contains(static_cast<int32_t>(number)); }

    // Whether the number is lower than that of the last frame by more than a table's frames.
    bool IsFarBelow(int64_t number) const {
        return lastOpened && StepOf(number, *lastOpened) > int64_t{PLACES};
    }

    // Whether numbers fell to this one: that far, or to a frame that is through.
    bool IsAgain(int64_t number) const {
        // A HAL may start a frame itself while stage 0 is still behind: that goes on with its
        // count.
        if (!lastOpened || number >= *lastOpened ||
            (lastLeft && number >= *lastLeft && StepOf(*lastLeft, number) <= 1)) {
            return false;
        }
        const auto row = rows.find(static_cast<int32_t>(number));
        return IsFarBelow(number) || (row != rows.end() && number >= 1 && IsThrough(row->second));
    }

    // Whether nothing came for long before that time, or the clock was set: what follows may be
    // another capture.
    bool IsBehindGap(Micros time) const { return time - last > limits::CUT || IsBehindStep(); }

    // The key of the frame that leaves when the library makes room.
    std::optional<int32_t> Oldest() const {
        const auto oldest = std::find_if(inFlight.begin(), inFlight.end(), [this](int32_t one) {
            return rows.at(one).isStarted && !IsThrough(rows.at(one));
        });
        return oldest == inFlight.end() ? std::nullopt : std::optional(*oldest);
    }

    void Take(const Event& event) {
        const Message& message = event.message;
        const Micros time = event.moment.time;
        lastOpened = event.opened ? event.opened : lastOpened;
        scene.to = message.place;
        scene.end = std::max(scene.end, time);
        scene.hasThreads = scene.hasThreads || event.moment.thread != -1;
        const Pass by{{time, message.place}, event.moment.thread, MAX_REPORTERS};
        NodeEnd& before = nodeEnds[event.moment.thread];
        if (message.kind == MessageKind::NodeEnd) {
            return OnNodeEnd(message, by, before);
        }
        if (before.isOpen &&
            EventLines{EventsOf(before.frame, before.stage, before.stageCount)}.Take(message)) {
            TakeEnd(before);
        }
        switch (message.kind) {
            case MessageKind::FrameAdded:
            case MessageKind::FrameRemoved:
            case MessageKind::FrameInError:
                return;
            case MessageKind::TableFull:
                return OnEviction(by.left);
            case MessageKind::EndedFrameNotExist:
            case MessageKind::FrameNotExist:
                return OnNotInFlight(message, by, before);
            default:
                return OnEvent(message, by);
        }
    }

    // Drops frames whose last line is before that time.
    void Forget(Micros before) {
        const auto isOld = [before](const auto& one) { return one.time < before; };
        // Frames that came behind one that stays are told of with it.
        Micros since = before;
        for (const auto& [key, row] : rows) {
            since = row.last < before ? since : std::min(since, row.seen);
        }
        if (std::erase_if(rows, [since](const auto& one) { return one.second.seen < since; }) ==
            0) {
            return;
        }
        std::erase_if(inFlight, [this](int32_t one) { return !rows.contains(one); });
        std::erase_if(scene.repeats,
                      [before](auto& one) { return one.second.pass.left.time < before; });
        std::erase_if(scene.leftOut, isOld);
        std::erase_if(scene.clockSteps, isOld);
        std::erase_if(scene.silences, [before](const auto& one) { return one.end < before; });
        scene.isBeginningMissing = true;
        scene.begin = before;
    }

    // The whole scene. To be called once, last.
    Scene Closed() {
        if (IsBehindStep()) {
            scene.clockSteps.pop_back();  // Nothing of the scene came behind it.
            scene.stop = scene.end;
        }
        scene.stop = std::max(scene.stop, scene.end);
        scene.stageNames.resize(static_cast<size_t>(scene.stageCount));
        const auto name = [this](int32_t stage, const std::string& node) {
            if (stage >= 0 && stage < scene.stageCount) {
                std::string& first = scene.stageNames[static_cast<size_t>(stage)];
                first = first.empty() ? node : first;
            }
        };
        if (known) {
            scene.configured = known->configuration.stages;
        }
        for (const ConfiguredStage& stage : scene.configured) {
            name(stage.stage, stage.node);
        }
        for (const Reporter& reporter : scene.reporters) {
            name(reporter.counts == true ? reporter.stage : -1, reporter.node);
        }
        for (const int32_t one : inFlight) {
            rows.at(one).isHeld = true;
        }
        scene.isAlone = !rows.empty() && !hasStages;
        std::vector<std::pair<int64_t, Row*>> order;
        for (auto& [key, row] : rows) {
            order.emplace_back(row.number, &row);
        }
        std::sort(order.begin(), order.end());
        scene.frames.reserve(order.size());
        scene.passes.reserve(order.size() * scene.stageNames.size());
        for (const auto& [number, row] : order) {
            PlaceNameless(*row);
            scene.frames.push_back(*row);
            row->passes.resize(scene.stageNames.size());
            scene.passes.insert(scene.passes.end(), row->passes.begin(), row->passes.end());
            row->passes = {};
        }
        return std::move(scene);
    }

  private:
    static constexpr int32_t MAX_STAGES = 64;        // More is nonsense.
    static constexpr uint16_t MAX_REPORTERS = 1000;  // As the index of a reporter: none.
    static constexpr size_t PLACES = FrameTracker::DEFAULT_MAX_FRAME_TRACKED;

    struct Row : Frame {
        std::vector<Pass> passes;    // Of the first stages, or of all.
        std::vector<Pass> nameless;  // Ends of stages that the log does not name.
        Micros last = NO_TIME;       // The time of the last line that names it.
    };
    struct NodeEnd {
        int64_t frame = 0;
        int32_t stage = -1, stageCount = 0;
        Pass pass;
        bool isOpen = false;  // Whether it counts is not known yet.
    };

    // Of several times the first one is kept.
    static void KeepFirst(Micros& first, Micros time) { first = first == NO_TIME ? time : first; }

    static void NoteTrouble(Frame& frame, const Mark& by) {
        frame.trouble = frame.trouble.place.line == 0 ? by : frame.trouble;
    }

    // A frame in error leaves the table without a word.
    static bool IsSound(const Frame& frame) { return frame.isStarted && !frame.violation; }

    bool IsBehindStep() const {
        return !scene.clockSteps.empty() && scene.clockSteps.back().amount > 0 &&
               scene.to < scene.clockSteps.back().place;
    }

    void GrowStages(int64_t count) {
        scene.stageCount =
            std::max(scene.stageCount, static_cast<int32_t>(std::min<int64_t>(count, MAX_STAGES)));
    }

    // An event is of that stage.
    void SeeStage(int32_t stage) {
        GrowStages(int64_t{stage} + 1);
        hasStages = hasStages || scene.stageCount > 0;
    }

    Row& FindOrOpen(int64_t number, const Mark& by) {
        const auto [found, isNew] = rows.try_emplace(static_cast<int32_t>(number));
        Row& row = found->second;
        if (isNew) {
            row.number = number;
            row.place = by.place;
            row.seen = by.time;
        }
        row.last = std::max(row.last, by.time);
        return row;
    }

    bool IsThrough(const Row& row) const {
        const auto stages = static_cast<size_t>(scene.stageCount);
        return row.isEnded || row.evicted != NO_TIME ||
               (stages > 0 && row.passes.size() == stages && row.passes.back().HasLeft());
    }

    uint16_t ReporterOf(const Message& message) {
        std::vector<Reporter>& reporters = scene.reporters;
        const auto found =
            std::find_if(reporters.begin(), reporters.end(), [&message](const Reporter& reporter) {
                return reporter.port == message.port && reporter.camera == message.camera &&
                       reporter.stage == message.stage && reporter.node == message.name;
            });
        const auto index = static_cast<uint16_t>(
            std::min<ptrdiff_t>(found - reporters.begin(), MAX_REPORTERS - 1));
        if (index == reporters.size()) {
            reporters.push_back({.node = std::string(message.name),
                                 .port = message.port,
                                 .camera = message.camera,
                                 .stage = message.stage,
                                 .place = message.place});
        }
        return index;
    }

    void OnNodeEnd(const Message& message, Pass by, NodeEnd& end) {
        GrowStages(message.count);
        by.reporter = ReporterOf(message);
        by.seen = NODE_END;
        Reporter& reporter = scene.reporters[by.reporter];
        ++reporter.times;
        if (known) {
            known->configuration.stageCount = message.count;
        }
        if (!reporter.counts && (known || message.stage < 0)) {
            reporter.counts =
                message.stage >= 0 && known->configuration.IsStagePort(message.name, message.port);
        }
        end = {message.frame, message.stage, message.count, by, !reporter.counts};
        if (reporter.counts == true) {
            TakeEnd(end);
        }
    }

    // Takes a node end that counts.
    void TakeEnd(NodeEnd& end) {
        end.isOpen = false;
        SeeStage(end.stage);
        scene.hasNodes = scene.hasNodes || end.stage > 0;
        scene.reporters[end.pass.reporter].counts = true;
        if (end.stage == 0) {
            scene.descents += lastLeft && end.frame < *lastLeft ? 1 : 0;
            lastLeft = end.frame;
            if (!scene.opener) {
                scene.opener = end.frame;
                scene.opened = end.pass.left.time;
            }
        }
        if (end.frame >= 1) {
            Leave(FindOrOpen(end.frame, end.pass.left), end.stage, end.pass);
            if (end.stage == scene.stageCount - 1 && end.stage > 0) {
                inFlight.erase(static_cast<int32_t>(end.frame));
            }
        }
    }

    // The frame leaves the stage, or some more of the lines that say so comes.
    void Leave(Row& row, int32_t stage, const Pass& by) {
        if (stage < 0 || stage >= scene.stageCount) {
            return;
        }
        row.passes.resize(static_cast<size_t>(scene.stageCount));
        Pass& pass = row.passes[static_cast<size_t>(stage)];
        const bool isNodeEnd = (by.seen & NODE_END) != 0;
        if (isNodeEnd && (pass.seen & NODE_END) != 0) {
            scene.repeats.try_emplace(row.number, Scene::Repeat{stage, by});
            scene.endedAgain += stage == 0 ? 1 : 0;
            return NoteTrouble(row, by.left);
        }
        if (isNodeEnd && row.isEnded) {
            KeepFirst(row.refused, by.left.time);  // What follows from it is.
        }
        const auto seen = static_cast<uint8_t>(pass.seen | by.seen);
        if (!pass.HasLeft()) {
            pass = by;
        } else if (isNodeEnd) {
            pass.thread = by.thread;
            pass.reporter = by.reporter;
        }
        pass.seen = seen;
        stagesLeft = std::max(stagesLeft, stage + 1);
    }

    void OnEvent(const Message& message, Pass by) {
        Row& row = FindOrOpen(message.frame, by.left);
        switch (message.kind) {
            case MessageKind::StageStart:
                SeeStage(message.stage);
                Leave(row, message.stage - 1, by);
                if (message.stage >= 0 && message.stage < MAX_STAGES) {
                    row.passes.resize(static_cast<size_t>(scene.stageCount));
                    row.passes[static_cast<size_t>(message.stage)].seen |= STAGE_START;
                }
                return;
            case MessageKind::StageEnd:
                SeeStage(message.stage);
                by.seen = STAGE_END;
                return Leave(row, message.stage, by);
            case MessageKind::FrameEnd:
                row.isEnded = true;
                KeepFirst(row.end, by.left.time);
                inFlight.erase(static_cast<int32_t>(message.frame));
                return;
            case MessageKind::FrameAlreadyExists:
                row.isDuplicate = true;
                return NoteTrouble(row, by.left);
            case MessageKind::FrameStart:
            case MessageKind::FrameNotContinuous:
                return OnStart(row, message, by.left);
            default:  // The stage is wrong.
                NoteTrouble(row, by.left);
                if (!row.violation || row.violation == MessageKind::StageNotInRange) {
                    row.violation = message.kind;
                    row.violationStage = message.stage;
                    row.violationOther = message.otherStage;
                }
        }
    }

    // Of a number that nobody knows there is no frame.
    void OnNotInFlight(const Message& message, const Pass& by, const NodeEnd& before) {
        const auto found = rows.find(static_cast<int32_t>(message.frame));
        if (found == rows.end()) {
            return;
        }
        Row& row = found->second;
        if (message.kind == MessageKind::EndedFrameNotExist) {
            return KeepFirst(row.refusedEnd, by.left.time);
        }
        if (!row.isEnded) {
            KeepFirst(row.refused, by.left.time);
        }
        // What a node's end led to says no more than that.
        const bool isOfEnd = before.pass.HasLeft() && before.frame == message.frame &&
                             by.left.time - before.pass.left.time <= limits::TOGETHER;
        if (!isOfEnd) {
            row.nameless.push_back(by);
        }
    }

    void OnStart(Row& row, const Message& message, const Mark& by) {
        const auto key = static_cast<int32_t>(message.frame);
        const bool isForwarded = message.kind == MessageKind::FrameStart;
        const auto isSound = [this](int32_t one) { return IsSound(rows.at(one)); };
        const bool isNext = inFlight.empty() || !isSound(*inFlight.rbegin()) ||
                            int64_t{*inFlight.rbegin()} + 1 == message.frame;
        if (isForwarded && (!isNext || (inFlight.contains(key) && IsSound(row)))) {
            inFlight.clear();  // What it was taken to hold has left by lines that are missing.
        }
        if (isForwarded && row.isStarted) {
            ++scene.startedAgain;
        } else if (isForwarded) {
            row.start = by.time;
            row.place = by.place;
            row.isStarted = true;
        } else if (!row.isStarted) {
            KeepFirst(row.start, by.time);
            row.isGap = true;
            row.newestBefore = message.lastFrame;
            NoteTrouble(row, by);
        }
        // Where a frame is refused, the line that it pushes another one out comes behind this one.
        while (inFlight.size() > (isForwarded ? PLACES - 1 : PLACES)) {
            const auto inError = std::find_if_not(inFlight.begin(), inFlight.end(), isSound);
            inFlight.erase(inError == inFlight.end() ? inFlight.begin() : inError);
        }
        inFlight.insert(key);
    }

    // The library says only that it made room: the lowest number leaves.
    void OnEviction(const Mark& by) {
        if (const auto oldest = Oldest()) {
            rows.at(*oldest).evicted = by.time;
            NoteTrouble(rows.at(*oldest), by);
            inFlight.erase(*oldest);
        }
    }

    // Where a HAL reports stages itself, the line of a refused event names no stage. Frames go
    // through stages in order, so each moment with such lines is the end of the next one.
    void PlaceNameless(Row& row) {
        for (const Pass& by : row.nameless) {
            const auto next =
                std::find_if_not(row.passes.begin(), row.passes.end(), std::mem_fn(&Pass::HasLeft));
            const Micros came = next == row.passes.begin() ? row.start : std::prev(next)->left.time;
            if (by.left.time > std::max(came, row.seen)) {
                Leave(row, static_cast<int32_t>(next - row.passes.begin()), by);
            }
        }
    }

    std::shared_ptr<LoadedConfiguration> known;
    std::unordered_map<int32_t, Row> rows;  // By the library's keys: the low 32 bits of numbers.
    std::set<int32_t> inFlight;             // The library's table, by the same.
    std::map<int32_t, NodeEnd> nodeEnds;    // Each thread's last.
    std::optional<int64_t> lastLeft;        // The number that last left stage 0.
    bool hasStages = false;                 // Some event was of a stage.
};

}  // namespace tools
