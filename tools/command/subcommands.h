// The subcommands: what each is given on the command line, and its function, which returns an exit
// status.

#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "tools/account/account.h"
#include "tools/output/outputs.h"
#include "tools/play/replay.h"

namespace tools {

struct ExplainArguments {
    std::vector<std::string> captures;
    std::string other;
    std::string trace, otherTrace;
    std::array<std::string, std::size(FILE_FORMS)> files;  // To write, each by its form.
    std::string session, configuration;                    // To write as well.
    std::string frames;                                    // To show whatever became of them.
    JudgeOptions judging;
    bool isJson = false;
    bool isFollowing = false;
    bool showsAllFrames = false;
};
int RunExplain(const ExplainArguments& arguments);

struct CheckArguments {
    std::vector<std::string> configurations;
    std::string nodes;
    bool isJson = false;
};
int RunCheck(const CheckArguments& arguments);

struct ReplayArguments {
    ReplayOptions options;
    std::string session;
    std::string configuration;
    std::string log;
};
int RunReplay(ReplayArguments& arguments);

struct SimulateArguments {
    std::string camera;
    std::string output = "-";
    std::string session;
    std::string truth;
    std::string configuration;
    std::string form = "threadtime";
    std::optional<int64_t> frames;
    std::optional<int32_t> fps;
    std::optional<uint64_t> seed;
    std::vector<std::string> faults;
};
int RunSimulate(const SimulateArguments& arguments);

// What explain does with --follow: explains standard input as it comes.
int Follow(const JudgeOptions& options);
// The exit status for what was found: the worst of it, and what the checker says of configurations.
int StatusOf(Severity worst, const std::vector<LoadedConfiguration>& configurations);
// Fails, with what may be the reason, where a capture has none of the library's lines. `names`:
// what messages call its inputs.
void RequireLibraryLines(const CaptureSummary& summary, const std::vector<std::string>& names);

}  // namespace tools
