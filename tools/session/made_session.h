// Steps as a session: what happened on a device, to be played on a desk.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/account/step.h"

namespace tools {

// The calls of one run of the library, from its loading on.
struct MadeSession {
    std::string text;
    std::vector<int32_t> threads;  // For each line of the text: the thread of its call.
    int32_t process = -1;
    int32_t run = 0;  // Of the process: how often it had loaded the library.
    int64_t calls = 0;
    int64_t leftOut = 0;  // Calls of other processes and runs, which the session lacks.
    std::optional<Configuration> configuration;  // As loaded; nothing where that is not known.
};

// Makes a session for each process and each loading of the library. Calls stand in the order of
// their places, with waits where the times are known. What was guessed and what is missing is
// marked in comments; nothing is made up to fill a gap.
class SessionMaker : public StepSink {
  public:
    void OnStep(const Step& step) override;
    void OnDisturbance(const Disturbance& disturbance) override;

    // The session with the most calls: a session plays one run. To be called once, last; empty
    // when there were no calls at all.
    std::optional<MadeSession> Finish();

  private:
    struct Entry {
        Micros time;
        int32_t thread;
        bool isCall;
        std::string lines;
    };
    struct Making {
        MadeSession session;
        // What may have to go behind something that is told later.
        std::multimap<std::pair<uint32_t, uint32_t>, Entry> waiting;
        Micros time = NO_TIME;  // Of the last line.
        bool hasScene = false;
        bool isServiceRefusing = false;
    };

    Making& MakingOf(int32_t process);
    static void Put(Making& making, const Place& place, Entry entry);
    static void Write(Making& making, const Entry& entry);

    std::map<int32_t, Making> makings;  // By process: of the run that goes on.
    std::optional<MadeSession> best;    // Of those that are over.
    int64_t otherCalls = 0;
    int32_t lastProcess = -1;
    void Close(Making& making);
};

}  // namespace tools
