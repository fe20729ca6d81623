// The account of one scene: its frames with their times, and what the library must have held.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/account/accountant.h"
#include "tools/account/investigation.h"

namespace tools {

class SceneAccount {
  public:
    // `beginning`: what is known of the scene when it begins.
    SceneAccount(Scene beginning, const AccountOptions& accountOptions,
                 const std::optional<Configuration>& loaded);
    SceneAccount(const SceneAccount&) = delete;
    SceneAccount& operator=(const SceneAccount&) = delete;

    void OnStep(const Step& step);
    void OnDisturbance(const Disturbance& disturbance);
    void NoteFinding(AccountedFinding finding) { investigation.NoteFinding(std::move(finding)); }
    const Scene& Current() const { return scene; }
    // Settles what is still in flight, works out the figures and gives the scene away. `hasEnded`:
    // the camera ended it, and not just the capture.
    Scene Close(bool hasEnded);

  private:
    // What must be in the library's table of frames in flight.
    struct Held {
        int32_t key;  // The library's: the low 32 bits of the frame's number.
        size_t index;
        int64_t number;
        bool isSettled;  // The frame has been examined, and found lost.
    };

    Frame& FrameOf(const Observed& seen) { return scene.frames[seen.index - forgotten]; }
    StageTimes& TimesOf(const Observed& seen, int32_t stage) {
        return scene.stageTimes[(seen.index - forgotten) * static_cast<size_t>(scene.stageCount) +
                                static_cast<size_t>(stage)];
    }
    Observed* Find(int64_t number);
    Observed& Open(int64_t number, const Step& step, const Event& event);
    Observed& FindOrOpen(int64_t number, const Step& step, const Event& event);
    void GrowStages(int32_t count);
    void OnFrameStart(const Step& step, const Event& event);
    void OnFrameEnd(const Step& step, const Event& event);
    void OnStageStart(const Step& step, const Event& event);
    void OnStageEnd(const Step& step, const Event& event, bool isLast);
    void OnStageOutcome(Observed& seen, const Step& step, const Event& event);
    void OnEviction(const Step& step, const Event& event);
    void OnReport(const Step& step, const Event& event);
    void OnOutput(Observed& seen, Micros time);
    std::optional<Held> PushOutOldest();
    void Remove(int64_t number);
    bool Holds(int64_t number) const;

    void Settle(size_t keep);
    void Judge(size_t position);
    bool IsLineMissing(size_t position) const;
    void MakeStatistics();

    Scene scene;
    AccountOptions options;
    std::optional<Configuration> configuration;
    bool knowsStages;
    Progress progress;
    Investigation investigation;
    std::deque<Observed> window;  // Frames that have not been examined yet, as in scene.frames.
    size_t opened = 0;            // Frames there have been.
    size_t judged = 0;            // Of those, the ones that Judge has seen.
    size_t doubtfulUntil = 0;     // Frames before this one may lack lines.
    bool isCutOff = false;        // The capture ends within the scene.
    size_t forgotten = 0;         // Frames at the beginning that are not kept any more.
    std::vector<Held> table;
    std::optional<Held> lastPushedOut;  // By the last frame start.
    std::vector<Micros> lastEnds;       // When each stage's node was done with its last frame.
    Micros lastOutput = NO_TIME;
};

}  // namespace tools
