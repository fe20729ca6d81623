// From a cause to what threads did: from a late frame to what it waited for.

#pragma once

#include "tools/sched/scheduling.h"

namespace tools {

// Adds to each cause about a stage that took long, or in which frames stand, what its threads did
// meanwhile: they ran, waited for a CPU that others had, or slept until a thread woke them, which
// is looked at in turn. Frames that no cause explains are explained by that where it can be.
void AddScheduling(JudgedScene& judged, const SceneScheduling& uses, const Scheduling& all);

}  // namespace tools
