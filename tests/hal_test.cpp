// The example HAL, as a program of one's own: what it and the environment show on a desktop.

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <set>

#include "tests/support/library_test.h"

namespace {

constexpr char DEBUG[] =
    "TARVO_DESKTOP_PROPERTIES=vendor.tarvo.camera.frameboost.debug.enable=true ";

// The lines that a command writes to standard error.
Lines LinesOf(const std::string& command, int expectedStatus) {
    FILE* output = popen((command + " 2>&1 >/dev/null").c_str(), "r");
    EXPECT_NE(output, nullptr);
    Lines lines(1);
    for (int c = 0; (c = std::fgetc(output)) != EOF;) {
        if (c == '\n') {
            lines.emplace_back();
        } else {
            lines.back() += static_cast<char>(c);
        }
    }
    EXPECT_EQ(lines.back(), "");
    lines.pop_back();
    const int status = pclose(output);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, expectedStatus) << command;
    return lines;
}

int64_t CountOf(const Lines& lines, const std::string& text) {
    return std::count_if(lines.begin(), lines.end(), [&text](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
}

TEST(HalTest, RecordsAndLosesNoFrameButThoseThatItDrops) {
    const Lines lines =
        LinesOf(std::string(DEBUG) + "TARVO_DESKTOP_TRACE_TAGS=0x400 " HAL_COMMAND " 0.5 7", 0);
    const std::regex logLine(
        "[01]\\d-[0-3]\\d [0-2]\\d:[0-5]\\d:[0-5]\\d\\.\\d{3} +(\\d+) +(\\d+) D "
        "(cameraframeboost|tarvocameraframeboostutils): .*\\(\\) .*");
    const std::regex counter("C\\|(\\d+)\\|Tcfbt[A-Za-z]+\\d?\\|\\d+");
    std::set<std::string> processes;
    std::set<std::string> threads;
    for (const std::string& line : lines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, logLine) ||
                    std::regex_match(line, match, counter))
            << line;
        processes.insert(match[1]);
        threads.insert(match.size() > 2 ? match[2] : match[1]);
    }
    EXPECT_EQ(processes.size(), 1U);
    EXPECT_EQ(threads.size(), 6U);
    EXPECT_EQ(CountOf(lines, "TcfbtNotifyFrameStart() halFrameNumber"), 31);
    EXPECT_EQ(CountOf(lines, "TcfbtNotifyFrameEnd() halFrameNumber"), 30);
    EXPECT_EQ(CountOf(lines, "TcfbtNotifyStageEnd() halFrameNumber"), 5 * (30 - 4));
    EXPECT_EQ(CountOf(lines, "|TcfbtNotifyStageEnd4|"), 2 * (30 - 4));
    EXPECT_EQ(CountOf(lines, "CheckStagesStatus") + CountOf(lines, "is error = 1"), 0);

    const Lines withLosses = LinesOf(std::string(DEBUG) + HAL_COMMAND " 0.3 0 4", 0);
    EXPECT_EQ(CountOf(withLosses, "TcfbtNotifyFrameEnd() halFrameNumber"), 18 - 4);
    EXPECT_EQ(CountOf(withLosses, "C|"), 0);
    EXPECT_EQ(LinesOf(HAL_COMMAND " 0.1", 0), Lines{}) << "debug is off";
    EXPECT_EQ(LinesOf(HAL_COMMAND " -1", 2).size(), 1U);
}

TEST(HalTest, HearsOnceOfWhatMeansNothingInTheEnvironment) {
    // This very program puts the platform back to its start again and again.
    const Lines lines = LinesOf(
        "TARVO_DESKTOP_CONFIG=/no/such/file TARVO_DESKTOP_TRACE_TAGS=0x4OO "
        "TARVO_DESKTOP_PROPERTIES='a,=1,b=TRUE,c=,d=off' " TEST_COMMAND
        " --gtest_filter='SceneTest.*'",
        0);
    const char* expected[] = {"PROPERTIES: \"a\"", "PROPERTIES: \"=1\"", "PROPERTIES: \"b=TRUE\"",
                              "TRACE_TAGS: \"0x4OO\"", "/no/such/file:1: cannot be read"};
    ASSERT_EQ(lines.size(), std::size(expected));
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_NE(lines[i].find(expected[i]), std::string::npos) << lines[i];
    }
    // Two lines of loading, three of the facade: none of a thread that is handed over.
    EXPECT_EQ(LinesOf(std::string(DEBUG) + "TARVO_DESKTOP_CONFIG=/dev/null " HAL_COMMAND, 1).size(),
              2U + 3U);
}

}  // namespace
