#include "tools/check/check.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <utility>

#include "cameraframeboost/tarvocameraframeboostutils.h"
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
constexpr const char* SWITCHED_OFF = "boosting is switched off, nothing is boosted";
constexpr const char* NO_MODES = "no operation mode is supported, nothing is boosted";
constexpr const char* NO_STAGES =
    "no node ends a stage, so the boost service is never told of a frame";
constexpr int32_t FRAMES_TRACKED = FrameTracker::DEFAULT_MAX_FRAME_TRACKED;

const char* KindOf(const toml::node& node) {
    // In the order of toml::node_type.
    constexpr const char* kinds[] = {
        "nothing",   "a table", "a list", "a text",     "an integer", "a floating-point number",
        "a boolean", "a date",  "a time", "a date-time"};
    return kinds[static_cast<size_t>(node.type())];
}

// Whether it is false, or a list or a table with nothing in it.
bool IsNothing(const toml::node& node) {
    if (node.is_boolean()) {
        return !node.value_or(false);
    }
    return node.is_array() ? node.as_array()->empty() : node.as_table()->empty();
}

// Where a file has a stage that is loaded.
struct StageSource {
    std::string name{};  // The whole one: the library's ends at a zero.
    toml::source_region place{};
    toml::source_region portPlace{};
};

class Checker {
  public:
    CheckedConfiguration Check(std::string_view toml) {
        // What a file does not set, the library takes as 0.
        table.additionalWidth = 0;
        table.stageCount = 0;
        try {
            Read(toml::parse(toml));
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
        return std::move(result);
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

    void Read(const toml::table& file) {
        const toml::table* section = file[SECTION].as_table();
        if (section == nullptr) {
            AddNoSection(file);
            return;
        }
        for (const auto& [key, value] : *section) {
            if (std::find(KEYS.begin(), KEYS.end(), key.str()) == KEYS.end()) {
                const auto meant = Meant(key.str(), {KEYS.begin(), KEYS.end()});
                Add("unknown-key", Severity::Warning, key.source(),
                    "{} is not a key that the library reads: it has no effect{}", Quoted(key.str()),
                    meant ? ". Was " + Quoted(*meant) + " meant?" : "");
            }
        }
        const toml::node* isOn = Require(*section, SWITCH, toml::node_type::boolean,
                                         "true or false", "switched-off", SWITCHED_OFF);
        if (const toml::node* width = section->get(WIDTH)) {
            ReadWidth(*width);
        }
        const toml::node* modes =
            Require(*section, MODES, toml::node_type::array, "a list", "no-modes", NO_MODES);
        const bool areModesRead = modes == nullptr || ReadModes(*modes->as_array());
        table.isEnabled = isOn != nullptr && isOn->value_or(false) && areModesRead;
        const toml::node* stages = Require(*section, STAGE, toml::node_type::table,
                                           "a table of lists", "no-stages", NO_STAGES);
        if (stages != nullptr) {
            ReadStages(*stages->as_table());
            CheckStages(*stages);
        }
    }

    void AddNoSection(const toml::table& file) {
        toml::source_region where{{1, 1}, {1, 1}, nullptr};
        // What the file has instead may show why.
        std::vector<std::string> others;
        for (const auto& [key, value] : file) {
            where = others.empty() ? key.source() : where;
            others.push_back(fmt::format("{} ({})", Quoted(key.str()), KindOf(value)));
        }
        Add("no-section", Severity::Error, where,
            "there is no table [{}]{}{}: nothing is configured, so nothing is boosted", SECTION,
            others.empty() ? "" : ", only ",
            Printable(fmt::format("{}", fmt::join(others, ", ")), 300));
    }

    // The value of a key without which nothing is boosted; null where there is none of that type.
    const toml::node* Require(const toml::table& section, std::string_view key,
                              toml::node_type type, const char* expected, const char* check,
                              const char* consequence) {
        const toml::node* const node = section.get(key);
        if (node == nullptr) {
            Add(check, Severity::Error, section.source(), "there is no {}: {}",
                key == STAGE ? "table of stages" : key, consequence);
            return nullptr;
        }
        if (node->type() != type) {
            Add("wrong-type", Severity::Error, node->source(), "{} is {}, where {} is read: {}",
                key, KindOf(*node), expected, consequence);
            return nullptr;
        }
        if (IsNothing(*node)) {
            Add(check, Severity::Error, node->source(), "{} is {}: {}",
                key == STAGE ? "the table of stages" : key, node->is_boolean() ? "false" : "empty",
                consequence);
        }
        return node;
    }

    void ReadWidth(const toml::node& node) {
        const auto width = node.is_integer() ? node.value<int32_t>() : std::nullopt;
        table.additionalWidth = width.value_or(0);
        if (!width) {
            Add("wrong-type", Severity::Warning, node.source(),
                "{} is no integer of 32 bits and is not read: no width but {} is boosted", WIDTH,
                BOOST_WIDTH);
        } else if (*width <= 0 || *width == BOOST_WIDTH) {
            Add("width", Severity::Warning, node.source(),
                "{} is {}, which is {}: no width but {} is boosted", WIDTH, *width,
                *width <= 0 ? "not the width of a video" : "boosted in any case", BOOST_WIDTH);
        }
    }

    // Whether the list could be read. One that cannot be switches boosting off.
    bool ReadModes(const toml::array& list) {
        std::set<int32_t> modes;
        for (const toml::node& node : list) {
            if (!node.is_integer()) {
                Add("wrong-type", Severity::Error, node.source(),
                    "a mode is {}, where an integer is read: the list cannot be read, which "
                    "switches boosting off, and nothing is boosted",
                    KindOf(node));
                return false;
            }
            const int64_t number = node.as_integer()->get();
            // Cut as the store cuts it, and taken as signed as the library takes it.
            const auto mode = static_cast<int32_t>(static_cast<uint32_t>(number));
            const std::string readAs = fmt::format("{} ({})", ModeText(mode), mode);
            if (!std::in_range<uint32_t>(number)) {
                Add("mode-out-of-range", Severity::Warning, node.source(),
                    "mode {} is not an unsigned number of 32 bits: it is cut to {}, and that mode "
                    "is boosted",
                    number, readAs);
            }
            if (!modes.insert(mode).second) {
                Add("duplicate-mode", Severity::Warning, node.source(),
                    "mode {} is in the list already: no further mode is boosted by it, if another "
                    "was meant",
                    readAs);
            }
        }
        table.modes.assign(modes.begin(), modes.end());
        return true;
    }

    // Takes in the stages up to the first that cannot be loaded.
    void ReadStages(const toml::table& stages) {
        table.stageCount = static_cast<int32_t>(stages.size());
        std::map<int32_t, std::pair<const toml::key*, const toml::node*>> numbered;
        for (const auto& [key, value] : stages) {
            const auto number = ReadDigits<int32_t>(key.str());
            if (number && *number >= 0 && key.str() == std::to_string(*number)) {
                numbered[*number] = {&key, &value};
            } else {
                Add("unknown-key", Severity::Error, key.source(),
                    "stage key {} is never asked for, as stages are named 0, 1, 2 and so on: its "
                    "list is not read, yet it counts as one of {}, so no frame ever ends",
                    Quoted(key.str()), Counted(*table.stageCount, "stage"));
            }
        }
        int32_t next = 0;
        for (const auto& [number, stage] : numbered) {
            if (number != next) {
                AddStop("stage-gap", stage.first->source(),
                        fmt::format("stage {} is missing before stage {}", next, number));
            }
            if (number != next || !ReadStage(number, *stage.second)) {
                break;
            }
            ++next;
        }
    }

    void AddStop(const char* check, const toml::source_region& where, const std::string& problem) {
        Add(check, Severity::Error, where,
            "{}: loading stops there with {} of {}, so no frame ever ends", problem,
            table.stages.size(), Counted(*table.stageCount, "stage"));
    }

    // Whether loading goes on behind the stage.
    bool ReadStage(int32_t number, const toml::node& node) {
        const toml::array* list = node.as_array();
        if (list == nullptr) {
            AddStop("wrong-type", node.source(),
                    fmt::format("stage {} is {}, where a list of a node name and ports is read",
                                number, KindOf(node)));
            return false;
        }
        if (list->empty()) {
            Add("stage-empty", Severity::Error, node.source(),
                "stage {} has neither node nor ports: it is skipped but still counts, so it never "
                "ends, and no frame does",
                number);
            return true;
        }
        std::vector<std::string> texts;
        for (const toml::node& value : *list) {
            if (!value.is_integer() && !value.is_string()) {
                AddStop("wrong-type", value.source(),
                        fmt::format("{} of stage {} is {}, where a text is read",
                                    texts.empty() ? "the node" : "a port", number, KindOf(value)));
                return false;
            }
            texts.push_back(value.is_string() ? value.as_string()->get()
                                              : std::to_string(value.as_integer()->get()));
        }
        const toml::node& name = list->front();
        if (name.is_integer()) {
            Add("wrong-type", Severity::Warning, name.source(),
                "the node of stage {} is the number {}: it is read as a name, where ports come "
                "second",
                number, texts[0]);
        }
        std::set<int32_t> ports;
        for (size_t i = 1; i < texts.size(); ++i) {
            ReadPort(number, texts[i], (*list)[i].source(), ports);
        }
        table.stages.push_back(
            {number, texts[0].substr(0, texts[0].find('\0')), {ports.begin(), ports.end()}});
        sources.push_back(
            {texts[0], name.source(), (*list)[std::min<size_t>(1, list->size() - 1)].source()});
        return true;
    }

    // Adds what the library reads of `text` to `ports`.
    void ReadPort(int32_t stage, const std::string& text, const toml::source_region& where,
                  std::set<int32_t>& ports) {
        const std::string port = fmt::format("port {} of stage {}", Quoted(text), stage);
        char* end = nullptr;
        const long value = std::strtol(text.c_str(), &end, 10);
        if (end == text.c_str() || !std::in_range<int32_t>(value)) {
            Add("port-not-a-number", Severity::Error, where,
                "{} does not {}: the library ends the process while it is being loaded", port,
                end == text.c_str() ? "start with a decimal number" : "fit 32 bits");
            result.endsProcess = true;
            return;
        }
        if (text != std::to_string(value)) {
            const auto length = static_cast<size_t>(end - text.c_str());
            const bool isCut = text.find_first_not_of(" \t", length) != std::string::npos;
            Add("port-misread", isCut ? Severity::Error : Severity::Note, where,
                "{} is read as {}{}", port, value, isCut ? ": ports are decimal" : "");
        }
        if (!ports.insert(static_cast<int32_t>(value)).second) {
            Add("duplicate-port", Severity::Warning, where,
                "{} is listed already: no further port ends the stage by it, if another was meant",
                port);
        }
    }

    void CheckStages(const toml::node& stages) {
        if (table.stageCount >= FRAMES_TRACKED) {
            Add("too-many-stages", Severity::Warning, stages.source(),
                "{}, and no more than {} are tracked: with a frame in each stage the next one "
                "pushes the oldest out, which is reported and never ends",
                Counted(*table.stageCount, "stage"), Counted(FRAMES_TRACKED, "frame"));
        }
        for (size_t i = 0; i < sources.size(); ++i) {
            CheckStage(table.stages[i], sources[i]);
        }
    }

    void CheckStage(const ConfiguredStage& stage, const StageSource& source) {
        CheckName(stage.stage, source);
        if (table.stageCount == 1) {
            Add("single-stage", Severity::Error, source.place,
                "it is the only stage: its node end starts frames, it never ends one. Each frame "
                "is reported as an error for a stage 1 that does not exist, and again when {} fill "
                "the table and the oldest has to make room",
                Counted(FRAMES_TRACKED, "frame"));
        }
        CheckPair(stage, source.place);
        if (stage.ports.size() > 1) {
            Add("several-ports", Severity::Note, source.portPlace,
                "stage {} ends on any one of its {}, which are alternatives. Where a frame comes "
                "out on two of them, {}",
                stage.stage, Counted(std::ssize(stage.ports), "port"),
                OfSecondEnd(table, stage.stage));
        }
    }

    void CheckName(int32_t stage, const StageSource& source) {
        const std::string& name = source.name;
        const std::string node = NodeOf(name, stage);
        const auto isOdd = [](unsigned char letter) { return letter < ' ' || letter == 0x7F; };
        if (name.empty()) {
            Add("empty-name", stage == 0 ? Severity::Warning : Severity::Error, source.place,
                "{} matches every node that no higher stage matches, those of other parts of the "
                "camera included: {}",
                node,
                stage == 0 ? "each one that reports such a port ends stage 0"
                           : "no node is left for the stages below, so no frame ever ends");
        } else if (name.front() == ' ' || name.back() == ' ' ||
                   std::any_of(name.begin(), name.end(), isOdd)) {
            Add("blank-in-name", Severity::Warning, source.place,
                "{} has blanks at an end, or control characters: they are part of the name, and a "
                "node without them is not matched{}",
                node, name.find('\0') == std::string::npos ? "" : "; a zero ends it");
        }
        static const std::regex ofOneCamera(std::string(CAMERA_NODE) + "-?[0-9]");
        if (std::regex_search(name, ofOneCamera)) {
            Add("camera-specific", Severity::Warning, source.place,
                "{} names a camera: with another one the stage never ends, and no frame does. {} "
                "matches all",
                node, Quoted(CAMERA_NODE));
        }
    }

    static std::string NodeOf(const std::string& name, int32_t stage) {
        return fmt::format("node {} of stage {}", Quoted(name), stage);
    }

    // What other stages do to a loaded one.
    void CheckPair(const ConfiguredStage& stage, const toml::source_region& place) {
        const std::string node = NodeOf(stage.node, stage.stage);
        // Stages that match everything are reported themselves.
        const auto winner = std::find_if(
            table.stages.rbegin(), table.stages.rend(), [&stage](const ConfiguredStage& other) {
                return other.stage == stage.stage ||
                       (!other.node.empty() && stage.node.find(other.node) != std::string::npos);
            });
        if (winner->stage != stage.stage) {
            Add("shadowed", Severity::Error, place,
                "{0} is never stage {1}, as the name of stage {2} occurs in it and the highest "
                "stage wins: its node ends count for stage {2}, stage {1} never ends, and no frame "
                "does",
                node, stage.stage, winner->stage);
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

    CheckedConfiguration result;
    Configuration& table = result.table;
    std::vector<StageSource> sources;  // Of the table's stages.
};

}  // namespace

CheckedConfiguration CheckConfiguration(std::string_view toml) {
    return Checker().Check(toml);
}

std::vector<Finding> CheckConfiguration(const Configuration& configuration) {
    std::vector<Finding> findings = CheckConfiguration(ToToml(configuration)).findings;
    for (Finding& finding : findings) {
        finding.place = {};
        finding.column = 0;
    }
    return findings;
}

}  // namespace tools
