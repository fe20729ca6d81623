// The subcommands: what each is given on the command line, and its function, which returns an exit
// status. command/options.cpp has their options.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/account/account.h"
#include "tools/play/replay.h"

namespace tools {

struct ExplainArguments {
    std::vector<std::string> captures;
    std::string other;
    std::string trace, otherTrace;
    std::string page, tracks, csv, session, configuration;  // Files to write.
    std::string frames;                                     // To show whatever became of them.
    JudgeOptions judging;
    bool isJson = false;
    bool isFollowing = false;
    bool showsAllFrames = false;

    bool IsForDesk() const { return !session.empty() || !configuration.empty(); }
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
int RunReplay(ReplayArguments arguments);

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

// Reads the command line, of which `words` are all but the name, and runs the subcommand. Returns
// an exit status.
int RunCommand(std::vector<std::string> words);

}  // namespace tools
