// The kinds of findings, and the sentences that say them: kinds.def as enumerations and tables.

#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/base/finding.h"

namespace tools {

// A kind of finding.
enum class Kind : uint8_t {
#define KIND(kind, name, what, remedy) kind,
#include "tools/account/kinds.def"
};

// A sentence. Each is of one kind, and of the severity that it has unless what came of it is worse.
enum class Case : uint8_t {
#define CASE(enumerator, kind, severity, sentence) enumerator,
#include "tools/account/kinds.def"
};

struct KindRow {
    const char* name;           // "frame-lost" and so on.
    const char *what, *remedy;  // What happened and what to do, in Markdown.
};
inline constexpr KindRow KINDS[] = {
#define KIND(kind, name, what, remedy) {name, what, remedy},
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
inline const char* NameOf(Kind kind) {
    return RowOf(kind).name;
}
inline Kind KindOf(Case what) {
    return RowOf(what).kind;
}

}  // namespace tools
