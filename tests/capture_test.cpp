// Reading the device's log: the library's messages, what they say about each call, and captures in
// every form.

#include "tools/log/capture.h"

#include <algorithm>
#include <deque>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "tests/support/library_test.h"
#include "tests/support/random_camera.h"
#include "tools/capture/events.h"
#include "tools/log/message.h"
#include "tools/log/record_reader.h"
#include "tools/capture/verify.h"
#include "tools/session/made_session.h"
#include "tools/play/replay.h"
#include "tools/session/session.h"
#include "tools/play/simulate.h"

namespace {

using tools::EventKind;
using tools::Message;
using tools::MessageKind;
using tools::Outcome;

// The texts of a message, made from the table of forms.
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
    // Reads what the library has logged since the last time. The messages point into `effects`.
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

    // What the service was told according to the events, in short.
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

    // What the service really was told.
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
        // When frame -1 is dropped, and only then, the service is not told.
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
        // The log does not say which frame was dropped.
        const bool isKnown = what != "error" || stage >= 0;
        return " " + what + "/" + (isKnown ? std::to_string(int32_t(frame)) : "?") +
               (stage < 0 ? "" : "/" + std::to_string(stage));
    }

    TarvoCameraFrameBoost boost;
    std::vector<desktop::Effect> effects;
    std::vector<Message> messages;
    std::map<MessageKind, int> kinds;  // How many of each kind.
    std::set<Outcome> outcomes;
    tools::Configuration configuration;
};

// Two bundled sessions make the library write every message.
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
    // A message that no call of the facade leads to.
    bool isError = false;
    FrameTracker(1).CheckStagesStatus(0, 0, false, isError);
    ReadMessages();
    for (const tools::MessageForm& form : tools::MessageForms()) {
        // These two are for states that no call leads to.
        if (form.kind != MessageKind::FrameRemoved && form.kind != MessageKind::FrameInError) {
            EXPECT_EQ(kinds.count(form.kind), 1U) << form.text;
        }
    }
    for (const char* text :
         {"", "x", "cameraframeboost", "tarvocameraframeboost.cpp", "a 1:DumpInfo() ",
          "tarvocameraframeboost.cpp 1:DumpInfo() DumpInfo PersistTids size = x",
          "tarvocameraframeboost.cpp 1:DumpInfo() DumpInfo PersistTids size = 1 more"}) {
        EXPECT_FALSE(tools::ParseMessage("", text)) << text;
    }
}

// Random calls in random order.
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
        // Mostly in the order of a pipeline.
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

// ---- Captures ----

// What a reader finds in a capture.
struct Found : tools::RecordSink {
    void OnRecord(const tools::Record& record, const tools::Place& place) override {
        lines.push_back(place.line);
        texts.push_back(std::string(record.tag) + "|" + std::to_string(record.process) + "|" +
                        std::to_string(record.thread) + "|" + std::string(record.message));
        begin = begin == 0 ? record.time.value_or(0) : begin;
        times.push_back(record.time.value_or(0) - begin);
    }
    void OnLeftOut(int64_t count, int32_t process, std::optional<int64_t> /*time*/,
                   const tools::Place& /*place*/) override {
        leftOut += std::to_string(process) + ":" + std::to_string(count) + " ";
    }
    void OnFragment(std::string_view line, const tools::Place& /*place*/) override {
        fragments.emplace_back(line);
    }

    std::vector<uint32_t> lines;
    std::vector<std::string> texts;
    std::vector<int64_t> times;
    int64_t begin = 0;
    std::string leftOut;
    std::vector<std::string> fragments;
};

Found Find(const std::string& bytes, size_t piece) {
    Found found;
    tools::RecordReader reader(found);
    reader.Begin(0);
    for (size_t at = 0; at < bytes.size(); at += piece) {
        reader.Read(std::string_view(bytes).substr(at, piece));
    }
    reader.End();
    return found;
}

std::string Replaced(std::string text, const std::string& what, const std::string& with) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
        text.replace(at, what.size(), with);
    }
    return text;
}

// Knows ASCII and the two characters that the records below have.
std::string Utf16(const std::string& text, bool isLittle, bool hasMark) {
    std::u16string units = hasMark ? u"\xFEFF" : u"";
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        units += byte < 0x80 ? std::u16string(1, byte) : byte == 0xC3 ? u"\xE9" : u"\xD83D\xDE00";
        i += byte < 0x80 ? 0 : byte == 0xC3 ? 1 : 3;
    }
    std::string bytes;
    for (const char16_t unit : units) {
        const char low = static_cast<char>(unit & 0xFF);
        const char high = static_cast<char>(unit >> 8);
        bytes += {isLittle ? low : high, isLittle ? high : low};
    }
    return bytes;
}

TEST(CaptureFormTest, IsReadBackWhateverItsForm) {
    const std::string first = "tarvocameraframeboost.cpp 190:TcfbtNotifyStageStart() ";
    const std::string name = first + "halFrameNumber = 1, stage = 0, nodeName = ";
    const std::string accented = name + "\xC3\xA9 \xF0\x9F\x98\x80";
    const std::string broken = name + "of two\nlines";
    const tools::Record records[] = {
        {1'798'761'599'000'001, 7, 8, 'D', tools::FACADE_TAG, accented},
        {1'798'761'599'999'000, 7, 8, 'D', "cameraframeboos", "another's"},
        {1'798'761'599'999'000, 7, 8, 'D', tools::FACADE_TAG, broken},
        {1'798'761'599'999'000, 7, 8, 'W', "a: b/ (c)", "cameraframeboost: not the library's"},
        {1'798'761'599'999'000, 7, 8, 'D', "Camera", name},
        // In the next year.
        {1'798'761'600'123'456, 12345, 67890, 'D', tools::UTILS_TAG,
         "tarvocameraframeboostutils.cpp 194:DumpConfig() supportOperationModeList = "},
        {1'798'761'601'000'000, 7, 8, 'I', "chatty", "uid=1047(cameraserver) x identical 3 lines"},
        {1'798'761'602'000'000, 7, 8, 'D', tools::FACADE_TAG, name},
    };
    for (const std::string form :
         {"brief", "process", "tag", "thread", "raw", "time", "threadtime", "long"}) {
        for (const std::string modifiers :
             {"", ",uid", ",year,usec,zone", ",epoch,nsec", ",monotonic,color", ",printable,color",
              ",uid,color,UTC"}) {
            const tools::Format format = *tools::FormatOf(form + modifiers);
            const bool hasTime = form == "time" || form == "threadtime" || form == "long";
            const bool hasThread = form == "thread" || form == "threadtime" || form == "long";
            const bool hasProcess =
                hasThread || form == "brief" || form == "process" || form == "time";
            const bool hasTag = form != "thread" && form != "raw";
            std::string text = "--------- beginning of main\n------ SYSTEM LOG (logcat) ------\n";
            std::vector<std::string> expected;
            std::vector<int64_t> times;
            for (const tools::Record& record : records) {
                if (record.tag == "Camera" && !hasTag) {
                    continue;  // Who logged it cannot be told.
                }
                tools::AppendRecord(text, format, record);
                std::string message(record.message);
                if (record.tag != tools::FACADE_TAG && record.tag != tools::UTILS_TAG) {
                    continue;
                }
                if (!hasTag) {
                    message = message.substr(0, message.find('\n'));
                }
                expected.push_back((hasTag ? std::string(record.tag) : "") + "|" +
                                   std::to_string(hasProcess ? record.process : -1) + "|" +
                                   std::to_string(hasThread ? record.thread : -1) + "|" + message);
                const int64_t unit = format.digits == 3 ? 1000 : 1;
                const auto rounded = [unit](int64_t time) { return time / unit * unit; };
                times.push_back(hasTime ? rounded(*record.time) - rounded(*records[0].time) : 0);
            }
            const std::string crlf = Replaced(text, "\n", "\r\r\n");
            for (const std::string& bytes :
                 {text, "\xEF\xBB\xBF" + crlf, Utf16(crlf, true, true), Utf16(text, true, false),
                  Utf16(text, false, true), Utf16(text, false, false)}) {
                for (const size_t piece : {size_t{1}, size_t{7}, size_t{100'000}}) {
                    const Found found = Find(bytes, piece);
                    ASSERT_EQ(found.texts, expected) << form << modifiers << "\n" << bytes;
                    ASSERT_EQ(found.times, times) << form << modifiers << "\n" << bytes;
                    ASSERT_EQ(found.leftOut, !hasTag ? "" : hasProcess ? "7:3 " : "-1:3 ");
                    ASSERT_TRUE(found.fragments.empty()) << found.fragments[0];
                }
            }
        }
    }
}

TEST(CaptureFormTest, CountsLinesThatAreCutOff) {
    const std::string line =
        "01-01 00:00:00.000     7     8 D cameraframeboost: tarvocameraframeboost.cpp "
        "1:DumpInfo() DumpInfo PersistTids size = 12\n";
    const Found found = Find(line.substr(30) + line + line + line.substr(0, line.size() - 2), 1000);
    EXPECT_EQ(found.lines, (std::vector<uint32_t>{2, 3}));
    EXPECT_EQ(found.fragments.size(), 2U);
}

// Keeps the calls of each thread, each with its events, and the disturbances.
struct CallList : tools::StepSink {
    void OnStep(const tools::Step& step) override {
        if (step.call.operation != nullptr) {
            std::string& call = byThread[step.thread].emplace_back(tools::WriteLine(step.call));
            for (const tools::Event& event : step.events) {
                call += " " + std::to_string(int(event.kind)) + ":" +
                        std::to_string(int(event.outcome));
            }
        }
    }
    void OnDisturbance(const tools::Disturbance& disturbance) override {
        disturbances.push_back(disturbance);
    }
    std::map<int32_t, std::vector<std::string>> byThread;
    std::vector<tools::Disturbance> disturbances;
};

// The lines of several threads are mixed at random.
TEST_F(CaptureTest, FindsTheCallsOfEachThread) {
    std::map<int32_t, std::deque<std::string>> threads;  // Lines to be written.
    CallList made;
    std::minstd_rand random(2);
    const char* const nodes[] = {"Sensor", "Filter0", "Encoder", "Other"};
    const auto log = [&](int32_t thread) {
        for (const desktop::Effect& effect : effects) {
            if (const auto* line = std::get_if<desktop::LogLine>(&effect.event)) {
                tools::AppendRecord(threads[thread].emplace_back(), {},
                                    {0, 7, thread, 'D', line->tag, line->text});
            }
        }
    };
    const auto play = [&](int32_t thread, const tools::Call& call) {
        tools::Step step;
        step.thread = thread;
        step.call = call;
        step.result = call.operation->call(boost, call.arguments);
        ReadMessages();
        tools::TellEvents(step, messages, configuration);
        made.OnStep(step);
        log(thread);
    };
    std::string capture;
    Load();
    log(0);
    play(0, {tools::FindOperation("TcfbtSetSceneInfo"), {true, 4096, 60}});
    play(0, {tools::FindOperation("TcfbtNotifySceneStart"), {5}});
    for (const std::string& line : threads[0]) {
        capture += line;
    }
    threads.erase(0);
    for (int i = 0; i < 3000; ++i) {
        const auto node = static_cast<int32_t>(random() % 4);
        play(node + 1, {tools::FindOperation("TcfbtNotifyNodeEnd"),
                        {i / 8 + int64_t(random() % 3), std::string(nodes[node]),
                         random() % 20 == 0 ? 9 : node + 2, 0, true}});
        // Writes some lines now, the others later.
        while (threads[1].size() + threads[2].size() + threads[3].size() + threads[4].size() > 9) {
            std::deque<std::string>& lines = threads[int32_t(1 + random() % 4)];
            if (!lines.empty()) {
                capture += lines.front();
                lines.pop_front();
            }
        }
    }
    for (auto& [thread, lines] : threads) {
        for (const std::string& line : lines) {
            capture += line;
        }
    }
    CallList found;
    tools::CaptureReader reader(found);
    reader.Begin(0);
    reader.Read(capture);
    reader.End();
    reader.Finish();
    for (int32_t thread = 1; thread <= 4; ++thread) {
        auto& expected = made.byThread[thread];
        auto& calls = found.byThread[thread];
        // The last call may have had more lines.
        expected.pop_back();
        calls.pop_back();
        const auto [one, other] =
            std::mismatch(calls.begin(), calls.end(), expected.begin(), expected.end());
        EXPECT_TRUE(one == calls.end() && other == expected.end())
            << (one == calls.end() ? "nothing" : *one) << "\n"
            << (other == expected.end() ? "nothing" : *other);
    }
}

// A session made from a capture, played here, logs the same as the device.
TEST_F(CaptureTest, PlaysTheSameAgain) {
    const auto verify = [](const std::string& text, const std::string& name) {
        tools::SessionMaker maker;
        tools::CapturedMessages captured;
        tools::CaptureReader reader(maker);
        reader.SetListener(
            [&](const Message& message, std::string_view words, const tools::Moment& moment) {
                captured.Add(message, words, moment);
            });
        reader.Begin(0);
        reader.Read(text);
        reader.End();
        reader.Finish();
        const std::optional<tools::MadeSession> session = maker.Finish();
        ASSERT_TRUE(session && session->configuration) << name;
        tools::Configuration loaded = *session->configuration;
        loaded.stageCount = reader.Summary().stageCount;
        loaded.additionalWidth = reader.Summary().additionalWidth;
        const tools::Verification verification =
            tools::Verify(*session, tools::ToToml(loaded), captured);
        EXPECT_EQ(verification.obstacle, "") << name;
        EXPECT_GT(verification.messages, 100) << name;
        EXPECT_EQ(verification.differing, 0) << name;
        for (const tools::Difference& difference : verification.first) {
            ADD_FAILURE() << name << ":" << difference.place.line << ": " << difference.captured
                          << "\n"
                          << difference.sessionLine << ": " << difference.replayed;
        }
    };
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        tools::Camera camera = RandomCamera(seed);
        camera.frames = std::min<int64_t>(camera.frames, 300);
        std::erase_if(camera.faults, [&camera](const tools::Fault& fault) {
            return fault.kind == tools::FaultKind::LogLost || fault.frame + 20 > camera.frames;
        });
        const tools::NamedText toml{"c", ToToml(ConfigurationOf(camera))};
        ASSERT_TRUE(tools::PreparePlatform(toml, [](const tools::Finding&) {}));
        std::ostringstream capture;
        tools::Simulate(camera, capture);
        verify(capture.str(), "seed " + std::to_string(seed));
    }
}

}  // namespace
