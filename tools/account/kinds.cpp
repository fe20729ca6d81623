#include "tools/account/kinds.h"

namespace tools {
namespace {

struct KindRow {
    const char *name, *what, *remedy;
};
constexpr KindRow KIND_ROWS[] = {
#define KIND(kind, name, what, remedy) {name, what, remedy},
#include "tools/account/kinds.def"
};

struct CaseRow {
    Kind kind;
    Severity severity;
    const char* sentence;
};
constexpr CaseRow CASE_ROWS[] = {
#define CASE(enumerator, kind, severity, sentence) {Kind::kind, Severity::severity, sentence},
#include "tools/account/kinds.def"
};

const KindRow& RowOf(Kind kind) {
    return KIND_ROWS[static_cast<size_t>(kind)];
}

const CaseRow& RowOf(Case what) {
    return CASE_ROWS[static_cast<size_t>(what)];
}

}  // namespace

const char* NameOf(Kind kind) {
    return RowOf(kind).name;
}

const char* WhatHappened(Kind kind) {
    return RowOf(kind).what;
}

const char* WhatToDo(Kind kind) {
    return RowOf(kind).remedy;
}

Kind KindOf(Case what) {
    return RowOf(what).kind;
}

Severity SeverityOf(Case what) {
    return RowOf(what).severity;
}

const char* SentenceOf(Case what) {
    return RowOf(what).sentence;
}

}  // namespace tools
