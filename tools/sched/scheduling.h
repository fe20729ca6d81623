// What a scheduler trace adds to an account: for each frame in a stage whether its thread ran,
// waited for a CPU or slept, who had the CPU, and whether boosting helps.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/account/account.h"
#include "tools/account/judge.h"
#include "tools/sched/states.h"
#include "tools/sched/tie.h"

namespace tools {

// A frame in a stage, from when the stage could begin with it to when it left, by the trace's
// clock.
struct StageUse {
    uint32_t thread = NO_THREAD;  // That told of its end; NO_THREAD where that is not known.
    Span span;
    Shares shares{};
};

// A thread of the pipeline, over a whole scene.
struct ThreadUse {
    uint32_t thread = NO_THREAD;
    std::vector<int32_t> stages;  // Whose ends it told of.
    bool isHanded = false;        // To the boost service.
    Shares shares{};
};

// How long threads waited for a CPU in each period of a frame, all together.
struct Waiting {
    int64_t threads = 0;
    Statistics inside;   // Of the scene,
    Statistics outside;  // and before and after all scenes.
};

struct SceneScheduling {
    std::vector<StageUse> uses;      // stageCount for each frame.
    std::vector<ThreadUse> threads;  // By id.
    Waiting handed, others;          // Those handed to the service, and those that were not.
    std::vector<std::optional<Shares>> usual;  // Of each stage; nothing where that is not known.
    bool isHandedKnown = false;                // Which threads were handed to the service.

    const StageUse& UseOf(const Scene& scene, size_t frame, int32_t stage) const {
        return uses[frame * static_cast<size_t>(scene.stageCount) + static_cast<size_t>(stage)];
    }
};

// An account's scheduling. Everything in it refers to the trace.
struct Scheduling {
    std::string name;  // Of the trace's file.
    std::unique_ptr<SchedTrace> trace;
    std::unique_ptr<Tie> tie;
    std::unique_ptr<States> states;
    std::vector<SceneScheduling> scenes;  // One for each of the account's.
};

// Works the scheduling out, adds to the account's findings what they come of, and joins them as
// `toldOneByOne` of JudgeOptions says: the account is to be judged without that. `lines`: of the
// log. Throws a TieError where the two do not belong together.
Scheduling MakeScheduling(Account& account, std::string name, SchedTrace trace,
                          const std::vector<CountedLines::Line>& lines, size_t toldOneByOne);

}  // namespace tools
