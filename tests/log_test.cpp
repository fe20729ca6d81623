// The library's log: every message known, and every form of logcat written and read back.

#include <iconv.h>

#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/library_test.h"
#include "tools/log/calls.h"
#include "tools/log/message.h"
#include "tools/log/record.h"
#include "tools/log/record_reader.h"
#include "tools/session/session.h"

namespace {

using tools::Message;
using tools::MessageKind;

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

class LogTest : public LibraryTest {
  protected:
    // Reads what the library has logged since the last time.
    void ReadMessages() {
        for (const desktop::Effect& effect : recorder.Take()) {
            const auto* line = std::get_if<desktop::LogLine>(&effect.event);
            if (line == nullptr) {
                continue;
            }
            const auto message = tools::ParseMessage(line->text);
            ASSERT_TRUE(message) << line->text;
            kinds.insert(message->kind);
            EXPECT_EQ(TextsOf(*message).count(line->text.substr(line->text.find(':') + 1)), 1U)
                << line->text;
            tools::AddDumped(*message, configuration);
        }
    }

    std::set<MessageKind> kinds;
    tools::Configuration configuration;
};

// Two bundled sessions make the library write every message.
TEST_F(LogTest, KnowsEveryMessage) {
    desktop::Reset();
    desktop::SetLogToStderr(false);
    desktop::SetProperty("vendor.tarvo.camera.frameboost.debug.enable", "true");
    TarvoCameraFrameBoost::localConfig = LocalConfig();
    ReadMessages();
    EXPECT_EQ(configuration.modes, (std::vector<int32_t>{0x8001, 0x8005}));
    ASSERT_EQ(configuration.stages.size(), 5U);
    EXPECT_EQ(configuration.stages[4].node, "EncoderFeed");
    EXPECT_EQ(configuration.stages[4].ports, (std::vector<int32_t>{10, 11, 12}));
    TarvoCameraFrameBoost boost;
    for (const char* name : {"frames-and-stages", "scenes-and-threads"}) {
        std::ifstream file(std::string(SESSIONS_DIRECTORY) + "/" + name + ".session");
        for (std::string line; std::getline(file, line);) {
            const tools::Line parsed = tools::ParseLine(line);
            if (const auto* call = std::get_if<tools::Call>(&parsed)) {
                call->form->call(boost, call->arguments);
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
        EXPECT_FALSE(tools::ParseMessage(text)) << text;
    }
}

TEST(RecordTest, IsWrittenInEachFormThatHasTimes) {
    const tools::Record record{1'700'000'000'012'345, 321, 4321, 'D', "camera", "text\\ \x01"};
    const struct {
        const char* format;
        std::string text;
    } cases[] = {
        {"time", "11-14 22:13:20.012 D/camera  (  321): text\\ \x01\n"},
        {"threadtime,uid,year,usec,zone",
         "2023-11-14 22:13:20.012345 +0000  1047   321  4321 D camera  : text\\ \x01\n"},
        {"epoch,nsec", "         1700000000.012345000   321  4321 D camera  : text\\ \x01\n"},
        {"time,uid,UTC", "11-14 22:13:20.012 +0000 D/camera  ( 1047:  321): text\\ \x01\n"},
    };
    for (const auto& [name, text] : cases) {
        const auto format = tools::FormatOf(name);
        ASSERT_TRUE(format) << name;
        std::string written = "before ";
        AppendRecord(written, *format, record);
        EXPECT_EQ(written, "before " + text) << name;
    }

    // A clock since boot, and one that stands before 1970.
    const auto lineOf = [](const char* format, int64_t time) {
        std::string line;
        AppendRecord(line, *tools::FormatOf(format), {time, 1, 2, 'I', "a tag: of many", "text"});
        return line;
    };
    EXPECT_EQ(lineOf("monotonic", 4'000'000), "     4.000     1     2 I a tag: of many: text\n");
    EXPECT_EQ(lineOf("year", -1), "1969-12-31 23:59:59.999     1     2 I a tag: of many: text\n");

    for (const char* name : {",time", "time,,year", "Time", "years", "brief", "long", "color"}) {
        EXPECT_FALSE(tools::FormatOf(name)) << name;
    }
}

// What a reader finds in a capture.
struct Found : tools::RecordSink {
    void OnRecord(const tools::Record& record, const tools::Place& place) override {
        if (!record.isWhole) {
            fragments.emplace_back(record.message);
            return;
        }
        if (record.tag == tools::CHATTY_TAG) {
            leftOut += std::to_string(record.process) + "|" + std::string(record.message);
            return;
        }
        lines.push_back(place.line);
        texts.push_back(std::string(record.tag) + "|" + std::to_string(record.process) + "|" +
                        std::to_string(record.thread) + "|" + std::string(record.message));
        begin = begin == 0 ? record.time : begin;
        times.push_back(record.time - begin);
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
std::string Utf16(const std::string& text, bool isLittle) {
    std::u16string units = u"\xFEFF";
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

// Not in the C library's files for cross compilers, which lack the modules of iconv.
bool HasUtf16() {
    const iconv_t converter = iconv_open("UTF-8", "UTF-16");
    const bool hasIt = reinterpret_cast<intptr_t>(converter) != -1;
    if (hasIt) {
        iconv_close(converter);
    }
    return hasIt;
}

TEST(RecordTest, IsReadBackWhateverItsForm) {
    const std::string first = "tarvocameraframeboost.cpp 190:TcfbtNotifyStageStart() ";
    const std::string name = first + "halFrameNumber = 1, stage = 0, nodeName = ";
    const std::string accented = name + "\xC3\xA9 \xF0\x9F\x98\x80";
    const std::string chatty = "uid=1047(cameraserver) x identical 3 lines";
    const tools::Record records[] = {
        {1'798'761'599'000'001, 7, 8, 'D', tools::FACADE_TAG, accented},
        {1'798'761'599'999'000, 7, 8, 'D', "cameraframeboos", "another's"},
        {1'798'761'599'999'000, 7, 8, 'W', "a: b/ (c)", "cameraframeboost: not the library's"},
        {1'798'761'599'999'000, 7, 8, 'D', "Camera", name},
        // In the next year.
        {1'798'761'600'123'456, 12345, 67890, 'D', tools::UTILS_TAG,
         "tarvocameraframeboostutils.cpp 194:DumpConfig() supportOperationModeList = "},
        {1'798'761'601'000'000, 7, 8, 'I', tools::CHATTY_TAG, chatty},
        {1'798'761'602'000'000, 7, 8, 'D', tools::FACADE_TAG, name},
    };
    for (const std::string form : {"time", "threadtime"}) {
        for (const std::string modifiers :
             {"", ",uid", ",year,usec,zone", ",epoch,nsec", ",monotonic", ",uid,UTC"}) {
            const tools::Format format = *tools::FormatOf(form + modifiers);
            std::string text = "--------- beginning of main\n------ SYSTEM LOG (logcat) ------\n";
            std::vector<std::string> expected;
            std::vector<int64_t> times;
            for (const tools::Record& record : records) {
                tools::AppendRecord(text, format, record);
                if (record.tag != tools::FACADE_TAG && record.tag != tools::UTILS_TAG) {
                    continue;
                }
                expected.push_back(std::string(record.tag) + "|" + std::to_string(record.process) +
                                   "|" + std::to_string(format.hasThread ? record.thread : -1) +
                                   "|" + std::string(record.message));
                const int64_t unit = format.digits == 3 ? 1000 : 1;
                const auto rounded = [unit](int64_t time) { return time / unit * unit; };
                times.push_back(rounded(record.time) - rounded(records[0].time));
            }
            const std::string crlf = Replaced(text, "\n", "\r\r\n");
            std::vector<std::string> encoded = {text, "\xEF\xBB\xBF" + crlf};
            if (HasUtf16()) {
                encoded.insert(encoded.end(), {Utf16(crlf, true), Utf16(text, false)});
            }
            for (const std::string& bytes : encoded) {
                for (const size_t piece : {size_t{1}, size_t{7}, size_t{100'000}}) {
                    const Found found = Find(bytes, piece);
                    ASSERT_EQ(found.texts, expected) << form << modifiers << "\n" << bytes;
                    ASSERT_EQ(found.times, times) << form << modifiers << "\n" << bytes;
                    ASSERT_EQ(found.leftOut, "7|" + chatty);
                    ASSERT_TRUE(found.fragments.empty()) << found.fragments[0];
                }
            }
        }
    }
}

TEST(RecordTest, CountsLinesThatAreCutOff) {
    const std::string line =
        "01-01 00:00:00.000     7     8 D cameraframeboost: tarvocameraframeboost.cpp "
        "1:DumpInfo() DumpInfo PersistTids size = 12\n";
    const Found found = Find(line.substr(30) + line + line + line.substr(0, line.size() - 2), 1000);
    EXPECT_EQ(found.lines, (std::vector<uint32_t>{2, 3}));
    EXPECT_EQ(found.fragments.size(), 2U);
}

}  // namespace
