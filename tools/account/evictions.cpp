// Frames that were pushed out of the library's table.

#include <algorithm>

#include "tools/account/cause.h"
#include "tools/account/limits.h"
#include "tools/account/steps.h"

namespace tools {
namespace {

// The stage with the most frames beyond those it usually has, of the frames in flight then; nothing
// where none has many more.
std::optional<int32_t> HolderOf(const Scene& scene, const Columns& columns, Micros time) {
    constexpr std::ptrdiff_t reach = 200;  // Many times the table's frames.
    if (scene.isAlone && columns.outputs.empty()) {
        return {};  // Nothing shows what is usual.
    }
    PerStage<int64_t> surplus;
    for (const uint32_t kept : columns.kept) {
        surplus.push_back(-1 - int64_t{kept});
    }
    // The rows that had been started by then, from the newest down.
    const auto begin = scene.frames.begin();
    const auto end = std::partition_point(
        begin, scene.frames.end(), [time](const Frame& frame) { return frame.seen <= time; });
    for (auto frame = end - std::min(end - begin, reach); frame != end; ++frame) {
        const auto row = static_cast<uint32_t>(frame - begin);
        const auto isBy = [time](Micros moment) { return moment != NO_TIME && moment <= time; };
        // A frame that was lost is in no queue.
        const auto lost = columns.lost.find(frame->number);
        if (!frame->isStarted || frame->start > time ||
            isBy(frame->isEnded ? frame->end : columns.fates[row].output) ||
            (lost != columns.lost.end() && lost->second.how != Lost::How::Stands)) {
            continue;
        }
        int32_t stage = 0;
        for (int32_t left = 0; left < columns.stages; ++left) {
            stage += isBy(scene.LeftOf(row, left)) ? 1 : 0;
        }
        if (stage < columns.stages) {
            ++surplus[stage];
        }
    }
    const auto most = std::max_element(surplus.begin(), surplus.end());
    if (most == surplus.end() || *most < limits::SURPLUS) {
        return {};
    }
    return static_cast<int32_t>(most - surplus.begin());
}

}  // namespace

void FindEvictions(const Scene& scene, Columns& columns) {
    // Lost frames only keep their places: they suffer nothing when they leave these.
    const auto timeOf = [&](uint32_t row) {
        return columns.fates[row].isNeverOut ? NO_TIME : scene.frames[row].evicted;
    };
    const std::vector<uint32_t> evicted =
        Step{scene, columns}.RowsBy(timeOf, [&](uint32_t row) { return scene.frames[row].number; });
    Micros last = NO_TIME;
    for (const uint32_t row : evicted) {
        const Micros time = scene.frames[row].evicted;
        if (last == NO_TIME || time - last > limits::EVICTIONS_APART) {
            columns.evictions.emplace_back();
        }
        columns.evictions.back().rows.push_back(row);
        columns.evictions.back().holders.push_back(HolderOf(scene, columns, time));
        last = time;
    }
}

// Frames are pushed out although no stage holds more than usual: the pipeline is deeper than the
// table.
void FindDepth(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    for (const auto& [rows, holders] : columns.evictions) {
        const Frame& first = scene.frames[rows.front()];
        const int32_t stage = scene.NextStage(rows.front());
        Cause cause{.what = Case::PushedOut,
                    .span = {first.evicted, scene.frames[rows.back()].evicted},
                    .stage = stage < scene.stageCount ? stage : -1,
                    .place = first.trouble,
                    .time = first.troubleTime};
        for (const uint32_t row : rows) {
            const Fate& fate = columns.fates[row];
            if (fate.status == FrameStatus::Evicted && IsNotBoosted(fate)) {
                cause.own.push_back(scene.frames[row].number);
            }
        }
        std::sort(cause.own.begin(), cause.own.end());
        if (!holders.front() && !cause.own.empty() && !columns.neverHit) {
            causes.push_back(std::move(cause));
        }
    }
}

}  // namespace tools
