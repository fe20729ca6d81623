// From a late frame to what it waited for.

#pragma once

#include "tools/sched/scheduling.h"

namespace tools {

// Adds to each finding about a stage that took long, or stands, what its thread did meanwhile: it
// ran, waited for a CPU that others had, or slept until somebody woke it, who is looked at in turn.
void TellCauses(Scene& scene, const SceneScheduling& scheduling, States& states, const Tie& tie);

}  // namespace tools
