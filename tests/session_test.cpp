// The session language: what is written is read back the same, and all errors are reported.

#include "tools/session/session.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using tools::Line;

// Random lines of every kind, often with values at the ends of their ranges.
class LineMaker {
  public:
    Line Make() {
        switch (Below(8)) {
            case 0:
                return tools::Comment{Below(2) == 0 ? "" : "# " + Text() + "."};
            case 1:
                return tools::Recording{1 + Number(9'999'999), FirstFrame()};
            case 2:
                return tools::Wait{Number(1'000'000'000'000)};
            case 3:
                return tools::ServiceStatus{
                    static_cast<desktop::ServiceFunction>(Below(desktop::SERVICE_FUNCTION_COUNT)),
                    static_cast<int32_t>(generator())};
            default:
                const auto forms = tools::Operations();
                const tools::OperationForm& form = forms[Below(forms.size())];
                tools::Call call{&form, {}};
                for (const tools::Value& type : form.types) {
                    call.arguments.push_back(
                        std::visit([this](const auto& one) { return Argument(one); }, type));
                }
                return call;
        }
    }

  private:
    size_t Below(size_t end) { return generator() % end; }

    // From 0 to `most`, with any number of digits.
    int64_t Number(int64_t most) {
        const uint64_t bits = (uint64_t{generator()} << 32 | generator()) >> Below(64);
        return static_cast<int64_t>(bits % (static_cast<uint64_t>(most) + 1));
    }

    std::optional<int64_t> FirstFrame() {
        return Below(2) == 0 ? std::nullopt : std::optional(1 + Number(int64_t{1} << 62));
    }

    // Any bytes but a line feed; mostly those that have a meaning in a session.
    std::string Text() {
        std::string text(Below(6), ' ');
        for (char& character : text) {
            character = Below(2) == 0 ? "ab #\"\\\t\r-"[Below(9)] : static_cast<char>(Below(256));
            character = character == '\n' ? '_' : character;
        }
        return text;
    }

    tools::Value Argument(bool /*type*/) { return Below(2) == 0; }
    tools::Value Argument(int32_t /*type*/) { return static_cast<int32_t>(generator()); }
    tools::Value Argument(int64_t /*type*/) {
        return static_cast<int64_t>(uint64_t{generator()} << 32 | generator());
    }
    tools::Value Argument(const std::string& /*type*/) { return Text(); }
    tools::Value Argument(const std::vector<int32_t>& /*type*/) {
        return std::vector<int32_t>(Below(4), static_cast<int32_t>(generator()));
    }

    std::mt19937 generator{1};
};

TEST(SessionTest, ReadsWhatItWrites) {
    LineMaker maker;
    for (int i = 0; i < 5000; ++i) {
        const Line line = maker.Make();
        const std::string text = tools::WriteLine(line);
        try {
            EXPECT_EQ(tools::ParseLine(text), line) << text;
        } catch (const tools::LineError& error) {
            ADD_FAILURE() << text << ": " << error.what();
        }
    }
}

// Different ways to write a line, and how it is written back.
TEST(SessionTest, ReadsEveryWayToWriteALine) {
    struct {
        const char* text;
        const char* written;
    } const cases[] = {
        {"\tTcfbtNotifySceneStart\v-32767 # here\r", "TcfbtNotifySceneStart 0xFFFF8001"},
        {"TcfbtNotifySceneStart 0xffff8001", "TcfbtNotifySceneStart 0xFFFF8001"},
        {"TcfbtNotifySceneStart 32769", "TcfbtNotifySceneStart 0x8001"},
        {"TcfbtSetVersion -0x10", "TcfbtSetVersion -16"},
        {"TcfbtNotifyFrameEnd 0x100000005", "TcfbtNotifyFrameEnd 4294967301"},
        {"TcfbtAddPersistTids\"a b\"7", "TcfbtAddPersistTids \"a b\" 7"},
        {"TcfbtAddPersistTids \"\\\"\\\\\\n\" 7", "TcfbtAddPersistTids \"\\\"\\\\n\" 7"},
        {"TcfbtRemoveTids 1 # 2", "TcfbtRemoveTids 1"},
        {"PlayRecording 2 0x20", "PlayRecording 2 32"},
        {"Wait 16.670", "Wait 16.67"},
        {"Wait 016.007", "Wait 16.007"},
        {"Wait .0076", "Wait 0.008"},
        {" # a comment \t", "# a comment"},
    };
    for (const auto& [text, written] : cases) {
        EXPECT_EQ(tools::WriteLine(tools::ParseLine(text)), written);
    }
}

TEST(SessionTest, ReportsAllErrors) {
    struct {
        std::string line;
        const char* message;
    } const cases[] = {
        {"Unknown", "\"Unknown\" is not known, expected an operation"},
        {"\"DumpInfo\"", "\"DumpInfo\" is not known"},
        {"tcfbtNotifyFrameEnt 1", "is not known, expected TcfbtNotifyFrameEnd, if"},
        {"\x1b[2J\x7f\xc2\x9b\xff", "\"\\x1B[2J\\x7F\\xC2\\x9B\\xFF\" is not known"},
        {std::string(9999, 'x'), "xxx...\" is not known"},
        {"TcfbtSetVersion", "wrong number of values, expected TcfbtSetVersion version"},
        {"TcfbtSetVersion 1 2", "wrong number of values, expected TcfbtSetVersion version"},
        {"TcfbtSetVersion 2147483648", "number from -2147483648 to 2147483647"},
        {"TcfbtSetVersion -0x80000001", "number from -2147483648 to 2147483647"},
        {"TcfbtSetVersion 0x100000000", "number from -2147483648 to 2147483647"},
        {"TcfbtSetVersion 1x", "version is \"1x\""},
        {"TcfbtSetVersion --1", "version is \"--1\""},
        {"TcfbtSetVersion 0x-1", "version is \"0x-1\""},
        {"TcfbtSetVersion 0x", "version is \"0x\""},
        {"TcfbtSetVersion \"1\"", "version is \"1\""},
        {"TcfbtNotifyFrameEnd 9223372036854775808", "to 9223372036854775807"},
        {"TcfbtSetSceneInfo yes 1 1", "isVideo is \"yes\", expected true or false"},
        {"TcfbtAddPersistTids \"open", "expected a closing double quote"},
        {"TcfbtAddPersistTids \"open\\", "expected a closing double quote"},
        {"TcfbtRemoveTids 1 2 x", "tids is \"x\""},
        {"PlayRecording", "expected PlayRecording frames [firstFrame]"},
        {"PlayRecording 0", "from 1 to"},
        {"PlayRecording 1 0", "from 1 to"},
        {"PlayRecording 99999999999", "from 1 to"},
        {"Wait", "expected Wait milliseconds"},
        {"Wait -1", "milliseconds is \"-1\", expected a number from 0 to"},
        {"Wait 1.x", "milliseconds is \"1.x\""},
        {"Wait nan", "from 0 to 1000000000"},
        {"Wait \"1\"", "from 0 to 1000000000"},
        {"Wait 1000000001", "from 0 to 1000000000"},
        {"ServiceStatus cfbtNone 1", "function is \"cfbtNone\", expected one of cfbtSceneStart, "},
        {"ServiceStatus cfbtFrameEnd x", "status is \"x\""},
    };
    // With a byte order mark, good lines in between, and no line end at the end.
    std::string text = "\xEF\xBB\xBF# first";
    for (const auto& [line, message] : cases) {
        text += "\nDumpInfo\n" + line;
    }
    size_t errors = 0;
    size_t lines = 0;
    tools::ForEachLine(
        text, [&lines](uint32_t, const Line&) { return ++lines != 0; },
        [&](uint32_t number, const tools::LineError& error) {
            ASSERT_LT(errors, std::size(cases));
            EXPECT_EQ(number, 2 * errors + 3) << error.what();
            EXPECT_NE(std::string(error.what()).find(cases[errors].message), std::string::npos)
                << error.what();
            EXPECT_LT(std::string(error.what()).size(), 250U);
            ++errors;
        });
    EXPECT_EQ(errors, std::size(cases));
    EXPECT_EQ(lines, std::size(cases) + 1);
}

}  // namespace
