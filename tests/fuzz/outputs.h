// What fuzzers hold of what is shown.

#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "tests/fuzz/require.h"
#include "tools/log/capture.h"
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

inline void ReadInPieces(tools::TextSink& reader, std::string_view text, size_t piece) {
    for (size_t at = 0; at < text.size(); at += piece) {
        reader.Read(text.substr(at, piece));
    }
    reader.End();
}

// That a text is explained alike in pieces of any length. The bytes are the text, or what
// `linesOf` makes of them.
inline void RequireSameInPieces(const uint8_t* data, size_t size,
                                std::string (*linesOf)(const uint8_t*, size_t),
                                std::string (*explain)(const std::string&, size_t)) {
    if (size < 2) {
        return;
    }
    const std::string text = data[0] % 2 == 0
                                 ? std::string(reinterpret_cast<const char*>(data + 2), size - 2)
                                 : linesOf(data + 2, size - 2);
    Require(explain(text, text.size() + 1) == explain(text, size_t{data[1]} + 1), text);
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
