// What follows from a scene by arithmetic, and how bad frames are counted to causes.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/harmed.h"
#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/log/capture.h"
#include "tools/play/replay.h"
#include "tools/play/simulate.h"

namespace {

using tools::Micros;
using tools::MILLISECOND;

constexpr Micros PERIOD = tools::SECOND / 60;

// Numbers below a limit, the same everywhere.
struct Draw {
    std::mt19937 random;
    int64_t operator()(int64_t limit) { return static_cast<int64_t>(random()) % limit; }
};

// A pipeline of four stages, each of which serves one frame after the other: its scene, as it would
// be read of a log, and when each stage began with each frame.
struct Pipeline {
    using Pass = std::pair<uint32_t, int32_t>;  // A row and a stage.

    tools::Scene scene;
    std::map<Pass, Micros> begin;

    // `workOf(row, stage)`: how long that takes; of stage 0 how much later the sensor delivers this
    // frame and those behind it.
    template <typename Work>
    Pipeline(uint32_t frames, Work workOf) {
        scene.fps = 60;
        scene.isDescribed = scene.isStarted = scene.hasNodes = true;
        scene.begin = 0;
        scene.stopped = tools::Stop::SceneEnd;
        scene.stageCount = 4;
        scene.stageNames = {"Sensor", "Filter", "Mapper", "Encoder"};
        scene.reporters = {{}};
        scene.opener = 0;
        scene.opened = 0;
        scene.frames.resize(frames + 1);  // The last one is only opened.
        scene.passes.resize(size_t{4} * (frames + 1));
        std::vector<Micros> free(4);
        Micros delivered = 0;
        for (uint32_t row = 0; row <= frames; ++row) {
            tools::Frame& frame = scene.frames[row];
            frame.number = row + 1;
            frame.seen = frame.start = delivered;  // By the end of stage 0 of the one before.
            frame.isStarted = true;
            frame.place = {0, 10 * row + 1};
            delivered += PERIOD + workOf(row, 0);
            Micros time = delivered;
            for (int32_t stage = 0; stage < 4 && row < frames; ++stage) {
                if (stage > 0) {
                    time = begin[{row, stage}] = std::max(time, free[static_cast<size_t>(stage)]);
                    time += workOf(row, stage);
                    free[static_cast<size_t>(stage)] = time;
                }
                tools::Pass& pass = scene.passes[4 * row + static_cast<uint32_t>(stage)];
                pass.left = {time, {0, 10 * row + 2 + static_cast<uint32_t>(stage)}};
                pass.seen = tools::NODE_END | tools::STAGE_START | tools::STAGE_END;
                if (stage == 3) {
                    frame.end = time;
                    frame.isEnded = true;
                }
            }
            scene.stop = scene.end = time + 5 * MILLISECOND;
        }
    }
};

TEST(Columns, WorkAndWaitAreThoseOfThePipeline) {
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        Draw draw{std::mt19937(seed)};
        const Pipeline made(200, [&draw](uint32_t, int32_t stage) {
            const Micros work = 1000 + draw(12'000);
            const bool isSlow = draw(50) == 0;
            return stage == 0 ? work / 10 : isSlow ? 10 * work : work;
        });
        const tools::Columns columns = tools::ColumnsOf(made.scene, 1.5);
        for (const auto& [pass, begin] : made.begin) {
            const auto [row, stage] = pass;
            if (row == 0 || columns.kept[stage] > 0) {
                continue;
            }
            const Micros came = made.scene.LeftOf(row, stage - 1);
            EXPECT_EQ(columns.begin[columns.PassOf(row, stage)], begin) << seed << ' ' << row;
            EXPECT_EQ(columns.WaitOf(made.scene, row, stage), begin - came);
            EXPECT_EQ(columns.WorkOf(made.scene, row, stage),
                      made.scene.LeftOf(row, stage) - begin);
        }
    }
}

// "101: 101@2+41": frame 101 came out late, as stage 2 took 41 ms longer for it.
std::string BlameOf(const Pipeline& made, const tools::Columns& columns) {
    std::string text;
    for (const tools::LateFrame& late : columns.late) {
        text += fmt::format("{}{}:", text.empty() ? "" : "; ", made.scene.frames[late.row].number);
        for (const tools::Blame& blame : late.blame) {
            text += fmt::format(" {}@{}+{}", made.scene.frames[blame.row].number, blame.stage,
                                (blame.excess + MILLISECOND / 2) / MILLISECOND);
        }
    }
    return text;
}

TEST(Columns, DelaysAreFollowedBackToAllPassesThatGaveSomething) {
    using Extra = std::map<std::pair<int64_t, int32_t>, Micros>;  // By number and stage, in ms.
    const std::vector<std::pair<Extra, std::string>> cases = {
        {{}, ""},
        {{{{100, 2}, 41}}, "100: 100@2+41"},
        {{{{100, 2}, 7}}, ""},
        // Of one frame, in the order of the walk; of two frames.
        {{{{100, 1}, 40}, {{100, 3}, 40}}, "100: 100@3+40 100@1+40"},
        {{{{100, 1}, 40}, {{140, 3}, 40}}, "100: 100@1+40; 140: 140@3+40"},
        // Frames that come in time behind a slow one are not late, however long they waited.
        {{{{100, 1}, 14}, {{101, 1}, 5}}, "100: 100@1+14"},
        // What is slow while others wait for it anyway delays nothing more.
        {{{{100, 3}, 200}, {{102, 1}, 60}}, "100: 100@3+200"},
        // It does when it takes longer than they wait.
        {{{{100, 3}, 60}, {{104, 1}, 150}}, "100: 100@3+60; 104: 104@1+150"},
        // A delay that came about over several frames.
        {{{{100, 2}, 20}, {{101, 2}, 20}, {{102, 2}, 20}},
         "100: 100@2+20; 101: 101@2+20; 102: 102@2+20"},
        // The sensor, and the sensor together with a stage.
        {{{{100, 0}, 180}}, "100: 100@0+180"},
        {{{{100, 0}, 30}, {{100, 2}, 30}}, "100: 100@2+30 100@0+30"},
        // Nothing came before the first frame that it could be late to.
        {{{{1, 2}, 400}}, ""},
    };
    static constexpr Micros WORK[] = {0, 9, 6, 11};
    for (const auto& [extra, expected] : cases) {
        const Pipeline made(300, [&extra = extra](uint32_t row, int32_t stage) {
            const auto found = extra.find({row + 1, stage});
            return (WORK[stage] + (found == extra.end() ? 0 : found->second)) * MILLISECOND;
        });
        EXPECT_EQ(BlameOf(made, tools::ColumnsOf(made.scene, 1.5)), expected);
    }
}

TEST(Finders, TheFirstFrameIsSlowByItself) {
    const Pipeline made(300, [](uint32_t row, int32_t stage) {
        return (stage == 0 ? 0 : row == 0 && stage == 2 ? 406 : 6) * MILLISECOND;
    });
    std::vector<tools::Cause> causes;
    tools::FindSlow(made.scene, tools::ColumnsOf(made.scene, 1.5), causes);
    ASSERT_EQ(causes.size(), 1);
    EXPECT_EQ(causes[0].what, tools::Case::SlowFirst);
    EXPECT_EQ(causes[0].stage, 2);
    EXPECT_EQ(causes[0].own, std::vector<int64_t>{1});
    EXPECT_EQ(causes[0].took, std::vector<Micros>{406 * MILLISECOND});
}

// What all causes are, and whom they harmed.
std::string TextOf(const tools::Scene& scene, const tools::Columns& columns,
                   const std::vector<tools::Cause>& causes) {
    std::string text;
    for (const tools::Cause& cause : causes) {
        text += fmt::format(
            "{} {} {} {}-{} {}:{} {}: {}: {}\n", tools::RowOf(tools::KindOf(cause.what)).name,
            static_cast<int>(tools::SeverityOf(cause)), cause.stage, cause.span.begin,
            cause.span.end, cause.at.place.input, cause.at.place.line, cause.at.time,
            tools::SentenceOf(scene, columns, cause), tools::NumbersText(cause.harmed));
    }
    return text;
}

// The scenes of a recording with faults drawn at random, of which some lines may be missing.
std::vector<tools::Scene> RandomScenes(uint32_t seed) {
    Draw draw{std::mt19937(seed)};
    tools::Camera camera = tools::BuiltinCamera();
    camera.frames = 300;
    camera.seed = seed;
    for (int64_t frame = 20 + draw(40); frame < 260; frame += 1 + draw(60)) {
        static constexpr const char* FAULTS[] = {
            "drop:{0}",       "lost:{0}:{1}",      "unreported:{0}:{1}", "slow:{0}:{1}:{2}",
            "stall:{0}:{2}",  "swap:{0}:{1}",      "log-lost:{0}:{2}",   "die:{0}:{1}",
            "freeze:{0}:{2}", "restart:{0}",       "recovered:{0}",      "clock:{0}:{2}",
            "clock:{0}:-{2}", "slow:{0}:{1}:1{2}", "drop:{0}-{3}",       "slow:{0}-{3}:{1}:{2}"};
        camera.faults.push_back(
            tools::ParseFault(fmt::format(fmt::runtime(FAULTS[draw(std::ssize(FAULTS))]), frame,
                                          draw(5), 30 + draw(900), frame + 1 + draw(20))));
    }
    std::ostringstream log;
    tools::Simulate(camera, log);
    tools::SceneReader scenes;
    tools::CaptureReader reader({&scenes});
    reader.Begin("made");
    const int64_t missing = seed % 3 == 0 ? 50 : 0;  // One line in so many.
    std::istringstream lines(log.str());
    for (std::string line; std::getline(lines, line);) {
        if (missing == 0 || draw(missing) != 0) {
            reader.Read(line + "\n");
        }
    }
    reader.End();
    reader.Finish();
    return scenes.Finish(reader.Summary().last).scenes;
}

TEST(Attribution, DependsOnNoOrderAndCountsEachBadFrameOnce) {
    tools::PreparePlatform({}, [](const std::string&) {});
    size_t bad = 0;
    for (uint32_t seed = 1; seed <= 60; ++seed) {
        for (const tools::Scene& scene : RandomScenes(seed)) {
            const tools::Columns columns = tools::ColumnsOf(scene, 1.5);
            std::mt19937 draw(seed);
            std::string first;
            for (int i = 0; i < 4 && scene.isStarted && !columns.isMixed; ++i) {
                std::vector<tools::Cause> causes;
                std::vector<tools::Finder*> finders(std::begin(tools::FINDERS),
                                                    std::end(tools::FINDERS));
                std::shuffle(finders.begin(), finders.end(), draw);
                for (tools::Finder* const find : finders) {
                    find(scene, columns, causes);
                }
                std::shuffle(causes.begin(), causes.end(), draw);
                tools::Attribute(scene, columns, causes);
                const std::string text = TextOf(scene, columns, causes);
                EXPECT_EQ(text, i == 0 ? text : first) << "seed " << seed;
                EXPECT_EQ(MiscountedFrames(scene, columns, causes), "") << "seed " << seed << text;
                first = i == 0 ? text : first;
                for (const tools::Cause& cause : causes) {
                    bad += cause.harmed.size();
                }
            }
        }
    }
    EXPECT_GT(bad, 1000U);
}

}  // namespace
