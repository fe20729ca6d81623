// The example HAL, run as a program: what it logs, and what the environment changes.

#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>
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

TEST(HalTest, WritesCountersIntoATrace) {
    const std::string marker = testing::TempDir() + "hal_test_marker";
    const std::string command =
        std::string(DEBUG) + "TARVO_DESKTOP_TRACE_TAGS=0x400 TARVO_DESKTOP_TRACE_MARKER=";
    EXPECT_EQ(
        CountOf(LinesOf(": >" + marker + " && " + command + marker + " " HAL_COMMAND, 0), "C|"), 0);
    const Lines counters = LinesOf("(cat " + marker + " >&2)", 0);
    EXPECT_EQ(CountOf(counters, "|TcfbtNotifyFrameStart|"), 2 * 16);
    EXPECT_EQ(CountOf(counters, "C|"), static_cast<int64_t>(counters.size()));
    const Lines refused = LinesOf(command + marker + "/no " HAL_COMMAND, 0);
    EXPECT_EQ(CountOf(refused, "TRACE_MARKER: cannot write " + marker + "/no: Not a dir"), 1);
    EXPECT_EQ(CountOf(refused, "C|"), static_cast<int64_t>(counters.size()));
    std::remove(marker.c_str());
}

// Seconds of CPU time that the HAL takes.
double CpuSecondsOf(const std::string& arguments) {
    const auto ofChildren = [] {
        rusage usage{};
        getrusage(RUSAGE_CHILDREN, &usage);
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    };
    const double before = ofChildren();
    LinesOf(HAL_COMMAND + arguments, 0);
    return ofChildren() - before;
}

TEST(HalTest, ComputesWhenAsked) {
    const double idle = CpuSecondsOf(" 1");
    const auto expect = [idle](const std::string& arguments, double computed) {
        const double taken = CpuSecondsOf(arguments);
        EXPECT_GE(taken, computed) << arguments;
        EXPECT_LE(taken, 1.5 * computed + 3 * idle) << "all else takes more on a busy machine";
    };
    const double nodes = 60 * (0.009 + 0.006 + 0.011 + 0.008) / 5;
    EXPECT_LT(idle, nodes);
    expect(" --busy 1", nodes);
    expect(" 1 0 0 7", 8 * 0.040);
}

// Preview, a recording that is flushed while nodes are at work, the rest of it while the other
// camera has a preview, preview, and a recording of the other camera: three scenes, each with its
// own frames.
TEST(HalTest, ReportsEachFrameThroughFlushesPreviewsAndBothCameras) {
    const Lines lines = LinesOf(std::string(DEBUG) + HAL_COMMAND " --all 0.4", 0);
    struct Scene {
        std::vector<int64_t> starts;
        std::vector<int64_t> ends;
        int64_t lastNodeEnds = 0;
        std::set<int64_t> threads;
        std::set<int64_t> threadsTakenBack;
    };
    std::vector<Scene> scenes(1);
    const std::regex number("(halFrameNumber|tid) = (\\d+)");
    for (const std::string& line : lines) {
        const auto has = [&line](const char* text) { return line.find(text) != std::string::npos; };
        std::smatch match;
        const int64_t value = std::regex_search(line, match, number) ? std::stoll(match[2]) : -1;
        Scene& scene = scenes.back();
        if (has("TcfbtSetTids()")) {
            scene.threads.insert(value);
        } else if (has("TcfbtRemoveTids()")) {
            scene.threadsTakenBack.insert(value);
        } else if (has("TcfbtNotifyFrameStart()")) {
            scene.starts.push_back(value);
        } else if (has("TcfbtNotifyFrameEnd()")) {
            scene.ends.push_back(value);
        } else if (has("TcfbtNotifyNodeEnd()")) {
            scene.lastNodeEnds += has("stage = 4") ? 1 : 0;
        } else if (has("TcfbtNotifySceneEnd()")) {
            scenes.emplace_back();
        }
    }
    scenes.pop_back();

    const std::vector<size_t> lengths = {12, 12, 24};
    ASSERT_EQ(scenes.size(), lengths.size());
    for (size_t i = 0; i < scenes.size(); ++i) {
        const Scene& scene = scenes[i];
        std::vector<int64_t> all(scene.starts.size());
        std::iota(all.begin(), all.end(), 1);
        EXPECT_EQ(scene.starts, all) << i;
        all.resize(scene.ends.size());
        EXPECT_EQ(scene.ends, all) << i;
        if (i == 0) {  // Flushed: the frames on their way were thrown away.
            EXPECT_GE(scene.ends.size(), lengths[i]);
            EXPECT_GT(scene.starts.size(), scene.ends.size());
            EXPECT_LT(scene.starts.size(), lengths[i] + 16) << "240 were requested";
        } else {  // The last frame starts another, which never comes.
            EXPECT_EQ(scene.ends.size(), lengths[i]) << i;
            EXPECT_EQ(scene.starts.size(), lengths[i] + 1) << i;
        }
        EXPECT_EQ(scene.lastNodeEnds, static_cast<int64_t>(scene.ends.size())) << i;
        EXPECT_EQ(scene.threads.size(), 1U + 5U) << "the process's and the pipeline's";
        EXPECT_EQ(scene.threads, scene.threadsTakenBack) << i;
    }
    EXPECT_EQ(scenes[0].threads, scenes[1].threads) << "threads outlive a stream";
    EXPECT_NE(scenes[1].threads, scenes[2].threads) << "another camera's";
    EXPECT_EQ(CountOf(lines, "isSceneStarted = true"), 3);
    EXPECT_EQ(LinesOf("TARVO_DESKTOP_CONFIG=/dev/null " HAL_COMMAND " --all 0.1", 1), Lines{});
    EXPECT_EQ(CountOf(lines, "TcfbtAddPersistTids()"), 1) << "once a process";
    for (const char* refusal :
         {"is error = 1", "already exists", "not exist", "CheckStagesStatus"}) {
        EXPECT_EQ(CountOf(lines, refusal), 0) << refusal;
    }
}

TEST(HalTest, RecordsWithTheServiceThatBoosts) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    const bool isRefused = std::system("chrt -f 2 true 2>/dev/null") != 0;
    const Lines lines = LinesOf(HAL_COMMAND " --boost --busy 0.2", isRefused ? 1 : 0);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_NE(lines[0].find(isRefused ? " W tarvo_cfbt: real-time (" : " I tarvo_cfbt: threads"),
              std::string::npos)
        << lines[0];
    EXPECT_EQ(LinesOf(HAL_COMMAND " --heavy 0.1", 0), Lines{});
}

TEST(HalTest, ReportsUnusableEnvironmentVariablesOnce) {
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
    EXPECT_EQ(CountOf(LinesOf("TARVO_DESKTOP_SERVICE=best " HAL_COMMAND " 0.1", 0),
                      "TARVO_DESKTOP_SERVICE: \"best\" is no service, expected boost"),
              1);
    // Two lines of loading, three of the facade: none of a thread that is handed over.
    EXPECT_EQ(LinesOf(std::string(DEBUG) + "TARVO_DESKTOP_CONFIG=/dev/null " HAL_COMMAND, 1).size(),
              2U + 3U);
}

}  // namespace
