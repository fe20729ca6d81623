// Causes: what happened, as values. Finders make them of a scene and its columns alone; none reads
// what another one found, so they may be called in any order. Attribute brings them together with
// the frames that came late, never, or were not boosted.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/account/columns.h"
#include "tools/account/scene.h"
#include "tools/base/finding.h"

namespace tools {

// --- The kinds of findings, and the sentences that say them: kinds.def as enumerations and tables.

// A kind of finding.
enum class Kind : uint8_t {
#define KIND(kind, name, cost, what, remedy) kind,
#include "tools/account/kinds.def"
};

// A sentence. Each is of one kind, and of the severity that it has unless what came of it is worse.
enum class Case : uint8_t {
#define CASE(enumerator, kind, severity, sentence) enumerator,
#include "tools/account/kinds.def"
};

// What the frames that it is about may come to.
enum class Cost : uint8_t { Nothing, Time, Frames };

struct KindRow {
    const char* name;  // "frame-lost" and so on.
    Cost cost;
    const char *what, *remedy;  // What happened and what to do, in Markdown.
};
inline constexpr KindRow KINDS[] = {
#define KIND(kind, name, cost, what, remedy) {name, Cost::cost, what, remedy},
#include "tools/account/kinds.def"
};

struct CaseRow {
    Kind kind;
    Severity severity;
    const char* sentence;  // With values in braces, for fmt.
};
inline constexpr CaseRow CASES[] = {
#define CASE(enumerator, kind, severity, sentence) {Kind::kind, Severity::severity, sentence},
#include "tools/account/kinds.def"
};

inline const KindRow& RowOf(Kind kind) {
    return KINDS[static_cast<size_t>(kind)];
}
inline const CaseRow& RowOf(Case what) {
    return CASES[static_cast<size_t>(what)];
}
inline Kind KindOf(Case what) {
    return RowOf(what).kind;
}

// --- What happened.

// What a thread does.
enum class ThreadState : uint8_t {
    Running,
    Runnable,  // It waits for a CPU.
    Sleeping,
    Blocked,  // It sleeps and cannot be interrupted: it waits for a device or for a lock.
    Stopped,  // By a signal, or by a debugger.
    Gone,     // It has ended.
    Unknown,
};
inline constexpr size_t THREAD_STATES = static_cast<size_t>(ThreadState::Unknown) + 1;
const char* NameOf(ThreadState state);  // "running" and so on.

// How long each state took.
struct Shares : std::array<Micros, THREAD_STATES> {
    using array::operator[];
    Micros& operator[](ThreadState state) { return array::operator[](static_cast<size_t>(state)); }
    Micros operator[](ThreadState state) const {
        return array::operator[](static_cast<size_t>(state));
    }
    Shares& operator+=(const Shares& more) {
        std::transform(begin(), end(), more.begin(), begin(), std::plus());
        return *this;
    }
};

// What a thread did meanwhile, by a scheduler trace.
struct CauseLink {
    int32_t thread = 0;  // Its id in the trace.
    std::string name;
    ThreadState state = ThreadState::Unknown;
    Micros length = 0;                  // In that state, all in all,
    int32_t pieces = 0;                 // in so many pieces,
    Micros begin = NO_TIME, piece = 0;  // and the longest of them.
    int32_t cpu = -1;                   // That it ran on, or waited for.
    int32_t priority =
        120;  // As the kernel counts: below 100 of real time, from there nice values.
    bool isByInterrupt = false;  // An interrupt woke it.
    bool isMostly = false;       // Not all of its sleeps ended so.
    std::string waker;  // "18890 (sensor)": the thread that woke it, which the next link is about.
    struct Ran {
        int32_t thread = 0;
        std::string name;
        Micros length = 0;
        int32_t priority = 0;
    };
    // Threads that had that CPU while it waited, those of one name as one; longest first.
    std::vector<Ran> ran;
};

struct Cause {
    Case what;
    Span span{};  // From when to when it had effects.
    int32_t stage = -1;
    std::vector<int64_t> own{};      // The frames that it is about, ascending.
    std::optional<int64_t> frame{};  // The frame to look at, where that is not the first of them.
    Mark at{};                       // The line to look at; NO_TIME where it is about no moment.
    std::vector<Micros> took{};      // Of each own frame, or of all in one.
    Micros usual = 0;
    int64_t other = 0;  // Another frame, port, stage or process that the sentence names.
    int64_t count = 0;  // What it counts, where that is not frames; lines.
    int64_t times = 1;  // How often that happened.
    std::vector<int64_t> beside{};      // Frames beside its own, as the sentence says.
    std::string why{};                  // Names and numbers that only the sentence needs.
    Severity atLeast = Severity::Note;  // Where what came of it is worse than its case.
    // Written by Attribute alone: bad frames that are counted to it. None is in two causes.
    std::vector<int64_t> harmed{};
    // Written by a scheduler trace alone: how long the stage's threads were in each state while
    // they were at the frames concerned, and the way back from there to what kept them.
    std::optional<Shares> states{};
    std::vector<CauseLink> chain{};
    std::string scheduling{};  // What the sentence says of that.
};

inline Severity SeverityOf(const Cause& cause) {
    return std::max(RowOf(cause.what).severity, cause.atLeast);
}

using Finder = void(const Scene& scene, const Columns& columns, std::vector<Cause>& causes);
Finder FindMissingLines, FindRestart, FindMisreports, FindLosses, FindDepth, FindSlow, FindPauses,
    FindStoppedSensor, FindOtherRates, FindStageNeverHit, FindThreadsNotSet, FindIgnoredNodes;
inline constexpr Finder* FINDERS[] = {FindMissingLines,  FindRestart,       FindMisreports,
                                      FindLosses,        FindDepth,         FindSlow,
                                      FindPauses,        FindStoppedSensor, FindOtherRates,
                                      FindStageNeverHit, FindThreadsNotSet, FindIgnoredNodes};
// Why a scene was refused. `configuration`: null where it is not known.
Cause RefusalOf(const Scene& scene, const Configuration* configuration);

// Whether the service should have been told of the frame from start to end, and was not.
bool IsNotBoosted(const Fate& fate);
// Whether it was not, or the frame never came out. Other frames may be late. Of frames near missing
// lines nothing is said but that they never came out.
bool IsBad(const Fate& fate);

// Counts each bad frame to one cause: by mechanism first, by the precedence of kinds second. What
// no cause explains becomes a cause of its own. The result does not depend on the causes' order.
void Attribute(const Scene& scene, const Columns& columns, std::vector<Cause>& causes);

}  // namespace tools
