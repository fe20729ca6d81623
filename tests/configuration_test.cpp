// The configuration: what the store says, what becomes of it when the store fails, and what it
// answers.

#include <limits>

#include "tests/store_contents.h"
#include "tests/support/expect_abort.h"
#include "tests/support/library_test.h"

namespace {

using Stages = std::vector<int32_t>;
using PortSet = std::unordered_set<int32_t>;

class ConfigurationTest : public LibraryTest {
  protected:
    static LocalConfig Load(const std::string& toml) {
        EXPECT_FALSE(desktop::LoadConfiguration(toml, "test.toml"));
        return LocalConfig();
    }

    // The stages of 0 to 9 that are in the table.
    static Stages LoadedStages(const LocalConfig& config) {
        Stages stages;
        for (int32_t stage = 0; stage < 10; ++stage) {
            NodePortInfo info;
            if (config.GetNodePortByStage(stage, info)) {
                stages.push_back(stage);
            }
        }
        return stages;
    }

    static PortSet Ports(const LocalConfig& config, int32_t stage) {
        NodePortInfo info;
        EXPECT_TRUE(config.GetNodePortByStage(stage, info));
        return info.nodePorts;
    }
};

TEST_F(ConfigurationTest, ReadsWhatTheStoreServes) {
    LocalConfig config = Load(THREE_STAGES);
    EXPECT_TRUE(config.GetFrameboostSwitch());
    EXPECT_EQ(config.GetAdditionalSupportedWidth(), 4096);
    EXPECT_EQ(config.GetStageCount(), 3);
    EXPECT_TRUE(config.IsModeSupported(5));
    EXPECT_TRUE(config.IsModeSupported(9));
    EXPECT_FALSE(config.IsModeSupported(1));
    EXPECT_EQ(config.GetNodePort(), "");
    EXPECT_FALSE(config.IsLogEnable());

    NodePortInfo info{"before", {77}};
    ASSERT_TRUE(config.GetNodePortByStage(0, info));
    EXPECT_EQ(info.nodeName, "Sensor");
    EXPECT_EQ(info.nodePorts, (std::unordered_set<int32_t>{1, 2}));
    for (const int32_t stage : {-1, 3}) {
        EXPECT_FALSE(config.GetNodePortByStage(stage, info));
        EXPECT_FALSE(config.UpdateNodeByStage(stage, "x"));
    }
    EXPECT_EQ(info.nodeName, "Sensor") << "a missing stage leaves the record alone";
    EXPECT_EQ(config.GetStageByNodeName("x"), -1);
}

// Every way in which a list can go wrong at each of three stages, with every way in which the modes
// can.
TEST_F(ConfigurationTest, MakesTheBestOfAStoreThatFails) {
    constexpr int32_t LOWEST = std::numeric_limits<int32_t>::min();
    const std::vector<StoreContents::List<uint32_t>> modes = {{2, 0, {5, 4294967295U, 7}},
                                                              {2, 1, {5, 9}},
                                                              {4, 0, {9}},
                                                              {0, -1, {5}},
                                                              {-1, 0, {5}},
                                                              {LOWEST, 0, {}},
                                                              {100000, -1, {}}};
    const std::vector<StoreContents::List<StoreContents::Text>> lists = {
        {3, 0, {"A", "1", "2"}},
        {2, 0, {"AB", "3", "not asked for"}},
        {2, 0, {"AB", std::nullopt}},
        {1, 0, {""}},
        {3, 0, {std::nullopt, "1", "x, but nobody reads it"}},
        {3, 1, {"partly", "1"}},
        {2, -1, {"all of it", "1"}},
        {0, 0, {"A"}},
        {0, -1, {}},
        {-1, 0, {"A"}},
        {LOWEST, 1, {}},
        {100000, 0, {"\x01\xff%s\n", "\t+3\xff"}},
        {100000, -1, {}},
    };
    StoreContents contents;
    for (size_t code = 0; code < lists.size() * lists.size() * lists.size(); ++code) {
        contents.modes = modes[code % modes.size()];
        contents.stages = {lists[code % lists.size()], lists[code / lists.size() % lists.size()],
                           lists[code / lists.size() / lists.size()]};
        contents.stageCount = code % 5 == 0 ? static_cast<int32_t>(code % 3) - 2 : 3;
        contents.valueStatus = code % 2 == 0 ? 0 : -1;  // It is not looked at.
        contents.width = code % 3 == 0 ? std::nullopt : std::make_optional(-4096);
        contents.flag = code % 3 == 1 ? std::nullopt : std::make_optional(2U);
        contents.Serve();
        LocalConfig config;
        ASSERT_EQ(contents.Compare(config, {"A", "xABx", "AxB", "partly", ""}), "") << code;
    }
    constexpr int32_t HUGE_COUNT = 1 << 24;
    contents.modes = {HUGE_COUNT, -1, {}};
    contents.stages = {lists[0], {HUGE_COUNT, -1, {"A"}}};
    contents.stageCount = std::numeric_limits<int32_t>::max();
    contents.Serve();
    LocalConfig config;
    EXPECT_EQ(contents.Compare(config, {"A"}), "") << "no memory for what nobody fills";
}

TEST_F(ConfigurationTest, ASecondLoadFillsGapsAndKeepsTheOrder) {
    LocalConfig config = Load(WithStages("0=['A','1']\n1=[]\n2=['A','3']\n"));
    EXPECT_EQ(LoadedStages(config), (Stages{0, 2}));
    ASSERT_TRUE(config.UpdateNodeByStage(2, "B"));
    desktop::LoadConfiguration(
        "[TarvoCameraFrameBoostConfig]\nstage = {0=['Z'],1=['A','2'],2=['Z']}\n", "test.toml");
    EXPECT_TRUE(config.Load());
    EXPECT_EQ(LoadedStages(config), (Stages{0, 1, 2}));
    EXPECT_EQ(Ports(config, 2), (PortSet{3}));
    EXPECT_EQ(config.GetAdditionalSupportedWidth(), 0);
    EXPECT_EQ(config.GetStageByNodeName("A"), 1) << "what was there stays";
    EXPECT_EQ(config.GetStageByNodeName("AB"), 2);
}

TEST_F(ConfigurationTest, ReadsPortsLikeLeadingDecimalNumbers) {
    EXPECT_EQ(Ports(Load(WithStages("0=['N',' 7','7x','-1','+4','0x10','12abc','2147483647',"
                                    "'-2147483648']\n")),
                    0),
              (PortSet{7, -1, 4, 0, 12, std::numeric_limits<int32_t>::max(),
                       std::numeric_limits<int32_t>::min()}));
}

TEST_F(ConfigurationTest, APortThatIsNoNumberEndsTheProcess) {
    for (const char* port :
         {"", "x1", "-", " ", "2147483648", "-2147483649", "99999999999999999999999"}) {
        const std::string toml = WithStages("0 = ['N', '" + std::string(port) + "']\n");
        SCOPED_TRACE(port);
        ExpectAbort([&toml] { Load(toml); });
    }
}

TEST_F(ConfigurationTest, FindsTheHighestOfManyStages) {
    // More than any hash table keeps in order by accident.
    std::string many;
    for (int stage = 0; stage < 500; ++stage) {
        many += std::to_string(stage) + "=['N" + std::to_string(stage) + "x']\n";
    }
    LocalConfig config = Load(WithStages(many));
    EXPECT_EQ(config.GetStageByNodeName("N3x N499x N77x"), 499);
    EXPECT_EQ(config.GetStageByNodeName("N123x"), 123);
    EXPECT_EQ(config.GetStageByNodeName("n123x"), -1);
    EXPECT_EQ(config.GetStageByNodeName("N123"), -1);
}

TEST_F(ConfigurationTest, GivesAStageAnotherName) {
    LocalConfig config = Load(WithStages("0=['Old','1']\n1=['C']\n2=['OldB','2']\n"));
    EXPECT_TRUE(config.UpdateNodeByStage(0, "New"));
    EXPECT_EQ(config.GetStageByNodeName("Old"), -1);
    EXPECT_EQ(config.GetStageByNodeName("xNewx"), 0);
    EXPECT_TRUE(config.IsStagePortVaild("New", 1)) << "the ports stay";
    EXPECT_FALSE(config.IsStagePortVaild("Old", 1));
}

TEST_F(ConfigurationTest, ShowsItselfInTheLogWhenDebugIsOn) {
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
    EXPECT_EQ(Effects(), dump) << "and again, whenever asked";
    EXPECT_TRUE(Load("").IsLogEnable());
    EXPECT_EQ(Effects(), (Lines{"U 186:DumpConfig() frameboost enable = 0",
                                "U 194:DumpConfig() supportOperationModeList = "}));
}

}  // namespace
