#include "tools/capture/verify.h"

#include <algorithm>
#include <sstream>
#include <variant>

#include "tools/play/player.h"
#include "tools/play/replay.h"
#include "tools/session/session.h"

namespace tools {
namespace {

// What a message says, without where its statement stands in the library's source.
std::string_view Content(std::string_view text) {
    text.remove_prefix(std::min(text.find(':') + 1, text.size()));
    return text.substr(0, text.find_last_not_of(" \r\n") + 1);
}

}  // namespace

void CapturedMessages::Add(const Message& message, std::string_view text, const Moment& moment) {
    Process& process = processes[moment.process];
    const bool isDump = message.kind <= MessageKind::DumpStage;
    if (isDump && (message.kind == MessageKind::DumpSwitch || !process.isDumping)) {
        ++process.run;
    }
    process.isDumping = isDump && !(message.kind == MessageKind::DumpStage && message.stage == 0);
    Thread& thread = runs[{moment.process, process.run}][moment.thread];
    for (const char character : Content(text)) {
        thread.texts += character == '\n' ? ' ' : character;  // As a session has it.
    }
    thread.texts += '\n';
    thread.places.push_back(message.place);
}

const CapturedMessages::Threads* CapturedMessages::Of(int32_t process, int32_t run) const {
    const auto threads = runs.find({process, run});
    return threads == runs.end() ? nullptr : &threads->second;
}

namespace {

// Holds what the desk logs against what the device did.
class Comparison {
  public:
    explicit Comparison(const CapturedMessages::Threads& capturedThreads)
        : threads(capturedThreads) {}

    // The library has logged this on the desk, on behalf of that thread.
    void OnLine(std::string_view text, int32_t number, uint32_t sessionLine) {
        const auto thread = threads.find(number);
        Reading& reading = readings[number];
        if (reading.isDifferent) {
            return;
        }
        const std::string_view replayed = Content(text);
        if (thread == threads.end() || reading.count == thread->second.places.size()) {
            Note(reading, {{}, "", std::string(replayed), sessionLine});
            return;
        }
        const std::string_view captured = Next(thread->second, reading);
        if (captured != replayed) {
            Note(reading, {thread->second.places[reading.count], std::string(captured),
                           std::string(replayed), sessionLine});
            return;
        }
        reading.at += captured.size() + 1;
        ++reading.count;
        ++verification.messages;
    }

    Verification Finish() {
        for (const auto& [number, thread] : threads) {
            Reading& reading = readings[number];
            verification.differing += static_cast<int64_t>(thread.places.size() - reading.count);
            if (!reading.isDifferent && reading.count < thread.places.size()) {
                Note(reading,
                     {thread.places[reading.count], std::string(Next(thread, reading)), "", 0});
            }
        }
        std::sort(verification.first.begin(), verification.first.end(),
                  [](const Difference& one, const Difference& other) {
                      return std::pair(one.place.input, one.place.line) <
                             std::pair(other.place.input, other.place.line);
                  });
        return std::move(verification);
    }

  private:
    // How far a thread's messages have been compared.
    struct Reading {
        size_t at = 0;
        size_t count = 0;
        bool isDifferent = false;
    };

    static std::string_view Next(const CapturedMessages::Thread& thread, const Reading& reading) {
        const std::string_view rest = std::string_view(thread.texts).substr(reading.at);
        return rest.substr(0, rest.find('\n'));
    }

    void Note(Reading& reading, Difference difference) {
        reading.isDifferent = true;
        verification.differing += difference.captured.empty() ? 1 : 0;
        verification.first.push_back(std::move(difference));
    }

    const CapturedMessages::Threads& threads;
    std::map<int32_t, Reading> readings;
    Verification verification;
};

}  // namespace

Verification Verify(const MadeSession& session, const std::string& configuration,
                    const CapturedMessages& captured) {
    Verification failed;
    const CapturedMessages::Threads* const threads = captured.Of(session.process, session.run);
    if (threads == nullptr) {
        failed.obstacle = "the capture has no messages of that run";
        return failed;
    }
    const auto tell = [&failed](const Finding& finding) {
        failed.obstacle = finding.severity == Severity::Error ? finding.message : failed.obstacle;
    };
    if (!PreparePlatform(NamedText{"the capture's configuration", configuration}, tell)) {
        return failed;
    }
    Comparison comparison(*threads);
    // The loading is the first thing that a session tells of, where it was captured.
    const auto first = std::find_if(session.threads.begin(), session.threads.end(),
                                    [](int32_t thread) { return thread != -1; });
    int32_t thread = first == session.threads.end() ? -1 : *first;
    uint32_t number = 0;
    Player player(
        [&](const Step& step, std::span<const desktop::Effect> effects) {
            if (step.call.operation == nullptr && !session.configuration) {
                return;
            }
            for (const desktop::Effect& effect : effects) {
                if (const auto* line = std::get_if<desktop::LogLine>(&effect.event)) {
                    comparison.OnLine(line->text, thread, number);
                }
            }
        },
        {});
    std::istringstream text(session.text);
    for (std::string line; std::getline(text, line);) {
        thread = session.threads[number++];
        player.Play(ParseLine(line), number);
    }
    return comparison.Finish();
}

}  // namespace tools
