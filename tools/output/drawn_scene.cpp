#include "tools/output/drawn_scene.h"

#include <algorithm>
#include <cstdlib>

namespace tools {
namespace {

// Periods that are drawn around a finding.
constexpr Micros BEFORE = 10;
constexpr Micros AFTER = 30;

}  // namespace

DrawnScene::DrawnScene(const Account& account, size_t sceneIndex)
    : scene(account.scenes[sceneIndex]), index(sceneIndex), period(PeriodOf(scene)) {
    span.Include(scene.begin);
    span.Include(scene.end);
    Micros last = scene.begin == NO_TIME ? 0 : scene.begin;
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        const Span whole = SpanOf(scene, i);
        span.Include(whole.begin);
        span.Include(whole.end);
        Micros moment = scene.frames[i].output;
        if (moment == NO_TIME) {
            // Not its end: a frame is evicted long after anything was heard of it.
            moment = scene.frames[i].start;
            for (const StageTimes& times : scene.StagesOf(i)) {
                moment = std::max({moment, times.start, times.end});
            }
        }
        last = moment == NO_TIME ? last + period : moment;
        moments.push_back(last);
    }
    hasTimes = span.begin != NO_TIME && span.end > span.begin;
    span.end = hasTimes ? span.end + 1 : span.end;  // So that the last moment is within.
}

void DrawnScene::AddFrames(int64_t first, int64_t last, size_t& bars) {
    Span window;
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        if (scene.frames[i].number >= first && scene.frames[i].number <= last) {
            window.Include(moments[i]);
            window.Include(moments[i] + 1);
        }
    }
    AddWindow(window, bars);
}

bool DrawnScene::AddFinding(size_t rank, size_t& bars) {
    if (rank >= scene.findings.size()) {
        return false;
    }
    const AccountedFinding& finding = scene.findings[rank];
    const auto frame = FrameOf(finding);
    if (frame) {
        blamed.emplace(*frame, finding.stage);
    }
    const Micros moment = frame ? moments[*frame] : finding.time;
    if (moment != NO_TIME && finding.severity != Severity::Note) {
        // With the frame before, but for a pause of seconds.
        const Micros interval = frame ? std::max<Micros>(scene.frames[*frame].interval, 0) : 0;
        const Micros before = std::clamp(interval + 3 * period, BEFORE * period, 60 * period);
        AddWindow({moment - before, moment + AFTER * period}, bars);
    }
    return true;
}

void DrawnScene::AddWindow(Span window, size_t& bars) {
    if (!hasTimes || window.begin == NO_TIME) {
        return;
    }
    window = {std::max(window.begin, span.begin), std::min(window.end, span.end)};
    const size_t each = std::max<size_t>(static_cast<size_t>(scene.stageCount), 1);
    std::vector<Micros> added;  // Frames need not be in the order of time.
    for (size_t i = 0; i < moments.size(); ++i) {
        if (window.Holds(moments[i]) && !IsDrawn(i)) {
            added.push_back(moments[i]);
        }
    }
    std::sort(added.begin(), added.end());
    if (added.size() > bars / each) {
        window.end = added[bars / each];
        const auto end = std::lower_bound(added.begin(), added.end(), window.end);
        added.erase(end, added.end());
    }
    bars -= added.size() * each;
    if (window.begin >= window.end) {
        return;
    }
    std::erase_if(windows, [&window](const Span& other) {
        const bool isOne = other.begin <= window.end && window.begin <= other.end;
        if (isOne) {
            window.Include(other.begin);
            window.Include(other.end);
        }
        return isOne;
    });
    const auto isLater = [&window](const Span& other) { return other.begin > window.begin; };
    windows.insert(std::find_if(windows.begin(), windows.end(), isLater), window);
}

bool DrawnScene::HoldsMoment(Micros time) const {
    const auto holds = [time](const Span& window) { return window.Holds(time); };
    return std::any_of(windows.begin(), windows.end(), holds);
}

std::optional<size_t> DrawnScene::FrameOf(const AccountedFinding& finding) const {
    std::optional<size_t> best;
    const auto distance = [&](size_t frame) {
        return finding.time == NO_TIME ? 0 : std::abs(moments[frame] - finding.time);
    };
    for (size_t i = 0; finding.frame && i < scene.frames.size(); ++i) {
        if (scene.frames[i].number == *finding.frame && (!best || distance(i) < distance(*best))) {
            best = i;
        }
    }
    return best;
}

}  // namespace tools
