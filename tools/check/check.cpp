#include "tools/check/check.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <utility>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "tools/base/cursor.h"
#include "tools/base/text.h"
#include "tools/base/words.h"

namespace tools {
namespace {

constexpr std::string_view SECTION = "TarvoCameraFrameBoostConfig";
constexpr std::string_view WIDTH = "additionalSupportedWidth";
constexpr std::string_view SWITCH = "cameraFrameBoostEnable";
constexpr std::string_view MODES = "SupportOperationModeList";
constexpr std::string_view STAGE = "stage";
constexpr std::array KEYS = {WIDTH, SWITCH, MODES, STAGE};

// The node that is named per camera: this and the camera's number.
constexpr std::string_view CAMERA_NODE = "MCTFE0_cam";
// So many stages that a table lacks are reported.
constexpr int32_t MOST_STAGES = 1000;
constexpr const char* SWITCHED_OFF = "boosting is switched off, nothing is boosted";
constexpr const char* NO_MODES = "no operation mode is supported, nothing is boosted";
constexpr const char* NO_STAGES =
    "no node ends a stage, so the boost service is never told of a frame";
constexpr int32_t FRAMES_TRACKED = FrameTracker::DEFAULT_MAX_FRAME_TRACKED;

// What kind of value it is, for people.
std::string KindOf(const toml::node& node) {
    if (node.is_string()) {
        return "a text";
    }
    if (node.is_array()) {
        return "a list";
    }
    std::ostringstream kind;
    kind << node.type();
    return (kind.str()[0] == 'i' ? "an " : "a ") + kind.str() +
           (node.is_floating_point() ? " number" : "");
}

// A value as the file has it; its kind alone where it has no text.
std::string ValueOf(const toml::node& node) {
    std::ostringstream text;
    node.visit([&text](const auto& value) {
        if constexpr (toml::is_value<decltype(value)>) {
            text << value;
        }
    });
    return text.str().empty() ? KindOf(node) : KindOf(node) + " (" + Printable(text.str()) + ")";
}

bool IsKey(const toml::key& key) {
    return std::find(KEYS.begin(), KEYS.end(), key.str()) != KEYS.end();
}

template <typename Integer>
bool Fits(int64_t number) {
    return number >= std::numeric_limits<Integer>::min() &&
           number <= std::numeric_limits<Integer>::max();
}

// The table as a file would have it. Stages that count and are not known are empty lists.
toml::table TableOf(const Configuration& known) {
    toml::array modes;
    for (const int32_t mode : known.modes) {
        modes.push_back(int64_t{static_cast<uint32_t>(mode)});
    }
    toml::table stages;
    for (const ConfiguredStage& stage : known.stages) {
        toml::array list{stage.node};
        for (const int32_t port : stage.ports) {
            list.push_back(int64_t{port});
        }
        stages.insert(std::to_string(stage.stage), std::move(list));
    }
    const int32_t last = known.stages.empty() ? -1 : known.stages.back().stage;
    const int32_t end = known.stageCount.value_or(std::min(last, MOST_STAGES) + 1);
    for (int32_t stage = 0; stage < std::min(end, MOST_STAGES); ++stage) {
        stages.insert(std::to_string(stage), toml::array());
    }
    return toml::table{
        {SECTION, toml::table{{SWITCH, known.isEnabled}, {MODES, modes}, {STAGE, stages}}}};
}

// A stage whose list could be read.
struct StageList {
    int64_t number = 0;
    toml::source_region place{};
    bool isEmpty = true;
    std::string name{};  // Whole: the library's ends at a zero.
    toml::source_region portPlace{};
    ConfiguredStage read{};
    bool isLoaded = false;
};

class Checker {
  public:
    explicit Checker(std::string_view text) : toml(text) {
        // What a file does not set, the library takes as 0.
        table.additionalWidth = 0;
        table.stageCount = 0;
    }

    CheckedConfiguration Check() {
        try {
            Check(toml::parse(toml));
        } catch (const toml::parse_error& error) {
            Add("unreadable", Severity::Error, error.source(),
                "{}: the file cannot be parsed, so the store serves nothing and nothing is boosted",
                Printable(error.description(), 300));
            result.isReadable = false;
        }
        std::stable_sort(result.findings.begin(), result.findings.end(),
                         [](const Finding& one, const Finding& other) {
                             return std::pair(one.place.line, one.column) <
                                    std::pair(other.place.line, other.column);
                         });
        // The parser counts code points.
        uint32_t line = 1;
        for (Finding& finding : result.findings) {
            for (; line < finding.place.line; ++line) {
                toml.remove_prefix(toml.find('\n') + 1);
            }
            for (size_t at = 0; at < std::min<size_t>(finding.column, toml.size()); ++at) {
                finding.column += (static_cast<unsigned char>(toml[at]) & 0xC0) == 0x80 ? 1U : 0U;
            }
        }
        return std::move(result);
    }

    // Of a table that no file has, the findings have no places.
    const std::vector<Finding>& Check(const toml::table& file) {
        const toml::table* section = file[SECTION].as_table();
        if (section == nullptr) {
            CheckNoSection(file);
            return result.findings;
        }
        for (const auto& [key, value] : *section) {
            if (!IsKey(key)) {
                const auto meant = Meant(key.str(), KEYS);
                Add("unknown-key", Severity::Warning, key.source(),
                    "{} is not a key that the library reads: it has no effect{}", Quoted(key.str()),
                    meant ? ". Was " + Quoted(*meant) + " meant?" : "");
            }
        }
        CheckSwitch(*section);
        CheckWidth(section->get(WIDTH));
        CheckModes(*section);
        CheckStages(*section);
        return result.findings;
    }

  private:
    // `form` and `values`: the message, as fmt has it.
    template <typename... Values>
    void Add(const char* check, Severity severity, const toml::source_region& where,
             fmt::format_string<Values...> form, Values&&... values) {
        result.findings.push_back({.check = check,
                                   .severity = severity,
                                   .message = fmt::format(form, std::forward<Values>(values)...),
                                   .place = {0, where.begin.line},
                                   .column = where.begin.column});
    }

    // The value of a key without which nothing is boosted; null where there is none of that type.
    const toml::node* Require(const toml::table& section, std::string_view key,
                              toml::node_type type, const char* expected, const char* check,
                              const char* consequence) {
        const toml::node* node = section.get(key);
        if (node == nullptr) {
            Add(check, Severity::Error, section.source(), "there is no {}: {}",
                key == STAGE ? "table of stages" : key, consequence);
        } else if (node->type() != type) {
            Add("wrong-type", Severity::Error, node->source(), "{} is {}, where {} is read: {}",
                key, ValueOf(*node), expected, consequence);
            return nullptr;
        }
        return node;
    }

    void CheckNoSection(const toml::table& file) {
        std::string instead;
        toml::source_region where{{1, 1}, {1, 1}, nullptr};
        // What the file has instead may show why.
        const auto other = std::find_if(file.begin(), file.end(), [](const auto& entry) {
            return IsKey(entry.first) || Meant(entry.first.str(), {&SECTION, 1}).has_value();
        });
        if (const toml::node* found = file.get(SECTION)) {
            where = found->source();
            instead = fmt::format(", {} is {}", Quoted(SECTION), KindOf(*found));
        } else if (other != file.end()) {
            where = other->first.source();
            const std::string name = Quoted(other->first.str());
            instead = IsKey(other->first) ? fmt::format(", and {} stands outside of it", name)
                                          : fmt::format(", only {}", name);
        }
        Add("no-section", Severity::Error, where,
            "there is no table [{}]{}: nothing is configured, so nothing is boosted", SECTION,
            instead);
    }

    void CheckSwitch(const toml::table& section) {
        const toml::node* node = Require(section, SWITCH, toml::node_type::boolean, "true or false",
                                         "switched-off", SWITCHED_OFF);
        table.isEnabled = node != nullptr && node->as_boolean()->get();
        if (node != nullptr && !table.isEnabled) {
            Add("switched-off", Severity::Error, node->source(), "{} is false: {}", SWITCH,
                SWITCHED_OFF);
        }
    }

    void CheckWidth(const toml::node* node) {
        if (node == nullptr) {
            return;
        }
        const auto number = node->value_exact<int64_t>();
        const char* check = "width";
        std::string problem;
        const std::string none = fmt::format("no width but {} is boosted", BOOST_WIDTH);
        if (!number) {
            check = "wrong-type";
            problem = "where an integer is read: " + none;
        } else if (!Fits<int32_t>(*number)) {
            problem = "which does not fit 32 bits and is not read: " + none;
        } else {
            table.additionalWidth = static_cast<int32_t>(*number);
            if (*number == BOOST_WIDTH) {
                problem = "which is boosted in any case: no second width is";
            } else if (*number <= 0) {
                problem = "which is not the width of a video: " + none;
            }
        }
        if (!problem.empty()) {
            Add(check, Severity::Warning, node->source(), "{} is {}, {}", WIDTH,
                number ? std::to_string(*number) : ValueOf(*node), problem);
        }
    }

    void CheckModes(const toml::table& section) {
        const toml::node* node =
            Require(section, MODES, toml::node_type::array, "a list", "no-modes", NO_MODES);
        if (node == nullptr) {
            return;
        }
        const toml::array* list = node->as_array();
        if (list->empty()) {
            Add("no-modes", Severity::Error, node->source(), "{} is empty: {}", MODES, NO_MODES);
        }
        bool isReadable = true;
        std::set<int32_t> modes;
        for (const toml::node& value : *list) {
            if (const auto number = value.value_exact<int64_t>()) {
                CheckMode(value, *number, modes);
            } else {
                Add("wrong-type", Severity::Error, value.source(),
                    "a mode is {}, where an integer is read: the list cannot be read, which "
                    "switches boosting off, and nothing is boosted",
                    ValueOf(value));
                isReadable = false;
            }
        }
        if (isReadable) {
            table.modes.assign(modes.begin(), modes.end());
        } else {
            table.isEnabled = false;
        }
    }

    void CheckMode(const toml::node& node, int64_t number, std::set<int32_t>& modes) {
        // Cut as the store cuts it, and taken as signed as the library takes it.
        const auto mode = static_cast<int32_t>(static_cast<uint32_t>(number));
        const std::string readAs = fmt::format("{} ({})", ModeText(mode), mode);
        if (!Fits<uint32_t>(number)) {
            Add("mode-out-of-range", Severity::Warning, node.source(),
                "mode {} is not an unsigned number of 32 bits: it is cut to {}, and that mode is "
                "boosted",
                number, readAs);
        }
        if (!modes.insert(mode).second) {
            Add("duplicate-mode", Severity::Warning, node.source(),
                "mode {} is in the list already: no further mode is boosted by it, if another was "
                "meant",
                readAs);
        }
    }

    void CheckStages(const toml::table& section) {
        const toml::node* node = Require(section, STAGE, toml::node_type::table, "a table of lists",
                                         "no-stages", NO_STAGES);
        if (node == nullptr) {
            return;
        }
        const toml::table& stages = *node->as_table();
        table.stageCount = static_cast<int32_t>(stages.size());
        if (stages.empty()) {
            Add("no-stages", Severity::Error, node->source(), "the table of stages is empty: {}",
                NO_STAGES);
        }
        std::map<int64_t, std::pair<const toml::key*, const toml::node*>> numbered;
        for (const auto& [key, value] : stages) {
            if (const auto number = StageNumber(key)) {
                numbered[*number] = {&key, &value};
            }
        }
        int64_t next = 0;
        for (const auto& [number, stage] : numbered) {
            if (number != next) {
                const std::string missing =
                    number - next > 1 ? fmt::format("stages {} to {} are", next, number - 1)
                                      : fmt::format("stage {} is", next);
                Add("stage-gap", Severity::Error, stage.first->source(),
                    "{} missing before stage {}{}", missing, number, StopLoading());
            }
            next = number + 1;
            ReadStage(number, *stage.second);
        }
        if (table.stageCount >= FRAMES_TRACKED) {
            Add("too-many-stages", Severity::Warning, node->source(),
                "{}, and no more than {} are tracked: with a frame in each stage the next one "
                "pushes the oldest out, which is reported and never ends",
                Counted(*table.stageCount, "stage"), Counted(FRAMES_TRACKED, "frame"));
        }
        for (const StageList& list : lists) {
            CheckStage(list);
        }
    }

    // What becomes of a stage that cannot be loaded.
    std::string StopLoading() {
        if (!std::exchange(loads, false)) {
            return ": loading has stopped before that already";
        }
        return fmt::format(": loading stops there with {} of {}, so no frame ever ends",
                           table.stages.size(), Counted(*table.stageCount, "stage"));
    }

    // The stage's number; nothing for a key that the library never asks for.
    std::optional<int64_t> StageNumber(const toml::key& key) {
        constexpr size_t mostDigits = 18;
        const std::string_view text = key.str();
        const auto number = ReadDigits<int64_t>(text);
        if (number && *number >= 0 && text.size() <= mostDigits &&
            text == std::to_string(*number)) {
            return number;
        }
        Add("unknown-key", Severity::Error, key.source(),
            "stage key {} is never asked for, as stages are named 0, 1, 2 and so on: its list is "
            "not read, yet it counts as one of {}, so no frame ever ends",
            Quoted(text), Counted(*table.stageCount, "stage"));
        return std::nullopt;
    }

    // Takes in the stage, unless loading has stopped.
    void ReadStage(int64_t number, const toml::node& node) {
        const toml::array* list = node.as_array();
        if (list == nullptr) {
            Add("wrong-type", Severity::Error, node.source(),
                "stage {} is {}, where a list of a node name and ports is read{}", number,
                ValueOf(node), StopLoading());
            return;
        }
        if (list->empty()) {
            lists.push_back({number, node.source()});
            return;
        }
        std::vector<std::string> texts;
        for (const toml::node& value : *list) {
            if (const auto integer = value.value_exact<int64_t>()) {
                texts.push_back(std::to_string(*integer));
            } else if (auto text = value.value_exact<std::string>()) {
                texts.push_back(std::move(*text));
            } else {
                Add("wrong-type", Severity::Error, value.source(),
                    "{} of stage {} is {}, where a text is read: the list cannot be read{}",
                    texts.empty() ? "the node" : "a port", number, ValueOf(value), StopLoading());
            }
        }
        if (texts.size() != list->size()) {
            return;
        }
        const toml::node& name = (*list)[0];
        if (name.is_integer()) {
            Add("wrong-type", Severity::Warning, name.source(),
                "the node of stage {} is the number {}: it is read as a name, where ports come "
                "second",
                number, texts[0]);
        }
        std::set<int32_t> ports;
        for (size_t i = 1; i < texts.size(); ++i) {
            CheckPort(number, texts[i], (*list)[i].source(), ports);
        }
        ConfiguredStage stage{static_cast<int32_t>(number),
                              texts[0].substr(0, texts[0].find('\0')),
                              {ports.begin(), ports.end()}};
        if (loads) {
            table.stages.push_back(stage);
        }
        lists.push_back({number, name.source(), false, texts[0],
                         (*list)[list->size() > 1 ? 1 : 0].source(), std::move(stage), loads});
    }

    void CheckStage(const StageList& list) {
        if (list.isEmpty) {
            Add("stage-empty", Severity::Error, list.place,
                "stage {} has neither node nor ports: it is skipped but still counts, so it never "
                "ends, and no frame does",
                list.number);
            return;
        }
        CheckName(list);
        if (list.isLoaded && table.stageCount == 1) {
            Add("single-stage", Severity::Error, list.place,
                "it is the only stage: its node end starts frames, it never ends one. Each frame "
                "is reported as an error for a stage 1 that does not exist, and again when {} fill "
                "the table and the oldest has to make room",
                Counted(FRAMES_TRACKED, "frame"));
        }
        if (list.isLoaded) {
            CheckPair(list.read, list.place);
        }
        if (list.read.ports.size() > 1) {
            Add("several-ports", Severity::Note, list.portPlace,
                "stage {} ends on any one of its {}, which are alternatives. Where a frame comes "
                "out on two of them, {}",
                list.number, Counted(static_cast<int64_t>(list.read.ports.size()), "port"),
                OfSecondEnd(table, list.read.stage));
        }
    }

    void CheckName(const StageList& list) {
        const std::string& name = list.name;
        const std::string node = NodeOf(name, list.number);
        const auto isOdd = [](unsigned char letter) { return letter < ' ' || letter == 0x7F; };
        if (name.empty()) {
            Add("empty-name", list.number == 0 ? Severity::Warning : Severity::Error, list.place,
                "{} matches every node that no higher stage matches, those of other parts of the "
                "camera included: {}",
                node,
                list.number == 0 ? "each one that reports such a port ends stage 0"
                                 : "no node is left for the stages below, so no frame ever ends");
        } else if (name.front() == ' ' || name.back() == ' ' ||
                   std::any_of(name.begin(), name.end(), isOdd)) {
            Add("blank-in-name", Severity::Warning, list.place,
                "{} has blanks at an end, or control characters: they are part of the name, and a "
                "node without them is not matched{}",
                node, name.find('\0') == std::string::npos ? "" : "; a zero ends it");
        }
        static const std::regex ofOneCamera(std::string(CAMERA_NODE) + "-?[0-9]");
        if (std::regex_search(name, ofOneCamera)) {
            Add("camera-specific", Severity::Warning, list.place,
                "{} matches that camera's alone{}: with another camera the stage never ends, and "
                "no frame does. {} matches all",
                node,
                IsDigit(name.back()) ? ", and those with more digits, such as " + Quoted(name + "0")
                                     : "",
                Quoted(CAMERA_NODE));
        }
    }

    // Adds what the library reads of `text` to `ports`.
    void CheckPort(int64_t number, const std::string& text, const toml::source_region& place,
                   std::set<int32_t>& ports) {
        const std::string port = fmt::format("port {} of stage {}", Quoted(text), number);
        char* end = nullptr;
        const long value = std::strtol(text.c_str(), &end, 10);
        if (end == text.c_str() || !Fits<int32_t>(value)) {
            Add("port-not-a-number", Severity::Error, place, "{} does not {}: the {}", port,
                end == text.c_str() ? "start with a decimal number" : "fit 32 bits",
                loads ? "library ends the process while it is being loaded"
                      : "process would end, if the stage was loaded");
            result.endsProcess = result.endsProcess || loads;
            return;
        }
        const std::string_view rest =
            std::string_view(text).substr(static_cast<size_t>(end - text.c_str()));
        if (rest.find_first_not_of(" \t") != std::string_view::npos) {
            Add("port-misread", Severity::Error, place, "{} is read as {}: ports are decimal", port,
                value);
        } else if (text != std::to_string(value)) {
            Add("port-misread", Severity::Note, place, "{} is read as {}", port, value);
        }
        if (!ports.insert(static_cast<int32_t>(value)).second) {
            Add("duplicate-port", Severity::Warning, place,
                "{} is listed already: no further port ends the stage by it, if another was meant",
                port);
        }
    }

    static std::string NodeOf(const std::string& name, int64_t stage) {
        return fmt::format("node {} of stage {}", Quoted(name), stage);
    }

    // What other stages do to a loaded one.
    void CheckPair(const ConfiguredStage& stage, const toml::source_region& place) {
        const std::string node = NodeOf(stage.node, stage.stage);
        const int32_t winner = stage.node.empty() ? stage.stage : NamedStageOf(stage.node);
        if (winner != stage.stage) {
            Add("shadowed", Severity::Error, place,
                "{0} is never stage {1}, as the name of stage {2} occurs in it and the highest "
                "stage wins: its node ends count for stage {2}, stage {1} never ends, and no frame "
                "does",
                node, stage.stage, winner);
            return;
        }
        bool isHelped = false;
        for (const ConfiguredStage& other : table.stages) {
            if (other.stage == stage.stage || stage.node.find(other.node) == std::string::npos) {
                continue;
            }
            isHelped = isHelped || !other.ports.empty();
            std::vector<int32_t> ports;
            std::set_difference(other.ports.begin(), other.ports.end(), stage.ports.begin(),
                                stage.ports.end(), std::back_inserter(ports));
            if (!ports.empty() && !other.node.empty()) {
                Add("port-through-other-stage", Severity::Warning, place,
                    "{} ends its stage on port {} too: stage {} lists it, and its name, {}, occurs "
                    "in this one",
                    node, fmt::join(ports, ", "), other.stage, Quoted(other.node));
            }
        }
        if (stage.ports.empty() && !result.endsProcess) {
            Add("no-ports", isHelped ? Severity::Warning : Severity::Error, place,
                "{} has no ports: {}", node,
                isHelped
                    ? "it ends on those of other stages alone"
                    : "none of its node ends counts, so the stage never ends, and no frame does");
        }
    }

    // Like Configuration::StageOf, but for the stages that match everything.
    int32_t NamedStageOf(const std::string& node) const {
        const auto found = std::find_if(
            table.stages.rbegin(), table.stages.rend(), [&node](const ConfiguredStage& stage) {
                return !stage.node.empty() && node.find(stage.node) != std::string::npos;
            });
        return found->stage;
    }

    std::string_view toml;
    CheckedConfiguration result;
    Configuration& table = result.table;
    std::vector<StageList> lists;
    bool loads = true;  // Whether the library still loads stages.
};

}  // namespace

CheckedConfiguration CheckConfiguration(std::string_view toml) {
    return Checker(toml).Check();
}

std::vector<Finding> CheckConfiguration(const Configuration& configuration) {
    return Checker("").Check(TableOf(configuration));
}

}  // namespace tools
