// From steps to what happened, and what is said of it: held against cameras whose faults are known.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>

#include "tools/account/accountant.h"
#include "tools/capture/capture.h"
#include "tools/capture/record.h"
#include "tools/check/check.h"
#include "tools/output/json.h"
#include "tools/output/text.h"
#include "tools/play/replay.h"
#include "tools/simulate/camera.h"
#include "tools/simulate/simulate.h"

namespace tools {
namespace {

// Every form that has times, and the modifiers that change them.
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

// What is to be found of a fault, as "check stage".
std::string Expected(const Fault& fault, const Camera& camera) {
    const std::string stage = " " + std::to_string(fault.stage);
    switch (fault.kind) {
        case FaultKind::Drop:
            return "frame-lost 0";
        case FaultKind::Lost:
            return "frame-lost" + stage;
        case FaultKind::Unreported:
            // Nobody can tell that it did leave the last one.
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

// All outputs tell of the same frames, and each frame has one status.
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

TEST(AccountTest, FindsEachFaultAtItsFrameAndNoOther) {
    for (uint64_t seed = 1; seed <= 250; ++seed) {
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
        // Frames far from all faults are blameless, but for those in flight at the end.
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

}  // namespace
}  // namespace tools
