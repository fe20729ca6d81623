// Facts: what the lines of a log say of scenes and frames, without any opinion.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "tools/account/account.h"
#include "tools/log/capture.h"

namespace tools {

// Fills the facts of an account from messages, in the order of the log.
//
// A scene that was described or started but refused is one too: it has a finding that says why, as
// that is all there is to say of it.
class FactsMaker : public MessageSink {
  public:
    FactsMaker();
    ~FactsMaker() override;

    void OnMessage(const Message& message, const Moment& moment) override;
    void OnLinesLeftOut(int64_t lines, const Moment& moment, const Place& place) override;
    void OnClockSet(Micros step, const Moment& moment, const Place& place) override;

    // The facts so far, with what still goes on as it stands. `last`: the time of the last line of
    // any tag, NO_TIME where not known. Of the summary of the capture nothing is filled in.
    Account Look(Micros last) const;
    // The same when nothing more comes, given away. To be called once, last.
    Account Finish(Micros last);
    // Forgets the frames that were last told of before that time, and scenes that ended before it.
    void Forget(Micros before);

  private:
    struct Process;
    struct Running;

    Process& ProcessOf(int32_t number);
    void Load(Process& process, Micros time);
    void Describe(Process& process, const Message& message, Micros time);
    void RefusePending(Process& process);
    void Refuse(Process& process, Check check, const Place& place, Micros time, std::string message,
                Severity severity);
    Scene Begin(const Process& process, const Place& place, Micros time) const;
    void Start(Process& process, const Place& place, Micros time);
    // The scene is over: by its end, or as its process or the capture has ended.
    void EndScene(Process& process, bool hasEnd, const Place& place, Micros time);
    static bool IsStraggling(const Process& process);
    void OnEvent(Process& process, const Message& message, const Moment& moment, Micros time);
    Scene Closed(const Process& process, Scene scene, Micros stop) const;
    Account AccountOf(std::vector<Scene> scenes) const;

    std::map<int32_t, Process> processes;
    std::vector<Scene> ended;
    std::vector<LoadedConfiguration> configurations;
    std::vector<SceneFinding> outside;  // Of no scene.
    bool hasThreads = false;
    Micros latest = 0;
};

}  // namespace tools
