// Frames that were pushed out of the library's table.

#include <algorithm>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {
namespace {

// The stage with the most frames beyond those it usually has, of the frames in flight then; nothing
// where none has many more.
std::optional<int32_t> HolderOf(const Scene& scene, const Columns& columns, Micros time) {
    constexpr uint32_t reach = 200;  // Many times the table's frames.
    if (scene.isAlone && columns.outputs.empty()) {
        return {};  // Nothing shows what is usual.
    }
    PerStage<int64_t> surplus;
    for (const uint32_t kept : columns.kept) {
        surplus.push_back(-1 - int64_t{kept});
    }
    // The rows that had been started by then, from the newest down.
    const auto next =
        std::partition_point(scene.frames.begin(), scene.frames.end(),
                             [time](const Frame& frame) { return frame.seen <= time; });
    const auto end = static_cast<uint32_t>(next - scene.frames.begin());
    for (uint32_t one = end - std::min(end, reach); one < end; ++one) {
        const Frame& frame = scene.frames[one];
        const Micros output = columns.fates[one].output;
        const bool isGone = frame.isEnded ? frame.end <= time : output != NO_TIME && output <= time;
        // A frame that was lost is in no queue.
        const Lost* const lost = columns.LostOf(frame.number);
        const bool isLost = lost != nullptr && lost->how != Lost::How::Stands;
        if (!frame.isStarted || frame.start > time || isGone || isLost) {
            continue;
        }
        int32_t stage = 0;
        for (int32_t left = 0; left < columns.stages; ++left) {
            const Micros at = scene.LeftOf(one, left);
            stage += at != NO_TIME && at <= time ? 1 : 0;
        }
        if (stage < columns.stages) {
            ++surplus[stage];
        }
    }
    const auto most = std::max_element(surplus.begin(), surplus.end());
    return most != surplus.end() && *most >= limits::SURPLUS
               ? std::optional(static_cast<int32_t>(most - surplus.begin()))
               : std::nullopt;
}

}  // namespace

std::vector<Evictions> EvictionsOf(const Scene& scene, const Columns& columns) {
    std::vector<std::pair<Micros, uint32_t>> evicted;
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        // Lost frames only keep their places: they suffer nothing when they leave these.
        if (scene.frames[row].evicted != NO_TIME && !columns.fates[row].isNeverOut) {
            evicted.emplace_back(scene.frames[row].evicted, row);
        }
    }
    std::sort(evicted.begin(), evicted.end());
    std::vector<Evictions> all;
    Micros last = NO_TIME;
    for (const auto& [time, row] : evicted) {
        if (all.empty() || time - last > limits::EVICTIONS_APART) {
            all.push_back({time, {}, {}});
        }
        all.back().rows.push_back(row);
        all.back().holders.push_back(HolderOf(scene, columns, time));
        last = time;
    }
    return all;
}

// Frames are pushed out although no stage holds more than usual: the pipeline is deeper than the
// table.
void FindDepth(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    for (const Evictions& evictions : EvictionsOf(scene, columns)) {
        if (evictions.holders.front()) {
            continue;
        }
        const uint32_t first = evictions.rows.front();
        const int32_t stage = scene.NextStage(first);
        Cause cause{.what = Case::PushedOut,
                    .span = {evictions.begin, scene.frames[evictions.rows.back()].evicted},
                    .stage = stage < scene.stageCount ? stage : -1,
                    .place = scene.frames[first].trouble,
                    .time = scene.frames[first].troubleTime};
        for (const uint32_t row : evictions.rows) {
            const Fate& fate = columns.fates[row];
            if (fate.status == FrameStatus::Evicted && IsNotBoosted(fate)) {
                cause.own.push_back(scene.frames[row].number);
            }
        }
        std::sort(cause.own.begin(), cause.own.end());
        if (!cause.own.empty() && !columns.neverHit) {
            causes.push_back(std::move(cause));
        }
    }
}

}  // namespace tools
