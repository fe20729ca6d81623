// What a scheduler trace adds to an account: for each frame in a stage whether its thread ran,
// waited for a CPU or slept, which threads had the CPU, and whether boosting helps.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/account/account.h"
#include "tools/sched/states.h"
#include "tools/sched/tie.h"

namespace tools {

// A frame in a stage, from when the stage began with it to when it left.
struct StageUse {
    uint32_t thread = NO_THREAD;  // The one that reported its end; NO_THREAD where not known.
    Span span;
    Shares shares{};
};

// A thread of the pipeline, over a whole scene.
struct ThreadUse {
    uint32_t thread = NO_THREAD;
    std::vector<int32_t> stages{};  // Those whose ends it reported.
    bool isHanded = false;          // To the boost service.
    Shares shares{};
};

// How long threads waited for a CPU in each period of a frame, all together.
struct Waiting {
    int64_t threads = 0;
    Statistics inside{};  // Of the scene.
};

struct SceneScheduling {
    int32_t stages = 0;              // How many; 0 where nothing is known of any.
    std::vector<StageUse> uses;      // `stages` for each row.
    std::vector<ThreadUse> threads;  // By id.
    Waiting handed, others;          // Of threads handed to the service, and of all others.
    // Of each stage the thread that has given no frame on for longest; NO_THREAD for none.
    PerStage<uint32_t> standing;
    PerStage<Shares> usual;
    bool isHandedKnown = false;  // Which threads were handed to the service.

    // Null where there is no such row, or it is not known which thread it was.
    const StageUse* UseOf(size_t row, int32_t stage) const {
        const size_t pass = row * static_cast<size_t>(stages) + static_cast<size_t>(stage);
        const bool isKnown = stage < stages && pass < uses.size() && uses[pass].thread != NO_THREAD;
        return isKnown ? &uses[pass] : nullptr;
    }
};

// An account's scheduling. Threads are positions in the trace's, and all times are the log's.
struct Scheduling {
    SchedTrace trace;  // Without its events, which are in `states`.
    Tie tie;
    States states;
    std::vector<SceneScheduling> scenes;  // One for each of the account's.
    std::vector<std::string> notes;       // What the trace does not cover.
};

// Adds to each cause about a stage that took long, or in which frames stand, what its threads did
// meanwhile: they ran, waited for a CPU that others had, or slept until a thread woke them, which
// is looked at in turn. Does the same for frames that no cause explains.
void AddScheduling(JudgedScene& judged, const SceneScheduling& uses, const Scheduling& all);

// Works the scheduling out and adds what threads did to the causes of an account that was judged,
// before findings are made of them. `clocks`: as TieClocks takes them. Throws a CommandError where
// trace and log do not belong together.
Scheduling MakeScheduling(Account& account, SchedTrace trace, const CountedLines& lines,
                          std::vector<Knot> clocks = {});

}  // namespace tools
