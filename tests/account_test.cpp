// The account of steps and its findings, compared with the known faults of random cameras.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/random_camera.h"
#include "tools/account/accountant.h"
#include "tools/log/capture.h"
#include "tools/log/record.h"
#include "tools/check/check.h"
#include "tools/output/json.h"
#include "tools/output/text.h"
#include "tools/play/player.h"
#include "tools/play/replay.h"
#include "tools/session/session.h"
#include "tools/play/camera.h"
#include "tools/play/simulate.h"

namespace tools {
namespace {

// Every form of the log that has times, with the modifiers that change them.
constexpr const char* FORMS[] = {"threadtime",
                                 "time",
                                 "long",
                                 "threadtime,year,usec",
                                 "long,uid,UTC",
                                 "time,epoch",
                                 "threadtime,uid,zone",
                                 "long,monotonic,nsec",
                                 "threadtime,color,printable"};

std::string Capture(const Camera& camera, const char* form = FORMS[0]) {
    const NamedText configuration{"camera", ToToml(ConfigurationOf(camera))};
    EXPECT_TRUE(PreparePlatform(configuration, [](const Finding&) {}));
    std::ostringstream capture;
    SimulateOptions options;
    options.format = *FormatOf(form);
    Simulate(camera, capture, options);
    return capture.str();
}

Account Explain(const std::string& capture, AccountOptions options = {}) {
    Accountant accountant(std::move(options));
    CaptureReader reader(accountant);
    reader.Begin(0);
    reader.Read(capture);
    reader.End();
    reader.Finish();
    Account account = accountant.Finish();
    account.inputs = {"capture"};
    return account;
}

std::string TextOf(const Account& account) {
    std::ostringstream text;
    WriteText(text, account, {});
    return text.str();
}

// The finding that a fault has to lead to, as "check stage".
std::string Expected(const Fault& fault, const Camera& camera) {
    const std::string stage = " " + std::to_string(fault.stage);
    switch (fault.kind) {
        case FaultKind::Drop:
            return "frame-lost 0";
        case FaultKind::Lost:
            return "frame-lost" + stage;
        case FaultKind::Unreported:
            // After the last stage nothing shows that the frame left it.
            return (fault.stage + 1 == static_cast<int32_t>(camera.Stages().size())
                        ? "frame-lost"
                        : "stage-unreported") +
                   stage;
        case FaultKind::Slow:
            return "slow-stage" + stage;
        case FaultKind::Stall:
            return "sensor-stall 0";
        case FaultKind::Swap:
            return "stage-order" + stage;
        case FaultKind::SecondPort:
            return "second-port" + stage;
        case FaultKind::LogLost:
            return "lines-lost -1";
    }
    return "";
}

// All outputs have the same frames, and each frame has one status.
void ExpectOutputsAgree(const Account& account) {
    std::ostringstream jsonText, csv;
    WriteJson(jsonText, account);
    WriteCsv(csv, account);
    const auto json = nlohmann::json::parse(jsonText.str());
    ASSERT_EQ(json["scenes"].size(), account.scenes.size());
    const std::string table = csv.str();
    size_t frames = 0;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const Scene& scene = account.scenes[i];
        frames += scene.frames.size();
        int64_t counted = 0;
        for (const auto& [status, count] : json["scenes"][i]["frames"].items()) {
            counted += count.get<int64_t>();
            const std::string cell = "," + status + ",\"";
            int64_t rows = 0;
            for (size_t at = table.find(cell); at != std::string::npos;
                 at = table.find(cell, at + 1)) {
                ++rows;
            }
            if (account.scenes.size() == 1) {
                EXPECT_EQ(rows, count.get<int64_t>()) << status;
            }
        }
        EXPECT_EQ(counted, static_cast<int64_t>(scene.frames.size()));
        EXPECT_EQ(json["scenes"][i]["findings"].size(), scene.findings.size());
    }
    EXPECT_EQ(static_cast<size_t>(std::count(table.begin(), table.end(), '\n')), frames + 1);
}

// The account of a session, played with the sample configuration.
Account Play(const std::string& session) {
    EXPECT_TRUE(PreparePlatform(std::nullopt, [](const Finding&) {}));
    Accountant accountant;
    Player player([&accountant](const Step& step, auto) { accountant.OnStep(step); }, {});
    std::istringstream lines("TcfbtSetVersion 2\n" + session);
    uint32_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        player.Play(ParseLine(line), ++number);
    }
    Account account = accountant.Finish();
    account.inputs = {"session"};
    return account;
}

// "check frame" of each finding that is no note, in order.
std::vector<std::string> FindingsOf(const Account& account) {
    std::vector<std::string> found;
    const auto add = [&found](const std::vector<AccountedFinding>& findings) {
        for (const AccountedFinding& finding : findings) {
            if (finding.severity > Severity::Note) {
                found.push_back(finding.check +
                                (finding.frame ? " " + std::to_string(*finding.frame) : ""));
            }
        }
    };
    add(account.findings);
    for (const Scene& scene : account.scenes) {
        add(scene.findings);
    }
    return found;
}

std::string Repeat(int64_t first, int64_t last, const std::string& line) {
    std::string text;
    for (int64_t number = first; number <= last; ++number) {
        std::string copy = line;
        for (size_t at = copy.find('#'); at != std::string::npos; at = copy.find('#')) {
            copy.replace(at, 1, std::to_string(number));
        }
        text += copy + "\n";
    }
    return text;
}

TEST(AccountTest, FindsEachFaultAtItsFrameAndNoOther) {
    for (uint64_t seed = 1; seed <= 200; ++seed) {
        Camera camera = RandomCamera(seed);
        const char* form = FORMS[seed % std::size(FORMS)];
        Account account = Explain(Capture(camera, form));
        SCOPED_TRACE("seed " + std::to_string(seed) + ", " + form + "\n" + TextOf(account));
        ASSERT_EQ(account.scenes.size(), 1U);
        const Scene& scene = account.scenes[0];
        EXPECT_TRUE(account.findings.empty());

        std::multiset<std::string> truth, found;
        for (const Fault& fault : camera.faults) {
            truth.insert(std::to_string(fault.frame) + " " + Expected(fault, camera));
        }
        for (const AccountedFinding& finding : scene.findings) {
            if (finding.severity > Severity::Note) {
                ASSERT_TRUE(finding.frame) << finding.message;
                EXPECT_NE(finding.place.line, 0U) << finding.message;
                found.insert(std::to_string(*finding.frame) + " " + finding.check + " " +
                             std::to_string(finding.stage));
            }
        }
        EXPECT_EQ(found, truth);
        // Frames far from all faults have no findings and are complete, except those in flight at
        // the end.
        for (const Frame& frame : scene.frames) {
            const bool isNear = std::any_of(
                camera.faults.begin(), camera.faults.end(), [&frame](const Fault& fault) {
                    return frame.number > fault.frame - 8 && frame.number < fault.frame + 20;
                });
            if (!isNear) {
                EXPECT_FALSE(frame.hasFinding || frame.isLate) << frame.number;
                EXPECT_TRUE(frame.status == FrameStatus::Complete || frame.number >= camera.frames)
                    << frame.number;
            }
        }
        ExpectOutputsAgree(account);

        camera.faults.clear();
        account = Explain(Capture(camera, form));
        EXPECT_EQ(WorstOf(account), Severity::Note) << TextOf(account);
        EXPECT_EQ(account.scenes.at(0).notBoosted + account.scenes[0].lateFrames, 0);
    }
}

// Mistakes of a HAL or its configuration, and what is found of each.
TEST(AccountTest, FindsWhatAHalDoesWrong) {
    const std::string start = "TcfbtSetSceneInfo true 3840 60\nTcfbtNotifySceneStart 0x8001\n";
    const std::string through =
        "TcfbtNotifyNodeEnd # SensorFrontEnd0 3 0 true\nTcfbtNotifyNodeEnd # MCTFE0_cam0 1 0 true\n"
        "TcfbtNotifyNodeEnd # TONE 8 0 true\nTcfbtNotifyNodeEnd # VideoStabilizer0 0 0 true\n"
        "TcfbtNotifyNodeEnd # EncoderFeed0 10 0 true\nWait 17";
    std::string wrongCase = through, goodCase = through, twoCameras = through;
    wrongCase.replace(wrongCase.find("TONE"), 4, "tonemapper");
    goodCase.replace(goodCase.find("TONE"), 4, "ToneMapper");
    twoCameras.replace(twoCameras.find("TONE"), 4, "ToneMapper");
    twoCameras += "\nTcfbtNotifyNodeEnd # ToneMapper 8 2 true";
    std::string otherCamera = goodCase;
    for (size_t at = 0; (at = otherCamera.find("0 true", at)) != std::string::npos; ++at) {
        otherCamera.replace(at, 1, "2");
    }
    const struct {
        std::string session;
        std::vector<std::string> findings;
        std::string words;
    } cases[] = {
        {start + "PlayRecording 100\nTcfbtNotifySceneEnd", {}, "All is well"},
        {start + Repeat(0, 20, goodCase), {}, "All is well"},
        {"TcfbtSetSceneInfo true 3840 30\nTcfbtNotifySceneStart 0x8001",
         {"scene-refused"},
         "at 30 fps; only 60 fps"},
        {"TcfbtSetSceneInfo true 1920 60", {"scene-refused"}, "only width 3840 is boosted"},
        {"TcfbtNotifySceneStart 0x8001", {"scene-refused"}, "not described"},
        {"ServiceStatus cfbtSceneStart 5\n" + start, {"scene-refused"}, "service refused"},
        {"TcfbtSetSceneInfo true 3840 60\nTcfbtNotifySceneStart 9\nTcfbtNotifySceneStart 9",
         {"disabled"},
         "not in SupportOperationModeList"},
        {start + Repeat(1, 3, "TcfbtNotifyFrameStart #") + "TcfbtNotifyFrameStart 7",
         {"frame-gap 7"},
         "4 to 6 never started"},
        {start + Repeat(1, 3, "TcfbtNotifyFrameStart #") + "TcfbtNotifyFrameStart 2",
         {"duplicate-frame 2"},
         "again while it was in flight"},
        {start + Repeat(1, 17, "TcfbtNotifyFrameStart #"), {"evicted 1"}, "too many frames"},
        {start + Repeat(0, 20, wrongCase),
         {"stage-never-hit 1", "node-ignored"},
         "expects \"ToneMapper\", which differs in case"},
        {start + Repeat(0, 20, twoCameras), {"two-cameras 1"}, "two cameras"},
        {start + Repeat(0, 20, goodCase + "\n" + otherCamera),
         {"two-cameras 1", "late 2"},
         "two cameras"},
        {start + "PlayRecording 5\nTcfbtNotifyErrorFrame 6 0", {"frame-reported 6"}, "by the HAL"},
        {start + Repeat(0, 5, goodCase) + "TcfbtNotifyErrorFrame 6 0\n" + Repeat(7, 15, goodCase),
         {"frame-lost 6"},
         "therefore 7 was not in flight and 8 came after a gap and was refused: 3 frames not "
         "boosted"},
        // A drop that the HAL handles costs no other frame.
        {start + Repeat(0, 5, goodCase) +
             "TcfbtNotifyErrorFrame 6 0\nTcfbtNotifyFrameStart 7\n"
             "TcfbtNotifyStageStart 0 7 0 20 SensorFrontEnd0\nTcfbtNotifyFrameEnd 6\nWait 17\n" +
             Repeat(7, 15, goodCase),
         {"frame-lost 6"},
         "frame 6 never left stage 0 (SensorFrontEnd), as the HAL reported: 1 frame not boosted; 7 "
         "came out late"},
        // The library's keys have 32 bits: after the highest comes the lowest.
        {start + Repeat(2147483640, 2147483660, goodCase), {"frame-gap 2147483649"}, "32 bits"},
        {start + Repeat(0, 50, "TcfbtNotifyNodeEnd # SensorFrontEnd0 3 0 true") +
             "TcfbtNotifySceneEnd",
         {"stage-never-hit 1"},
         "no frame ever left stage 1 (MCTFE0_cam)"},
    };
    for (const auto& [session, findings, words] : cases) {
        const Account account = Play(session);
        const std::string text = TextOf(account);
        EXPECT_EQ(FindingsOf(account), findings) << text;
        EXPECT_NE(text.find(words), std::string::npos) << "no \"" << words << "\" in\n" << text;
        ExpectOutputsAgree(account);
    }

    // Many findings of a kind become one; late frames after a slow stage belong to its finding.
    std::string slow;
    for (int64_t frame = 0; frame < 400; ++frame) {
        slow += Repeat(frame, frame, goodCase) + (frame % 40 == 39 ? "Wait 30\n" : "");
    }
    const Account account = Play(start + slow);
    ASSERT_EQ(account.scenes.at(0).findings.size(), 1U) << TextOf(account);
    EXPECT_EQ(account.scenes[0].findings[0].times, 9);
}

// Captures as they come from devices.
TEST(AccountTest, ExplainsCapturesThatAreNotComplete) {
    Camera camera = BuiltinCamera();
    camera.frames = 300;
    const std::string capture = Capture(camera);
    const auto lineAt = [&capture](size_t at) { return capture.find('\n', at) + 1; };

    // Without its beginning or its end.
    Account account = Explain(capture.substr(capture.size() / 3, capture.size() / 3));
    EXPECT_EQ(FindingsOf(account), std::vector<std::string>{}) << TextOf(account);
    EXPECT_TRUE(account.scenes.at(0).isBeginningMissing);
    EXPECT_GT(account.scenes[0].CountOf(FrameStatus::Complete), 90);

    // Lines that Android's log left out, with a line that says so.
    const size_t hole = lineAt(capture.size() / 2);
    account = Explain(capture.substr(0, hole) +
                      "01-01 12:00:02.700  1000  1000 I chatty  : uid=1047(cameraserver) Thread "
                      "expire 60 lines\n" +
                      capture.substr(lineAt(hole + 10'800)));
    ASSERT_EQ(FindingsOf(account).size(), 1U) << TextOf(account);
    EXPECT_EQ(account.scenes.at(0).findings[0].check, "lines-lost") << TextOf(account);
    EXPECT_EQ(account.scenes[0].notBoosted, 0) << TextOf(account);
    EXPECT_GT(account.scenes[0].untold, 0) << TextOf(account);
    EXPECT_EQ(TextOf(account).find("not seen to leave"), std::string::npos) << TextOf(account);
    EXPECT_NE(VerdictOf(account).find("cannot be told"), std::string::npos);

    // The clock is set: no frame is late because of that.
    std::string set = capture.substr(hole);
    for (size_t at = 0; (at = set.find("01-01 12:", at)) != std::string::npos; ++at) {
        set.replace(at, 9, "01-01 17:");
    }
    account = Explain(capture.substr(0, hole) + set);
    EXPECT_EQ(FindingsOf(account), std::vector<std::string>{"clock-jump"}) << TextOf(account);

    // Two processes, told apart.
    std::istringstream one(capture), other(capture);
    std::string both, line;
    while (std::getline(one, line)) {
        both += line + "\n";
        std::getline(other, line);
        both += line.replace(19, 5, " 2000") + "\n";
    }
    account = Explain(both);
    EXPECT_EQ(FindingsOf(account), std::vector<std::string>{}) << TextOf(account);
    ASSERT_EQ(account.scenes.size(), 2U);
    EXPECT_EQ(account.scenes[0].statusCounts, account.scenes[1].statusCounts);
    ASSERT_EQ(account.findings.size(), 1U);
    EXPECT_EQ(account.findings[0].check, "two-cameras");
    ExpectOutputsAgree(account);

    // Without frames in memory, statuses and findings are the same.
    camera.faults = {ParseFault("lost:100:2"), ParseFault("slow:200:1:60")};
    const std::string faulty = Capture(camera);
    std::vector<std::string> told;
    AccountOptions options;
    options.keepsFrames = false;
    options.onFinding = [&told](const Scene&, const AccountedFinding& finding) {
        told.push_back(finding.message);
    };
    const Account flat = Explain(faulty, options);
    account = Explain(faulty);
    EXPECT_TRUE(flat.scenes.at(0).frames.empty());
    EXPECT_EQ(flat.scenes[0].statusCounts, account.scenes.at(0).statusCounts);
    for (const AccountedFinding& finding : account.scenes[0].findings) {
        EXPECT_EQ(std::count(told.begin(), told.end(), finding.message), 1) << finding.message;
    }
}

}  // namespace
}  // namespace tools
