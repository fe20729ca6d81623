// The device's log read back: the library's messages, what they tell of each call, and captures in
// every form.

#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "tests/support/library_test.h"
#include "tools/capture/events.h"
#include "tools/capture/message.h"
#include "tools/session/session.h"

namespace {

using tools::EventKind;
using tools::Message;
using tools::MessageKind;
using tools::Outcome;

// A message in words again, by the table's own forms.
std::set<std::string> TextsOf(const Message& message) {
    const auto number = [](auto value) { return std::to_string(value); };
    const std::map<std::string, std::string> values = {
        {"flag", message.flag ? "1" : "0"},
        {"truth", message.flag ? "true" : "false"},
        {"stage", number(message.stage)},
        {"otherStage", number(message.otherStage)},
        {"count", number(message.count)},
        {"limit", number(message.limit)},
        {"port", number(message.port)},
        {"camera", number(message.camera)},
        {"width", number(message.width)},
        {"fps", number(message.fps)},
        {"acceptedFps", number(message.acceptedFps)},
        {"scene", number(message.scene)},
        {"tid", number(message.tid)},
        {"frame", number(message.frame)},
        {"lastFrame", number(message.lastFrame)},
        {"name", std::string(message.name)},
        {"list", std::string(message.list)},
    };
    std::set<std::string> texts;
    for (const tools::MessageForm& form : tools::MessageForms()) {
        std::string text(form.text);
        for (size_t open = 0; (open = text.find('{', open)) != std::string::npos;) {
            const size_t close = text.find('}', open);
            const std::string& value = values.at(text.substr(open + 1, close - open - 1));
            text.replace(open, close - open + 1, value);
            open += value.size();
        }
        if (form.kind == message.kind) {
            texts.insert(std::string(form.function) + "() " + text);
        }
    }
    return texts;
}

class CaptureTest : public LibraryTest {
  protected:
    // Reads back what the library has logged since the last time. The messages point into
    // `effects`.
    void ReadMessages() {
        effects = recorder.Take();
        messages.clear();
        for (const desktop::Effect& effect : effects) {
            const auto* line = std::get_if<desktop::LogLine>(&effect.event);
            if (line == nullptr) {
                continue;
            }
            const auto message = tools::ParseMessage(line->tag, line->text);
            ASSERT_TRUE(message) << line->text;
            if (++kinds[message->kind] < 100) {
                EXPECT_EQ(TextsOf(*message).count(line->text.substr(line->text.find(':') + 1)), 1U)
                    << line->text;
            }
            messages.push_back(*message);
        }
    }

    // What the events say that the service was told, in short.
    static std::string Told(const std::vector<tools::Event>& events) {
        std::string told;
        for (const tools::Event& event : events) {
            if (event.outcome == Outcome::Reported) {
                told += Words("error", event.frame, event.stage);
            } else if (event.outcome == Outcome::Forwarded && event.kind < EventKind::NodeEnd) {
                told += Words(NAMES[size_t(event.kind)], event.frame, event.stage);
            }
        }
        return told;
    }

    // What it was told.
    std::string Called() const {
        std::string called;
        bool isWholeFrame = false;
        for (const desktop::Effect& effect : effects) {
            const auto* call = std::get_if<desktop::ServiceCall>(&effect.event);
            if (call == nullptr || call->function == desktop::ServiceFunction::AddTids ||
                call->function == desktop::ServiceFunction::RemoveTids || call->status != 0) {
                continue;
            }
            const bool isError = call->function == desktop::ServiceFunction::NotifyErrOfUser;
            isWholeFrame |= isError && call->Argument("stage") == -1;
            const bool hasFrame = call->function > desktop::ServiceFunction::SceneEnd;
            called += Words(isError ? "error" : NAMES[size_t(call->function)],
                            hasFrame ? call->Argument("frame") : 0, call->Argument("stage"));
        }
        // That a frame numbered -1 was pushed out is the one thing that the service is not told.
        const bool isEviction = std::any_of(
            messages.begin(), messages.end(),
            [](const Message& message) { return message.kind == MessageKind::TableFull; });
        return called + (isEviction && !isWholeFrame ? " error/?" : "");
    }

    void Play(const tools::Call& call) {
        tools::Step step;
        step.call = call;
        step.result = call.operation->call(boost, call.arguments);
        ReadMessages();
        const tools::Told told = tools::TellEvents(step, messages, configuration);
        EXPECT_EQ(told.read, messages.size());
        EXPECT_EQ(told.missing, 0U);
        EXPECT_EQ(Told(step.events), Called()) << call.operation->name;
        for (const tools::Event& event : step.events) {
            EXPECT_NE(event.outcome, Outcome::Unknown) << call.operation->name;
            outcomes.insert(event.outcome);
        }
    }

    // Loads the library with the debug switch on, and its configuration from its dump.
    void Load() {
        desktop::SetProperty("vendor.tarvo.camera.frameboost.debug.enable", "true");
        TarvoCameraFrameBoost::localConfig = LocalConfig();
        ReadMessages();
        for (const Message& message : messages) {
            EXPECT_TRUE(tools::AddDumped(message, configuration));
        }
    }

    static constexpr const char* NAMES[] = {"scene start", "scene end",   "frame start",
                                            "frame end",   "stage start", "stage end"};
    static std::string Words(const std::string& what, int64_t frame, int32_t stage) {
        // Of a frame that was pushed out nothing says which one it was.
        const bool isKnown = what != "error" || stage >= 0;
        return " " + what + "/" + (isKnown ? std::to_string(int32_t(frame)) : "?") +
               (stage < 0 ? "" : "/" + std::to_string(stage));
    }

    TarvoCameraFrameBoost boost;
    std::vector<desktop::Effect> effects;
    std::vector<Message> messages;
    std::map<MessageKind, int> kinds;  // How many there were.
    std::set<Outcome> outcomes;
    tools::Configuration configuration;
};

// Two bundled sessions show all that there is to the library.
TEST_F(CaptureTest, KnowsEveryMessageAndWhatItTells) {
    desktop::Reset();
    desktop::SetLogToStderr(false);
    Load();
    EXPECT_EQ(configuration.modes, (std::vector<int32_t>{0x8001, 0x8005}));
    ASSERT_EQ(configuration.stages.size(), 5U);
    EXPECT_EQ(configuration.stages[4].node, "EncoderFeed");
    EXPECT_EQ(configuration.stages[4].ports, (std::vector<int32_t>{10, 11, 12}));
    for (const char* name : {"frames-and-stages", "scenes-and-threads"}) {
        std::ifstream file(std::string(SESSIONS_DIRECTORY) + "/" + name + ".session");
        for (std::string line; std::getline(file, line);) {
            const tools::Line parsed = tools::ParseLine(line);
            if (const auto* call = std::get_if<tools::Call>(&parsed)) {
                Play(*call);
            }
        }
    }
    // The operations that the facade does not use, or not so.
    bool isError = false;
    FrameTracker(1).CheckStagesStatus(0, 0, false, isError);
    ReadMessages();
    for (const tools::MessageForm& form : tools::MessageForms()) {
        // These two are for states that no call can bring about.
        if (form.kind != MessageKind::FrameRemoved && form.kind != MessageKind::FrameInError) {
            EXPECT_EQ(kinds.count(form.kind), 1U) << form.text;
        }
    }
    for (const char* text :
         {"", "x", "cameraframeboost", "tarvocameraframeboost.cpp", "a 1:DumpInfo() ",
          "tarvocameraframeboost.cpp 1:DumpInfo() DumpInfo PersistTids size = x",
          "tarvocameraframeboost.cpp 1:DumpInfo() DumpInfo PersistTids size = 1 "
          "and more"}) {
        EXPECT_FALSE(tools::ParseMessage("", text)) << text;
    }
}

// Whatever is called, in whatever order.
TEST_F(CaptureTest, TellsWhatTheServiceWasTold) {
    Load();
    std::minstd_rand random(1);
    const auto below = [&random](int32_t limit) { return int32_t(random() % uint32_t(limit)); };
    const char* const nodes[] = {"Sensor", "Filter0", "Encoder"};
    const tools::Value none = std::string("n");
    for (int i = 0; i < 20'000; ++i) {
        if (i % 1000 == 0) {
            Play({tools::FindOperation("TcfbtNotifySceneEnd"), {}});
            Play({tools::FindOperation("TcfbtSetSceneInfo"), {true, 4096, 60}});
            Play({tools::FindOperation("TcfbtNotifySceneStart"), {5}});
        }
        // Mostly as a pipeline does it, a bit later each time.
        const int64_t frame = i % 1000 / 10 + below(4);
        const int32_t stage = below(40) == 0 ? below(9) - 2 : below(3);
        const int32_t what = below(100);
        if (what < 80) {
            const int32_t node = below(3);
            Play(
                {tools::FindOperation("TcfbtNotifyNodeEnd"),
                 {frame, std::string(nodes[node]), below(20) == 0 ? below(9) : node + 2, 0, true}});
        } else if (what < 90) {
            const bool isStart = below(2) == 0;
            Play({tools::FindOperation(isStart ? "TcfbtNotifyStageStart" : "TcfbtNotifyStageEnd"),
                  isStart ? std::vector<tools::Value>{stage, frame, 0, 20, none}
                          : std::vector<tools::Value>{stage, frame, none}});
        } else {
            const bool isStart = below(2) == 0;
            Play({tools::FindOperation(isStart ? "TcfbtNotifyFrameStart" : "TcfbtNotifyFrameEnd"),
                  {frame}});
        }
    }
    for (const Outcome outcome :
         {Outcome::Forwarded, Outcome::Reported, Outcome::Evicted, Outcome::Ignored,
          Outcome::AlreadyInFlight, Outcome::Gap, Outcome::NotInFlight, Outcome::FrameInError,
          Outcome::NoSuchStage, Outcome::OutOfOrder, Outcome::StageOutOfTurn}) {
        EXPECT_EQ(outcomes.count(outcome), 1U) << int(outcome);
    }
}

}  // namespace
