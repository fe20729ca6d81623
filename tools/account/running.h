// A scene that goes on, with what it takes to read its lines.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "tools/account/scene.h"
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
    // `loaded`: the configuration of its process; null where it is not known.
    RunningScene(Scene begun, std::shared_ptr<LoadedConfiguration> loaded);

    Scene scene;  // Without rows and what follows from them, which Closed adds. Where numbers
                  // started again, or somebody ends it, with `stopped` and `stop`.
    Micros last;  // The time of the last line.
    std::optional<int64_t> lastOpened;  // As Event::opened.
    int32_t stagesLeft = 0;             // How many stages some frame has left.

    std::optional<int64_t> Opened(const Message& message) const;
    bool Has(int64_t number) const { return rows.contains(static_cast<int32_t>(number)); }
    // Whether the number is lower than that of the last frame by more than a table's frames.
    bool IsFarBelow(int64_t number) const;
    // Whether numbers fell to this one: that far, or to a frame that is through.
    bool IsAgain(int64_t number) const;
    // Whether nothing came for long before that time, or the clock was set: what follows may be
    // another capture.
    bool IsBehindGap(Micros time) const;

    // The key of the frame that leaves when the library makes room.
    std::optional<int32_t> Oldest() const;

    void Take(const Event& event);
    // Drops frames whose last line is before that time.
    void Forget(Micros before);
    // The whole scene. To be called once, last.
    Scene Closed();

  private:
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

    bool IsBehindStep() const;
    void GrowStages(int64_t count);
    Row& FindOrOpen(int64_t number, const Place& place, Micros time);
    bool IsThrough(const Row& row) const;
    uint16_t ReporterOf(const Message& message);
    void Leave(Row& row, int32_t stage, const Pass& by);
    void OnNodeEnd(const Message& message, Pass by, NodeEnd& end);
    void TakeEnd(NodeEnd& end);
    void OnEvent(const Message& message, Pass by);
    void OnStart(Row& row, const Message& message, Micros time);
    void OnNotInFlight(const Message& message, const Pass& by, const NodeEnd& before);
    void OnEviction(const Place& place, Micros time);
    void PlaceNameless(Row& row);

    std::shared_ptr<LoadedConfiguration> known;
    std::unordered_map<int32_t, Row> rows;  // By the library's keys: the low 32 bits of numbers.
    std::set<int32_t> inFlight;             // The library's table, by the same.
    std::map<int32_t, NodeEnd> nodeEnds;    // Each thread's last.
    std::optional<int64_t> lastLeft;        // The number that last left stage 0.
    bool hasStages = false;                 // Some event was of a stage.
};

}  // namespace tools
