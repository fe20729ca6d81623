// Any HAL calls in any order: what the service is told keeps to the contract, and the frame table
// does not grow beyond its size.

#include <optional>
#include <set>
#include <sstream>

#include "tests/fuzz/require.h"
#include "tests/support/contract.h"
#include "tools/session/session.h"

namespace {

using desktop::ServiceFunction;

// Stage tables that differ in many ways.
std::vector<LocalConfig>& Configurations() {
    static std::vector<LocalConfig> configurations = [] {
        std::vector<LocalConfig> made(1);  // The sample.
        for (const char* stages :
             {"0=['X','1']", "0=['M','1']\n1=['MCTFE0','2']\n2=['','1']",
              "0=['S','1','3']\n1=['T','8']\n2=['V']\n3=[['cannot be read']]", ""}) {
            desktop::LoadConfiguration(std::string("[TarvoCameraFrameBoostConfig]\n"
                                                   "cameraFrameBoostEnable = true\n"
                                                   "SupportOperationModeList = [0x8001]\n"
                                                   "[TarvoCameraFrameBoostConfig.stage]\n") +
                                           stages,
                                       "fuzz");
            made.emplace_back();
        }
        // Log lines and counters are made, since that can fail too, but not looked at.
        desktop::SetLogToStderr(false);
        desktop::SetTraceTags(0x400);
        LocalConfig::enable = true;
        return made;
    }();
    return configurations;
}

class Player : private Contract {
  public:
    // The library uses the configuration as long as the player exists.
    explicit Player(LocalConfig& lent) : Contract(lent.GetStageCount()), configuration(lent) {
        std::swap(TarvoCameraFrameBoost::localConfig, configuration);
        TarvoCameraFrameBoost::persistTids.clear();
        TarvoCameraFrameBoost::tempTids.clear();
        LetServiceAnswer(0);
    }

    ~Player() override { std::swap(TarvoCameraFrameBoost::localConfig, configuration); }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    void Play(const tools::Call& call) {
        const std::string name(call.form->name);
        const bool wasStarted = isStarted;
        isHalReporting = name == "TcfbtNotifyErrorFrame";
        isStageEvent = name.find("NotifyStage") != std::string::npos;
        const std::optional<int32_t> result = call.form->call(boost, call.arguments);
        isHalReporting = false;
        SettleSceneEnd();
        if (name == "TcfbtSetVersion") {
            LetServiceAnswer(std::min(call.Get<int32_t>("version"), 0));
        }
        Require(violation.empty(), "after " + name + ": " + violation);
        if (isStageEvent || name == "TcfbtNotifyFrameStart" || name == "TcfbtNotifyFrameEnd") {
            Require(wasStarted ? *result == 0 || *result == 1 : *result == -1,
                    name + " = " + std::to_string(*result));
        }
        std::set<int32_t> candidates;
        for (const auto& [frame, events] : openFrames) {
            candidates.insert(frame);
        }
        for (const tools::Value& value : call.arguments) {
            if (const auto* frame = std::get_if<int64_t>(&value)) {
                const auto number = static_cast<uint32_t>(*frame);
                candidates.insert({static_cast<int32_t>(number), static_cast<int32_t>(number + 1)});
            }
        }
        if (isStarted) {
            LookIntoTable(candidates);
        }
    }

  private:
    static void LetServiceAnswer(int32_t status) {
        for (size_t function = 0; function < desktop::SERVICE_FUNCTION_COUNT; ++function) {
            desktop::SetServiceStatus(static_cast<ServiceFunction>(function), status);
        }
    }

    // Only the frames that the service may be told more about are tracked: a stage that does not
    // exist is reported for these only, and changes nothing.
    void LookIntoTable(const std::set<int32_t>& candidates) {
        isStageEvent = true;
        for (const int32_t frame : candidates) {
            const int64_t reports = Count(ServiceFunction::NotifyErrOfUser);
            boost.TcfbtNotifyStageStart(-2, frame, 0, 0, "");
            const bool isTracked = Count(ServiceFunction::NotifyErrOfUser) != reports;
            if (frame == -1 && !isTracked) {
                // In reports -1 means no frame, so this frame may have been dropped without one.
                openFrames.erase(frame);
            }
            Require(violation.empty() && isTracked == openFrames.contains(frame),
                    "frame " + std::to_string(frame) + ": " + violation);
        }
        Require(openFrames.size() <= FrameTracker::DEFAULT_MAX_FRAME_TRACKED, "too many frames");
    }

    LocalConfig& configuration;
    TarvoCameraFrameBoost boost;
};

}  // namespace

// The input is a session file; lines that are not calls are skipped. Its first byte picks the
// configuration; a negative version sets the status that the service returns.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& configurations = Configurations();
    Player player(configurations[size == 0 ? 0 : *data % configurations.size()]);
    std::istringstream session(std::string(data, data + size));
    for (std::string text; std::getline(session, text);) {
        try {
            const tools::Line line = tools::ParseLine(text);
            if (const auto* call = std::get_if<tools::Call>(&line)) {
                player.Play(*call);
            }
        } catch (const tools::LineError&) {
            continue;
        }
    }
    return 0;
}
