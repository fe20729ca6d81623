// The configuration: how it is loaded, what happens when the store fails, and what queries return.

#include <limits>
#include <set>
#include <sstream>
#include <utility>

#include "tests/support/expect_abort.h"
#include "tests/support/library_test.h"

namespace {

const std::string SECTION = "[TarvoCameraFrameBoostConfig]\n";

// What has been loaded, in one line; looks only at the modes and stages that these tests use:
// "on 4096 [5 9] 3 stages: (0 Sensor 1 2)(1 Filter 3)(2 Encoder 4)".
std::string Describe(LocalConfig& config) {
    std::ostringstream text;
    text << (config.GetFrameboostSwitch() ? "on " : "off ") << config.GetAdditionalSupportedWidth()
         << " [";
    const char* separator = "";
    for (const int32_t mode : {-1, 0, 1, 5, 9}) {
        if (config.IsModeSupported(mode)) {
            text << std::exchange(separator, " ") << mode;
        }
    }
    text << "] " << config.GetStageCount() << " stages: ";
    for (int32_t stage = -1; stage < 10; ++stage) {
        NodePortInfo info{"before", {77}};
        if (config.GetNodePortByStage(stage, info)) {
            text << '(' << stage << ' ' << info.nodeName;
            for (const int32_t port : std::set(info.nodePorts.begin(), info.nodePorts.end())) {
                text << ' ' << port;
            }
            text << ')';
        } else {
            EXPECT_EQ(info.nodeName, "before");
        }
    }
    return text.str();
}

// What queries return for a node: "4: 2 3" for stage 4 and ports 2 and 3.
std::string Answers(const LocalConfig& config, const std::string& node) {
    const int32_t stage = config.GetStageByNodeName(node);
    EXPECT_EQ(config.IsNodeNameMatch(node), stage != -1);
    std::string answers = std::to_string(stage) + ":";
    for (int32_t port = 0; port < 10; ++port) {
        answers += config.IsStagePortVaild(node, port) ? " " + std::to_string(port) : "";
    }
    return answers;
}

class ConfigurationTest : public LibraryTest {
  protected:
    static LocalConfig Load(const std::string& toml) {
        EXPECT_FALSE(desktop::LoadConfiguration(toml, "test.toml"));
        return LocalConfig();
    }
};

TEST_F(ConfigurationTest, LoadsEachKeyAndUsesDefaultsForTheOthers) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "off 0 [] 0 stages: "},
        {"additionalSupportedWidth = -4", "off -4 [] 0 stages: "},
        {"cameraFrameBoostEnable = true", "on 0 [] 0 stages: "},
        {"SupportOperationModeList = [9]", "off 0 [9] 0 stages: "},
        {"SupportOperationModeList = [5, 9, 5, 4294967295]", "off 0 [-1 5 9] 0 stages: "},
        {"stage = {0=['N'],1=['', 1, 1]}", "off 0 [] 2 stages: (0 N)(1  1)"},
        {"stage = {0=['N'],1=[],2=['N']}", "off 0 [] 3 stages: (0 N)(2 N)"},
        {"stage = {0=['N'],2=['N']}", "off 0 [] 2 stages: (0 N)"},
        {"stage = {0=['N'],1=['N',['no text']],2=['N']}", "off 0 [] 3 stages: (0 N)"},
        {"stage = {0=['N',' 7','7x','-1','+4','0x10','12abc','2147483647','-2147483648']}",
         "off 0 [] 1 stages: (0 N -2147483648 -1 0 4 7 12 2147483647)"},
    };
    for (const auto& [entry, loaded] : cases) {
        LocalConfig config = Load(SECTION + entry);
        EXPECT_EQ(Describe(config), loaded) << entry;
    }
    EXPECT_EQ(LocalConfig().GetNodePort(), "");
    EXPECT_FALSE(LocalConfig().IsLogEnable());
}

// Changes the answer of one call of the store at a time.
TEST_F(ConfigurationTest, LoadsWhatItCanWhenTheStoreFails) {
    constexpr int32_t LOWEST = std::numeric_limits<int32_t>::min();
    const std::string on = "on 4096 ";
    const std::string all = "(0 Sensor 1 2)(1 Filter 3)(2 Encoder 4)";
    struct {
        int call;  // Which call, counted from 0.
        std::vector<int32_t> answers;
        std::string loaded;
    } const cases[] = {
        {0, {-1, 1}, on + "[5 9] 3 stages: " + all},  // The width's status is ignored.
        {1, {-1, 1}, on + "[5 9] 3 stages: " + all},  // So is the switch's.
        {2, {0}, on + "[5 9] 0 stages: "},
        {2, {-1}, on + "[5 9] -1 stages: "},
        {2, {LOWEST}, on + "[5 9] -2147483648 stages: "},
        {2, {2}, on + "[5 9] 2 stages: (0 Sensor 1 2)(1 Filter 3)"},
        {2, {2147483647}, on + "[5 9] 2147483647 stages: " + all},
        {3, {0, -1, LOWEST}, on + "[] 3 stages: " + all},  // The number of modes.
        {3, {1}, on + "[5] 3 stages: " + all},
        {3, {1000}, on + "[0 5 9] 3 stages: " + all},  // Values that are not filled are 0.
        {4, {-1, 1}, "off 4096 [] 3 stages: " + all},
        {6, {-1, 1}, on + "[5 9] 3 stages: "},
        {7, {0, -1, LOWEST}, on + "[5 9] 3 stages: (0 Sensor 1 2)(2 Encoder 4)"},
        {7, {1}, on + "[5 9] 3 stages: (0 Sensor 1 2)(1 Filter)(2 Encoder 4)"},
        {7, {1000}, on + "[5 9] 3 stages: " + all},
        {8, {-1, 1}, on + "[5 9] 3 stages: (0 Sensor 1 2)"},
        {10, {-1}, on + "[5 9] 3 stages: (0 Sensor 1 2)(1 Filter 3)"},
    };
    desktop::LoadConfiguration(THREE_STAGES, "test.toml");
    for (const auto& [call, answers, loaded] : cases) {
        for (const int32_t result : answers) {
            desktop::SetStoreScript([number = 0, wrong = call, result](auto& answer) mutable {
                answer.result = number++ == wrong ? result : answer.result;
            });
            LocalConfig config;
            EXPECT_EQ(Describe(config), loaded) << call << " answers " << result;
        }
    }
    // A text that the store leaves out.
    for (const bool isName : {true, false}) {
        desktop::SetStoreScript([isName](desktop::StoreAnswer& answer) {
            if (answer.texts != nullptr && answer.localeKey == "0") {
                delete[] std::exchange(answer.texts[isName ? 0 : 1], nullptr);
            }
        });
        LocalConfig config;
        EXPECT_EQ(Describe(config), on + "[5 9] 3 stages: " + (isName ? "" : "(0 Sensor 2)") +
                                        "(1 Filter 3)(2 Encoder 4)");
    }
}

TEST_F(ConfigurationTest, ASecondLoadFillsGapsAndKeepsTheOrder) {
    LocalConfig config = Load(WithStages("0=['A','1']\n1=[]\n2=['A','3']\n"));
    ASSERT_TRUE(config.UpdateNodeByStage(2, "B"));
    desktop::LoadConfiguration(SECTION + "stage = {0=['Z'],1=['A','2'],2=['Z']}\n", "test.toml");
    EXPECT_TRUE(config.Load());
    EXPECT_EQ(Describe(config), "off 0 [5 9] 3 stages: (0 A 1)(1 A 2)(2 B 3)")
        << "stages that were there stay";
    EXPECT_EQ(Answers(config, "A"), "1: 1 2");
    EXPECT_EQ(Answers(config, "AB"), "2: 1 2 3");
}

TEST_F(ConfigurationTest, EndsTheProcessOnAPortThatIsNoNumber) {
    for (const char* port :
         {"", "x1", "-", " ", "2147483648", "-2147483649", "99999999999999999999999"}) {
        const std::string toml = WithStages("0 = ['N', '" + std::string(port) + "']\n");
        SCOPED_TRACE(port);
        ExpectAbort([&toml] { Load(toml); });
    }
}

TEST_F(ConfigurationTest, FindsTheHighestStageAndThePortsOfAllThatMatch) {
    LocalConfig config =
        Load(WithStages("0=['A','1']\n1=['QR']\n2=['XY','5']\n3=['AB','2']\n4=['QR_S','3']\n"));
    const std::pair<const char*, const char*> cases[] = {
        {"A", "0: 1"},  {"AB_x", "3: 1 2"}, {"QR0", "1:"},         {"a QR_S0", "4: 3"},
        {"XY", "2: 5"}, {"XY0", "2: 5"},    {"cam_XY1_z", "2: 5"}, {"xy", "-1:"},
        {"X", "-1:"},   {"", "-1:"},        {"Q R_S", "-1:"},      {"XYAQR_S", "4: 1 3 5"},
    };
    for (const auto& [node, answers] : cases) {
        EXPECT_EQ(Answers(config, node), answers) << node;
    }
    config = Load(WithStages("0=['AB','1']\n1=['','2']\n2=['A','3']\n"));
    EXPECT_EQ(Answers(config, ""), "1: 2");
    EXPECT_EQ(Answers(config, "AB"), "2: 1 2 3") << "the shorter name, but the higher stage";
    // So many that no hash table would have them in order by chance.
    std::string many;
    for (int stage = 0; stage < 100; ++stage) {
        many += std::to_string(stage) + "=['N']\n";
    }
    EXPECT_EQ(Answers(Load(WithStages(many)), "N"), "99:");
    EXPECT_EQ(Answers(Load(""), "N"), "-1:");
}

TEST_F(ConfigurationTest, GivesAStageAnotherName) {
    LocalConfig config = Load(WithStages("0=['Old','1']\n1=['C']\n2=['OldB','2']\n"));
    EXPECT_TRUE(config.UpdateNodeByStage(0, "New"));
    EXPECT_FALSE(config.UpdateNodeByStage(-1, "x"));
    EXPECT_FALSE(config.UpdateNodeByStage(3, "x"));
    EXPECT_EQ(Answers(config, "Old"), "-1:");
    EXPECT_EQ(Answers(config, "xNewx"), "0: 1") << "the ports stay";
    EXPECT_EQ(Answers(config, "New OldB"), "2: 1 2") << "and so does the order";
}

TEST_F(ConfigurationTest, IsLoggedWhenDebugIsOn) {
    Load(THREE_STAGES);
    EXPECT_EQ(Effects(), Lines{}) << "debug is off";
    SwitchDebugOn(0);
    const LocalConfig config = Load(
        "[TarvoCameraFrameBoostConfig]\n"
        "cameraFrameBoostEnable = true\n"
        "SupportOperationModeList = [255, 10, 0, 4294967295, 10, 2147483648, 32773]\n"
        "stage = {0=['A',5,-3,40,12,5],1=[''],2=['Node C',1]}\n");
    const Lines dump = {
        "U 186:DumpConfig() frameboost enable = 1",
        "U 194:DumpConfig() supportOperationModeList = 0x-800000000x-10x00xA0xFF0x8005",
        "U 205:DumpConfig() stage = 2, nodename = Node C, nodeport = 1 ",
        "U 205:DumpConfig() stage = 1, nodename = , nodeport = ",
        "U 205:DumpConfig() stage = 0, nodename = A, nodeport = -3 5 12 40 ",
    };
    EXPECT_EQ(Effects(), dump);
    config.DumpConfig();
    EXPECT_EQ(Effects(), dump) << "DumpConfig writes it again";
    EXPECT_TRUE(Load("").IsLogEnable());
    EXPECT_EQ(Effects(), (Lines{"U 186:DumpConfig() frameboost enable = 0",
                                "U 194:DumpConfig() supportOperationModeList = "}));
}

}  // namespace
