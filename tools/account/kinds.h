// The kinds of findings, and the sentences that say them. kinds.def is their table.

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

inline constexpr size_t KINDS = static_cast<size_t>(Kind::Unexplained) + 1;

const char* NameOf(Kind kind);  // "frame-lost" and so on.
// Of a finding of the kind, in Markdown.
const char* WhatHappened(Kind kind);
const char* WhatToDo(Kind kind);

Kind KindOf(Case what);
Severity SeverityOf(Case what);
const char* SentenceOf(Case what);  // With values in braces, for fmt.

}  // namespace tools
