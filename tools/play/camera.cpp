#include "tools/play/camera.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>
#include <set>

#include "tools/base/cursor.h"
#include "tools/base/finding.h"
#include "tools/play/builtin_camera.h"

namespace tools {
namespace {

constexpr Micros LONGEST = 60 * SECOND;
constexpr int64_t MAX_AMOUNT = LONGEST / MILLISECOND;  // Of whatever a fault is about.

struct FaultForm {
    std::string_view name;
    bool hasFrames;  // It may happen to several in a row.
    bool hasStage;
    std::string_view amount;   // What it is called; empty where there is none.
    std::string_view meaning;  // A format, with stage and amount.
};

// In the order of FaultKind.
constexpr auto FAULT_FORMS = std::to_array<FaultForm>({
    {"drop", true, false, "", "the sensor drops it and says so"},
    {"lost", true, true, "", "it never comes out of {stage}"},
    {"unreported", true, true, "", "{stage} does its work, but does not report it"},
    {"slow", true, true, "MILLISECONDS", "{stage} takes {amount} longer"},
    {"stall", false, false, "MILLISECONDS",
     "the sensor delivers it, and all that follow, {amount} late"},
    {"swap", false, true, "", "it comes out of {stage} after the frame that follows it"},
    {"second-port", true, true, "", "{stage} reports it on a second port as well"},
    {"log-lost", false, false, "COUNT",
     "from its first report on, {amount} lines of the log are missing"},
    {"die", false, true, "", "{stage} does nothing more from then on"},
    {"freeze", false, false, "MILLISECONDS", "nothing happens for {amount} before it comes"},
    {"restart", false, false, "", "the HAL gives it the number 1, and counts on from there"},
    {"recovered", true, false, "", "the sensor drops it, and the HAL does what is to be done then"},
    {"clock", false, false, "MILLISECONDS", "the log's clock is set by {amount} before it comes"},
    {"rate", true, false, "FPS", "the sensor delivers {amount} frames a second"},
});

const FaultForm& FormOf(FaultKind kind) {
    return FAULT_FORMS[static_cast<size_t>(kind)];
}

std::string UsageOf(const FaultForm& form) {
    return fmt::format("{}:FRAME{}{}{}", form.name, form.hasStage ? ":STAGE" : "",
                       form.amount.empty() ? "" : ":", form.amount);
}

std::string MeaningOf(const FaultForm& form, std::string_view stage, std::string_view amount) {
    return fmt::format(fmt::runtime(form.meaning), fmt::arg("stage", stage),
                       fmt::arg("amount", amount));
}

// Reads a table of a camera file: every key once, each of its kind and in its range.
class TableReader {
  public:
    TableReader(const toml::table& readTable, std::string_view fileName)
        : table(readTable), name(fileName) {}

    // Null when there is no such key.
    const toml::node* Find(std::string_view key) {
        known.insert(key);
        return table.get(key);
    }

    const toml::node& Require(std::string_view key, std::string_view expected) {
        const toml::node* node = Find(key);
        Expect(node != nullptr, table, key, expected);
        return *node;
    }

    // The value of a node, as the type that it has to have.
    template <typename T>
    T ValueOf(const toml::node& node, std::string_view key, std::string_view expected) const {
        const std::optional<T> value = node.value_exact<T>();
        Expect(value.has_value(), node, key, expected);
        return *value;
    }

    int64_t IntegerOf(const toml::node& node, std::string_view key, int64_t lowest,
                      int64_t highest) const {
        const auto number = node.value_exact<int64_t>();
        Expect(number && *number >= lowest && *number <= highest, node, key,
               fmt::format("a whole number from {} to {}", lowest, highest));
        return *number;
    }

    // These leave the value as it is when there is no such key.
    void Read(std::string_view key, bool& value) {
        if (const toml::node* node = Find(key)) {
            value = ValueOf<bool>(*node, key, "true or false");
        }
    }

    template <typename Integer>
    void Read(std::string_view key, Integer& value, int64_t lowest,
              int64_t highest = std::numeric_limits<Integer>::max()) {
        if (const toml::node* node = Find(key)) {
            value = static_cast<Integer>(IntegerOf(*node, key, lowest, highest));
        }
    }

    Micros ReadMilliseconds(std::string_view key, Micros highest) {
        const toml::node& node = Require(key, "milliseconds");
        const double number = node.is_number() ? *node.value<double>() : -1;
        Expect(number >= 0 && number <= static_cast<double>(highest) / MILLISECOND, node, key,
               fmt::format("milliseconds from 0 to {}", highest / MILLISECOND));
        return std::llround(number * MILLISECOND);
    }

    void Expect(bool holds, const toml::node& node, std::string_view key,
                std::string_view expected) const {
        if (!holds) {
            Fail(node.source().begin, fmt::format("{}: expected {}", key, expected));
        }
    }

    [[noreturn]] void Fail(const toml::source_position& at, std::string_view message) const {
        throw CameraError(fmt::format("{}:{}:{}: error: {}", name, at.line, at.column, message));
    }

    // To be called when all is read.
    void ExpectNoMore() const {
        for (const auto& [key, value] : table) {
            if (!known.contains(key.str())) {
                Fail(key.source().begin, Quoted(key.str()) + " is not a key here");
            }
        }
    }

  private:
    const toml::table& table;
    std::string_view name;
    std::set<std::string_view> known;
};

CameraNode ReadNode(const toml::table& table, std::string_view fileName) {
    TableReader reader(table, fileName);
    CameraNode node;
    constexpr std::string_view expectedName = "the node's name";
    node.name =
        reader.ValueOf<std::string>(reader.Require("name", expectedName), "name", expectedName);
    constexpr std::string_view expectedPorts = "a list of ports";
    const toml::node& ports = reader.Require("ports", expectedPorts);
    reader.Expect(ports.is_array() && !ports.as_array()->empty(), ports, "ports", expectedPorts);
    for (const toml::node& port : *ports.as_array()) {
        node.ports.push_back(
            static_cast<int32_t>(reader.IntegerOf(port, "ports", INT32_MIN, INT32_MAX)));
    }
    reader.Read("branch", node.isBranch);
    node.median = reader.ReadMilliseconds("median", LONGEST);
    node.spread = reader.ReadMilliseconds("spread", node.median);
    reader.Read("ahead", node.ahead, 0, 1000);
    reader.Read("workers", node.workers, 1, 1000);
    reader.ExpectNoMore();
    return node;
}

}  // namespace

Fault ParseFault(std::string_view text) {
    const auto fail = [text](const std::string& expected) {
        throw CameraError(Quoted(text) + " is not a fault, expected " + expected);
    };
    const std::string_view name = text.substr(0, text.find(':'));
    const auto* const form = std::find_if(FAULT_FORMS.begin(), FAULT_FORMS.end(),
                                          [name](const auto& it) { return it.name == name; });
    if (form == FAULT_FORMS.end()) {
        std::vector<std::string> usages(FAULT_FORMS.size());
        std::transform(FAULT_FORMS.begin(), FAULT_FORMS.end(), usages.begin(), UsageOf);
        fail(fmt::format("{}", fmt::join(usages, ", ")));
    }
    Fault fault{.kind = static_cast<FaultKind>(form - FAULT_FORMS.begin())};
    std::string_view rest = text.substr(name.size());
    // Whether there is a number in the range behind the character that separates it.
    const auto read = [&rest](auto& number, int64_t lowest, int64_t highest) {
        rest.remove_prefix(std::min<size_t>(rest.size(), 1));
        return TakeNumber(rest, number) && number >= lowest && number <= highest;
    };
    const bool isSigned = fault.kind == FaultKind::Clock;
    bool isGood = read(fault.frame, 1, MAX_FRAMES);
    fault.last = fault.frame;
    if (form->hasFrames && rest.starts_with('-')) {
        isGood = isGood && read(fault.last, fault.frame, MAX_FRAMES);
    }
    isGood = isGood && (!form->hasStage || read(fault.stage, 0, INT32_MAX)) &&
             (form->amount.empty() ||
              (read(fault.amount, isSigned ? -MAX_AMOUNT : 1, MAX_AMOUNT) && fault.amount != 0));
    // Written as it is read: nothing is left over, and nothing else separates the numbers.
    if (!isGood || ToString(fault) != text) {
        fail(UsageOf(*form) + " in whole numbers, frames and amounts from 1, stages from 0" +
             (isSigned ? ", milliseconds below 0 to set the clock back" : ""));
    }
    return fault;
}

std::string ToString(const Fault& fault) {
    const FaultForm& form = FormOf(fault.kind);
    std::string text = fmt::format("{}:{}", form.name, fault.frame);
    text += fault.last > fault.frame ? "-" + std::to_string(fault.last) : "";
    text += form.hasStage ? ":" + std::to_string(fault.stage) : "";
    text += form.amount.empty() ? "" : ":" + std::to_string(fault.amount);
    return text;
}

std::string_view NameOf(FaultKind kind) {
    return FormOf(kind).name;
}

std::string FramesOf(const Fault& fault) {
    return fault.last > fault.frame ? fmt::format("frames {} to {}", fault.frame, fault.last)
                                    : fmt::format("frame {}", fault.frame);
}

std::string Describe(const Fault& fault, const Camera& camera) {
    const FaultForm& form = FormOf(fault.kind);
    std::string stage;
    if (form.hasStage) {
        stage = fmt::format("{} (stage {})",
                            camera.Stages().at(static_cast<size_t>(fault.stage)).name, fault.stage);
    }
    const char* const unit = form.amount == "MILLISECONDS" ? " ms" : "";
    return MeaningOf(form, stage, std::to_string(fault.amount) + unit);
}

std::string DescribeFaults() {
    std::string text;
    std::vector<std::string_view> names;
    for (const FaultForm& form : FAULT_FORMS) {
        text += fmt::format("  {:32}{}\n", UsageOf(form), MeaningOf(form, "STAGE", form.amount));
        if (form.hasFrames) {
            names.push_back(form.name);
        }
    }
    return fmt::format(
        "{}\nFRAME may be several in a row, as 100-104, for {}.\n"
        "For clock, MILLISECONDS below 0 set it back.\n",
        text, fmt::join(names, ", "));
}

std::vector<CameraNode> Camera::Stages() const {
    std::vector<CameraNode> stages;
    std::copy_if(nodes.begin(), nodes.end(), std::back_inserter(stages),
                 [](const CameraNode& node) { return !node.isBranch; });
    return stages;
}

Camera ParseCamera(std::string_view toml, std::string_view name) {
    toml::table table;
    try {
        table = toml::parse(toml, name);
    } catch (const toml::parse_error& error) {
        TableReader(table, name).Fail(error.source().begin, std::string(error.description()));
    }
    TableReader reader(table, name);
    Camera camera;
    reader.Read("width", camera.width, 1);
    reader.Read("fps", camera.fps, 1, 1000);
    reader.Read("frames", camera.frames, 1, MAX_FRAMES);
    reader.Read("seed", camera.seed, 0, std::numeric_limits<int64_t>::max());
    reader.Read("buffers", camera.buffers, 1, 1000);
    reader.Read("camera", camera.id, std::numeric_limits<int32_t>::min());
    reader.Read("master", camera.isMaster);
    if (reader.Find("wait") != nullptr) {
        camera.wait = reader.ReadMilliseconds("wait", LONGEST);
    }
    if (const toml::node* mode = reader.Find("mode")) {
        // As the configuration has it: 0xFFFF8001 and -32767 are the same.
        camera.mode = static_cast<int32_t>(reader.IntegerOf(*mode, "mode", INT32_MIN, UINT32_MAX));
    }
    if (const toml::node* faults = reader.Find("faults")) {
        reader.Expect(faults->is_array(), *faults, "faults", "a list of faults");
        for (const toml::node& fault : *faults->as_array()) {
            try {
                camera.faults.push_back(ParseFault(fault.value_or(std::string_view())));
            } catch (const CameraError& error) {
                reader.Fail(fault.source().begin, error.what());
            }
        }
    }
    const std::string_view expected =
        "a table [[node]] for each of the camera's nodes, the first one no branch";
    const toml::node& nodes = reader.Require("node", expected);
    reader.Expect(nodes.is_array_of_tables(), nodes, "node", expected);
    for (const toml::node& node : *nodes.as_array()) {
        camera.nodes.push_back(ReadNode(*node.as_table(), name));
    }
    reader.Expect(!camera.nodes.front().isBranch, nodes, "node", expected);
    reader.ExpectNoMore();
    return camera;
}

Camera BuiltinCamera() {
    return ParseCamera(BUILTIN_CAMERA, "built-in camera");
}

void CheckFaults(const Camera& camera) {
    const std::vector<CameraNode> stages = camera.Stages();
    for (const Fault& fault : camera.faults) {
        const auto require = [&fault](bool holds, const std::string& reason) {
            if (!holds) {
                throw CameraError("fault \"" + ToString(fault) + "\" cannot happen: " + reason);
            }
        };
        // A frame that is swapped takes one that follows it.
        const int64_t last = camera.frames - (fault.kind == FaultKind::Swap ? 2 : 1);
        require(fault.last <= last, fmt::format("expected a frame up to {}", last));
        require(fault.stage < std::ssize(stages),
                fmt::format("expected a stage from 0 to {}", stages.size() - 1));
        if (fault.kind == FaultKind::SecondPort) {
            const CameraNode& node = stages[static_cast<size_t>(fault.stage)];
            require(node.ports.size() > 1,
                    "the camera's node " + node.name + " has one port alone");
        }
    }
}

}  // namespace tools
