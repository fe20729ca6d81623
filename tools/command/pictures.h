// What subcommands that make an account write for people who would rather look than read.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/sched/scheduling.h"

namespace CLI {
class App;
}

namespace tools {

class Pictures {
  public:
    // Adds the options --to-html, --to-trace and --frames, which are kept here.
    void AddOptions(CLI::App& command);

    bool AreWanted() const { return !page.empty() || !trace.empty(); }
    bool IsTraceWanted() const { return !trace.empty(); }
    // What --frames asks for: the first and the last number. Throws a CommandError when it is
    // neither a frame nor a range.
    std::optional<std::pair<int64_t, int64_t>> Frames() const;
    // The files; empty where one was not asked for.
    std::vector<std::string> Paths() const { return {page, trace}; }
    // Writes those that were asked for. `title`: what was looked at. `scheduling`: null where there
    // is no scheduler trace.
    void Write(const Account& account, const std::string& title,
               const Scheduling* scheduling = nullptr) const;

  private:
    std::string page;
    std::string trace;
    std::string frames;
};

}  // namespace tools
