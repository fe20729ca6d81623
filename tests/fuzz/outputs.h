// What fuzzers of scheduler traces hold of each.

#pragma once

#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <string>

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

// All outputs but the page.
inline std::string OutputsOf(const tools::Account& account, const tools::Scheduling* scheduling) {
    std::ostringstream written, json;
    WriteText(written, account, {true, {}}, scheduling);
    WriteCsv(written, account, scheduling);
    WriteComparison(written, account, account, scheduling, scheduling);
    WriteTrace(written, account, {}, scheduling);
    WriteJson(json, account, scheduling);
    Require(nlohmann::json::accept(json.str()), json.str());
    return written.str() + json.str();
}
