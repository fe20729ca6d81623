#include "tools/account/scene.h"

namespace tools {

Micros Scene::ArrivalOf(size_t frame, int32_t stage) const {
    const int32_t before = StageBefore(frame, stage);
    if (before < 0) {
        return stage == 0 ? frames[frame].start : NO_TIME;
    }
    return PassOf(frame, before).left;
}

int32_t Scene::Unreported(size_t frame) const {
    const int32_t next = NextStage(frame);
    for (int32_t stage = 0; stage < next; ++stage) {
        if (!PassOf(frame, stage).HasLeft()) {
            return stage;
        }
    }
    return -1;
}

std::pair<Place, Micros> Scene::LastOf(size_t frame) const {
    const Frame& row = frames[frame];
    std::pair<Place, Micros> last(row.place, std::max(row.seen, row.start));
    for (int32_t stage = 0; stage < stageCount; ++stage) {
        const Pass& pass = PassOf(frame, stage);
        if (pass.HasLeft() && pass.left >= last.second) {
            last = {pass.place, pass.left};
        }
    }
    return last;
}

std::pair<Place, Micros> Scene::TroubleOf(size_t frame) const {
    const Frame& row = frames[frame];
    return row.trouble.line != 0 ? std::pair(row.trouble, row.troubleTime) : LastOf(frame);
}

uint32_t Scene::RowOf(int64_t number) const {
    const auto found = std::partition_point(
        frames.begin(), frames.end(), [number](const Frame& row) { return row.number < number; });
    return found != frames.end() && found->number == number
               ? static_cast<uint32_t>(found - frames.begin())
               : NO_INDEX;
}

std::set<int32_t> CamerasOf(const Scene& scene) {
    std::set<int32_t> cameras;
    for (const Reporter& reporter : scene.reporters) {
        cameras.insert(reporter.camera);
    }
    return cameras;
}

}  // namespace tools
