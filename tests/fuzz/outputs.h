// What fuzzers hold of what is shown.

#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <string>
#include <utility>

#include "tests/fuzz/require.h"
#include "tools/output/outputs.h"
#include "tools/sched/states.h"

// That what threads did adds up.
inline void RequireSums(const tools::SchedTrace& trace) {
    const tools::States states = StatesOf(trace);
    const tools::Span all = {trace.from, trace.to};
    for (uint32_t thread = 0; thread < trace.threads.size(); ++thread) {
        const tools::Shares shares = states.SharesOf(thread, all);
        Require(
            std::accumulate(shares.begin(), shares.end(), tools::Micros{0}) == all.end - all.begin,
            "what a thread did does not add up");
    }
    tools::Micros ran = trace.from;
    for (const tools::StateSpan& one : states.RunsOn(0, all)) {
        Require(one.begin >= ran && one.end > one.begin, "two threads ran on a CPU at once");
        ran = one.end;
    }
}

// All outputs of them, one behind the other. `scheduling`: null where there is no scheduler trace.
inline std::string OutputsOf(tools::Account account,
                             std::unique_ptr<tools::Scheduling> scheduling) {
    const tools::Explained explained{std::move(account), std::move(scheduling), {}, {true, {}}};
    std::ostringstream written, json;
    WriteText(written, explained);
    WriteComparison(written, explained, explained);
    for (const tools::FileForm& form : tools::FILE_FORMS) {
        form.write(written, explained);
    }
    WriteJson(json, explained);
    Require(nlohmann::json::accept(json.str()), json.str());
    return written.str() + json.str();
}
