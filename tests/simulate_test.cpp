// The virtual camera and the forms in which it writes a log.

#include "tools/play/simulate.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/random_camera.h"
#include "tools/log/record.h"
#include "tools/log/record_reader.h"
#include "tools/check/check.h"
#include "tools/play/replay.h"
#include "tools/play/camera.h"

namespace {

TEST(RecordTest, IsWrittenInEveryFormOfLogcat) {
    const tools::Record record{1'700'000'000'012'345,   321, 4321, 'D', "camera",
                               "first\\ 1\nsecond \x01"};
    const struct {
        const char* format;
        std::string text;
    } cases[] = {
        {"brief", "D/camera  (  321): first\\ 1\nD/camera  (  321): second \x01\n"},
        {"process", "D(  321) first\\ 1  (camera)\nD(  321) second \x01  (camera)\n"},
        {"tag,printable", "D/camera  : first\\\\ 1\nD/camera  : second \\1\n"},
        {"thread,uid", "D( 1047:  321: 4321) first\\ 1\nD( 1047:  321: 4321) second \x01\n"},
        {"raw", "first\\ 1\nsecond \x01\n"},
        {"time",
         "11-14 22:13:20.012 D/camera  (  321): first\\ 1\n"
         "11-14 22:13:20.012 D/camera  (  321): second \x01\n"},
        {"threadtime,uid,year,usec,zone",
         "2023-11-14 22:13:20.012345 +0000  1047   321  4321 D camera  : first\\ 1\n"
         "2023-11-14 22:13:20.012345 +0000  1047   321  4321 D camera  : second \x01\n"},
        {"epoch,nsec,color",
         "\x1B[38;5;75m         1700000000.012345000   321  4321 D camera  : first\\ 1\x1B[0m\n"
         "\x1B[38;5;75m         1700000000.012345000   321  4321 D camera  : second \x01\x1B[0m\n"},
        {"long,uid,UTC",
         "[ 11-14 22:13:20.012 +0000  1047:  321: 4321 D/camera   ]\n"
         "first\\ 1\nsecond \x01\n\n"},
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

    for (const char* name : {"", "brief,", "brief,long", "Brief", "years"}) {
        EXPECT_FALSE(tools::FormatOf(name)) << name;
    }
}

// Keeps the records that a reader finds, with their texts.
class FoundRecords : public tools::RecordSink {
  public:
    void OnRecord(const tools::Record& record, const tools::Place& /*place*/) override {
        records.push_back(record);
        records.back().tag = texts.emplace_back(record.tag);
        records.back().message = texts.emplace_back(record.message);
    }
    void OnLeftOut(int64_t /*lines*/, int32_t /*process*/, std::optional<int64_t> /*time*/,
                   const tools::Place& /*place*/) override {
        ADD_FAILURE();
    }
    void OnFragment(std::string_view line, const tools::Place& /*place*/) override {
        ADD_FAILURE() << line;
    }

    std::vector<tools::Record> records;
    std::deque<std::string> texts;
};

TEST(RecordTest, IsReadBackFromEveryFormOfLogcat) {
    constexpr std::array<const char*, 9> modifiers = {
        "", ",year", ",zone", ",epoch", ",monotonic", ",usec", ",nsec", ",uid", ",color"};
    for (const std::string form :
         {"brief", "process", "tag", "thread", "raw", "time", "threadtime", "long"}) {
        // Any two modifiers.
        for (size_t i = 0; i < modifiers.size() * modifiers.size(); ++i) {
            const std::string name =
                form + modifiers[i / modifiers.size()] + modifiers[i % modifiers.size()];
            SCOPED_TRACE(name);
            const tools::Format format = *tools::FormatOf(name);
            const bool hasTimes = form == "time" || form == "threadtime" || form == "long";
            const bool hasThreads = form == "thread" || form == "threadtime" || form == "long";
            const bool hasProcess = form != "tag" && form != "raw";
            std::string text;
            for (int64_t time : {1'700'000'000'012'345, 1'700'000'001'999'999}) {
                AppendRecord(text, format,
                             {time, 321, 123456, 'D', "cameraframeboost",
                              "tarvocameraframeboost.cpp 113:TcfbtNotifySceneEnd()"});
            }
            FoundRecords found;
            tools::RecordReader reader(found);
            reader.Begin(0);
            reader.Read(text);
            reader.End();
            ASSERT_EQ(found.records.size(), 2U) << text;
            for (const tools::Record& record : found.records) {
                EXPECT_EQ(record.time.has_value(), hasTimes);
                EXPECT_EQ(record.process, hasProcess ? 321 : -1);
                EXPECT_EQ(record.thread, hasThreads ? 123456 : -1);
                EXPECT_EQ(record.tag, form == "thread" || form == "raw" ? "" : "cameraframeboost");
                EXPECT_EQ(record.message, "tarvocameraframeboost.cpp 113:TcfbtNotifySceneEnd()");
            }
            if (hasTimes) {
                EXPECT_EQ(*found.records[1].time - *found.records[0].time,
                          format.digits == 3 ? 1'987'000 : 1'987'654);
            }
        }
    }
}

// A camera's capture, with the platform set up for it.
std::string Capture(const tools::Camera& camera, const char* form = "threadtime",
                    std::ostream* session = nullptr) {
    const tools::NamedText configuration{"camera", ToToml(ConfigurationOf(camera))};
    EXPECT_TRUE(tools::PreparePlatform(configuration, [](const tools::Finding&) {}));
    std::ostringstream capture;
    tools::SimulateOptions options;
    options.format = *tools::FormatOf(form);
    options.session = session;
    const tools::Simulated simulated = Simulate(camera, capture, options);
    EXPECT_EQ(simulated.frames, camera.frames);
    return capture.str();
}

tools::Camera WithFault(tools::Camera camera, const std::string& fault) {
    camera.faults = {tools::ParseFault(fault)};
    return camera;
}

// The frames whose end was forwarded, as a capture shows it, and those that left the last stage
// more than 1.5 periods after the one before.
struct Shown {
    std::set<int64_t> ended;
    std::set<int64_t> late;
};

Shown ShownBy(const tools::Camera& camera) {
    const std::string frameEnd = "TcfbtNotifyFrameEnd() halFrameNumber = ";
    const std::string nodeEnd = "TcfbtNotifyNodeEnd() halFrameNumber = ";
    const std::string lastNode = "nodeName = " + camera.Stages().back().name + ",";
    Shown shown;
    double before = 0;
    std::istringstream capture(Capture(camera, "epoch,usec"));
    for (std::string line; std::getline(capture, line);) {
        if (const size_t at = line.find(frameEnd); at != std::string::npos) {
            shown.ended.insert(std::stoll(line.substr(at + frameEnd.size())));
        } else if (line.find(lastNode) != std::string::npos &&
                   line.find(nodeEnd) != std::string::npos) {
            const double time = std::stod(line);
            if (before != 0 && time - before > 1.5 / camera.fps) {
                shown.late.insert(std::stoll(line.substr(line.find(nodeEnd) + nodeEnd.size())));
            }
            before = time;
        }
    }
    return shown;
}

// All frames from 1 to the last, without the missing ones.
std::set<int64_t> AllBut(const tools::Camera& camera, const std::set<int64_t>& missing) {
    std::set<int64_t> frames;
    for (int64_t frame = 1; frame < camera.frames; ++frame) {
        if (!missing.contains(frame)) {
            frames.insert(frame);
        }
    }
    return frames;
}

TEST(SimulateTest, CamerasWithoutFaultsHaveNoLostOrLateFrames) {
    for (uint64_t seed = 0; seed <= 20; ++seed) {
        tools::Camera camera = seed == 0 ? tools::BuiltinCamera() : RandomCamera(seed);
        camera.faults.clear();
        const Shown shown = ShownBy(camera);
        EXPECT_EQ(shown.ended, AllBut(camera, {})) << seed;
        EXPECT_EQ(shown.late, std::set<int64_t>()) << seed;
    }
}

TEST(SimulateTest, EachFaultCostsTheSameFramesAsOnADevice) {
    const struct {
        const char* fault;
        std::set<int64_t> notBoosted;
        std::set<int64_t> late;
    } cases[] = {
        // A frame that never leaves stage 0 leaves a gap: the next frame is not started, and the
        // one after it is out of sequence.
        {"drop:50", {50, 51, 52}, {51}},
        {"lost:50:0", {50, 51, 52}, {51}},
        {"unreported:50:0", {50, 51, 52}, {}},
        {"swap:50:0", {51, 52}, {51}},
        {"second-port:50:0", {50, 51}, {}},
        {"lost:50:2", {50}, {51}},
        {"unreported:50:2", {50}, {}},
        {"second-port:50:1", {50}, {}},
        {"unreported:50:4", {50}, {51}},
        // Frames are late only. The order is checked within a frame, not between frames.
        {"swap:50:3", {}, {51}},
        {"slow:50:2:40", {}, {50}},
        {"stall:50:40", {}, {50}},
    };
    tools::Camera camera = tools::BuiltinCamera();
    camera.frames = 100;
    for (const auto& [fault, notBoosted, late] : cases) {
        const Shown shown = ShownBy(WithFault(camera, fault));
        EXPECT_EQ(shown.ended, AllBut(camera, notBoosted)) << fault;
        EXPECT_EQ(shown.late, late) << fault;
    }

    // Lines are missing in the capture, but the library did write them.
    const std::string whole = Capture(camera);
    std::string cut = whole;
    size_t at = whole.rfind('\n', whole.find("NodeEnd() halFrameNumber = 50,")) + 1;
    for (int line = 0; line < 30; ++line) {
        cut.erase(at, cut.find('\n', at) + 1 - at);
    }
    EXPECT_EQ(Capture(WithFault(camera, "log-lost:50:30")), cut);

    // A pipeline that is too slow: the sensor drops frames that it has no buffer for.
    camera.nodes.front().median = 25'000;
    EXPECT_LT(ShownBy(camera).ended.size(), 80U);
}

// A capture without thread ids, which a session does not have.
std::string WithoutThreads(const std::string& capture) {
    std::istringstream lines(capture);
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        text += line.erase(std::string("01-01 12:00:00.000  1000 ").size(), 6) + '\n';
    }
    return text;
}

// Ten random cameras have faults of every kind.
TEST(SimulateTest, ItsSessionReplaysToTheSameCapture) {
    std::set<tools::FaultKind> kinds;
    for (uint64_t seed = 1; seed <= 10; ++seed) {
        tools::Camera camera = RandomCamera(seed);
        std::stringstream session;
        Capture(camera, "threadtime", &session);
        for (const tools::Fault& fault : camera.faults) {
            kinds.insert(fault.kind);
        }
        // The replay writes the lines that the capture lacks.
        std::erase_if(camera.faults, [](const tools::Fault& fault) {
            return fault.kind == tools::FaultKind::LogLost;
        });
        const std::string expected = Capture(camera);

        tools::ReplayOptions options;
        options.configuration = {"camera", ToToml(ConfigurationOf(camera))};
        std::ostringstream log;
        options.log = &log;
        std::ostringstream transcript;
        std::ostringstream errors;
        ASSERT_TRUE(Replay(options, session, "session", transcript, errors)) << errors.str();
        EXPECT_EQ(WithoutThreads(log.str()), WithoutThreads(expected)) << seed;
    }
    EXPECT_EQ(kinds.size(), tools::FAULT_KINDS);
}

TEST(SimulateTest, TheSameSeedGivesTheSameCapture) {
    const tools::Camera camera = RandomCamera(7);
    EXPECT_EQ(Capture(camera), Capture(camera));
    tools::Camera other = camera;
    other.seed = 8;
    EXPECT_NE(Capture(camera), Capture(other));
    // The same with every compiler and standard library.
    EXPECT_EQ(ToString(camera.faults.front()), "second-port:41:2");
}

TEST(SimulateTest, ReportsErrorsInACameraWithTheirPlace) {
    const std::string node = "[[node]]\nname='A'\nports=[1]\nmedian=2\nspread=1\n";
    EXPECT_EQ(tools::ParseCamera(node, "c").nodes.front().median, 2000);
    const struct {
        std::string toml;
        std::string message;
    } cases[] = {
        {"fps = 60\nfps = 30\n", "c:2:7: error: "},
        {node + "widht = 1\n", "c:6:1: error: \"widht\" is not a key here"},
        {"fps = 0\n" + node, "c:1:7: error: fps: expected a whole number from 1 to 1000"},
        {"faults = ['drop:5', 'drip:5']\n" + node, "c:1:21: error: \"drip:5\" is not a fault"},
        {"[[node]]\nname='A'\n", "c:1:1: error: ports: expected a list of ports"},
        {"fps = 60\n", "c:1:1: error: node: expected a table"},
        {"[[node]]\nbranch=true\n" + node.substr(9), "c:1:1: error: node: expected a table"},
    };
    for (const auto& [toml, message] : cases) {
        try {
            tools::ParseCamera(toml, "c");
            ADD_FAILURE() << toml;
        } catch (const tools::CameraError& error) {
            EXPECT_EQ(std::string(error.what()).substr(0, message.size()), message);
        }
    }
    const tools::Camera camera = tools::BuiltinCamera();
    for (const char* fault :
         {"", "drop", "drop:", "drop:0", "drop:1:2", "drop:x", "lost:5", "slow:5:1", "slow:5:1:-3",
          "stall:5:1 ", "drop:600", "swap:599:1", "lost:5:5", "second-port:5:2"}) {
        EXPECT_THROW(CheckFaults(WithFault(camera, fault)), tools::CameraError) << fault;
    }
}

}  // namespace
