// The account as text for people.

#pragma once

#include <ostream>

#include "tools/output/naming.h"
#include "tools/sched/scheduling.h"

namespace tools {

// What was captured, the configuration, and for each scene findings, figures and frames. Whether
// the stream took it all is for the caller to check. `scheduling`: null where there is no scheduler
// trace.
void WriteText(std::ostream& out, const Account& account, const Shown& shown,
               const Scheduling* scheduling = nullptr);

// Figures of both side by side, what differs in their configurations, and the findings that came
// and went. Stages and findings are matched by their nodes.
void WriteComparison(std::ostream& out, const Account& before, const Account& after,
                     const Scheduling* schedulingBefore = nullptr,
                     const Scheduling* schedulingAfter = nullptr);

}  // namespace tools
