// What users of the boost service see, beside its functions in platform/boost_service.h.

#pragma once

namespace cfbt {

constexpr char LOG_TAG[] = "tarvo_cfbt";

// Properties, read at each start of a scene: the priority of SCHED_FIFO that threads get, and the
// percentage of a CPU's time above which the watchdog puts back a thread that ends no stage, 100
// for never.
constexpr char PRIORITY_PROPERTY[] = "vendor.tarvo.camera.frameboost.service.priority";
constexpr char SHARE_PROPERTY[] = "vendor.tarvo.camera.frameboost.service.share";

}  // namespace cfbt
