#include "tools/play/camera.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <set>

#include "tools/base/cursor.h"
#include "tools/base/finding.h"
#include "tools/base/words.h"
#include "tools/play/builtin_camera.h"

namespace tools {
namespace {

constexpr Micros LONGEST = 60 * SECOND;
constexpr int64_t MAX_AMOUNT = LONGEST / MILLISECOND;  // Of whatever a fault is about.

struct FaultForm {
    std::string_view name;
    bool hasFrames;  // It may happen to several in a row.
    bool hasStage;
    std::string_view amount;   // What it is called, with its sign; empty where there is none.
    std::string_view meaning;  // A format, with stage and amount.
};

constexpr FaultForm FAULT_FORMS[] = {
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
    // All threads stand, the sensor as well.
    {"freeze", false, false, "MILLISECONDS", "nothing happens for {amount} before it comes"},
    {"restart", false, false, "", "the HAL gives it the number 1, and counts on from there"},
    // As the guide to integration says.
    {"recovered", true, false, "", "the sensor drops it, and the HAL does what is to be done then"},
    {"clock", false, false, "[-]MILLISECONDS",
     "the log's clock is set by {amount} before it comes"},
    // From the first frame to the one after the last.
    {"rate", true, false, "FPS", "the sensor delivers {amount} frames a second"},
};

// Null where there is no such kind.
const FaultForm* FaultFormOf(std::string_view kind) {
    const auto* const form = std::find_if(std::begin(FAULT_FORMS), std::end(FAULT_FORMS),
                                          [kind](const auto& it) { return it.name == kind; });
    return form == std::end(FAULT_FORMS) ? nullptr : form;
}

std::string UsageOf(const FaultForm& form) {
    return fmt::format("{}:FRAME{}{}{}{}", form.name, form.hasFrames ? "[-LAST]" : "",
                       form.hasStage ? ":STAGE" : "", form.amount.empty() ? "" : ":", form.amount);
}

std::string MeaningOf(const FaultForm& form, std::string_view stage, std::string_view amount) {
    return fmt::format(fmt::runtime(form.meaning), fmt::arg("stage", stage),
                       fmt::arg("amount", amount));
}

// Reads a table of a camera file: every key once, each of its kind and in its range. Where a key is
// missing, the value stays as it is.
struct TableReader {
    const toml::table& table;
    std::string_view name;  // Of the file.
    std::set<std::string_view> known{};

    // `take` takes the value, and returns whether it is as expected.
    template <typename Take>
    void Read(std::string_view key, std::string_view expected, bool isRequired, const Take& take) {
        known.insert(key);
        const toml::node* node = table.get(key);
        if (node == nullptr ? isRequired : !take(*node)) {
            Fail((node == nullptr ? table : *node).source(),
                 fmt::format("{}: expected {}", key, expected));
        }
    }

    // `take` takes each value of a list. One that is required is not empty.
    template <typename Take>
    void ReadList(std::string_view key, std::string_view expected, bool isRequired,
                  const Take& take) {
        Read(key, expected, isRequired, [&take, isRequired](const toml::node& node) {
            const toml::array* list = node.as_array();
            return list != nullptr && !(isRequired && list->empty()) &&
                   std::all_of(list->begin(), list->end(), take);
        });
    }

    void Read(std::string_view key, bool& value) {
        Read(key, "true or false", false, [&value](const toml::node& node) {
            value = node.value_or(value);
            return node.is_boolean();
        });
    }

    template <typename Number>
    void Read(std::string_view key, Number& value, int64_t lowest, int64_t highest) {
        Read(key, fmt::format("a whole number from {} to {}", lowest, highest), false,
             [&value, lowest, highest](const toml::node& node) {
                 const int64_t number = node.value_exact<int64_t>().value_or(lowest - 1);
                 value = static_cast<Number>(number);
                 return number >= lowest && number <= highest;
             });
    }

    void ReadMilliseconds(std::string_view key, Micros& value, Micros highest, bool isRequired) {
        Read(key, fmt::format("milliseconds from 0 to {}", highest / MILLISECOND), isRequired,
             [&value, highest](const toml::node& node) {
                 const double number = node.is_number() ? *node.value<double>() * MILLISECOND : -1;
                 const bool isGood = number >= 0 && number <= static_cast<double>(highest);
                 value = isGood ? std::llround(number) : value;
                 return isGood;
             });
    }

    // To be called when all is read.
    void ExpectNoMore() const {
        for (const auto& [key, value] : table) {
            if (!known.contains(key.str())) {
                Fail(key.source(), Quoted(key.str()) + " is not a key here");
            }
        }
    }

    [[noreturn]] void Fail(const toml::source_region& at, std::string_view message) const {
        throw CommandError(
            fmt::format("{}:{}:{}: error: {}", name, at.begin.line, at.begin.column, message));
    }
};

CameraNode ReadNode(const toml::table& table, std::string_view fileName) {
    TableReader reader{table, fileName};
    CameraNode node;
    reader.Read("name", "the node's name", true, [&node](const toml::node& name) {
        node.name = name.value_or("");
        return name.is_string();
    });
    reader.ReadList("ports", "a list of port numbers", true, [&node](const toml::node& port) {
        node.ports.push_back(port.value<int32_t>().value_or(0));
        return port.is_integer() && port.value<int32_t>();
    });
    reader.Read("branch", node.isBranch);
    reader.ReadMilliseconds("median", node.median, LONGEST, true);
    reader.ReadMilliseconds("spread", node.spread, node.median, true);
    reader.Read("ahead", node.ahead, 0, 1000);
    reader.Read("workers", node.workers, 1, 1000);
    reader.ExpectNoMore();
    return node;
}

}  // namespace

Fault ParseFault(std::string_view text) {
    const auto fail = [text](const std::string& expected) {
        throw LineError(Quoted(text) + " is not a fault, expected " + expected);
    };
    const FaultForm* const form = FaultFormOf(text.substr(0, text.find(':')));
    if (form == nullptr) {
        fail("one that simulate --help shows");
    }
    std::string_view rest = text.substr(form->name.size());
    // Whether there is a number in the range behind the character that separates it.
    const auto read = [&rest](auto& number, int64_t lowest, int64_t highest) {
        rest.remove_prefix(std::min<size_t>(rest.size(), 1));
        return TakeNumber(rest, number) && number >= lowest && number <= highest;
    };
    Fault fault{form->name};
    const bool isSigned = form->amount.starts_with("[-]");
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
        fail(UsageOf(*form) + " in whole numbers, frames and amounts from 1, stages from 0");
    }
    return fault;
}

std::string ToString(const Fault& fault) {
    std::string text = fmt::format("{}:{}", fault.kind, fault.frame);
    text += fault.last > fault.frame ? "-" + std::to_string(fault.last) : "";
    text += fault.stage >= 0 ? ":" + std::to_string(fault.stage) : "";
    text += fault.amount != 0 ? ":" + std::to_string(fault.amount) : "";
    return text;
}

std::string Describe(const Fault& fault, const Camera& camera) {
    const FaultForm& form = *FaultFormOf(fault.kind);
    std::string frames = fmt::format("frame {}", fault.frame);
    if (fault.last > fault.frame) {
        frames = fmt::format("frames {} to {}", fault.frame, fault.last);
    }
    std::string stage;
    if (form.hasStage) {
        const CameraNode node = camera.Stages().at(static_cast<size_t>(fault.stage));
        stage = fmt::format("{} (stage {})", node.name, fault.stage);
    }
    const char* const unit = form.amount.ends_with("MILLISECONDS") ? " ms" : "";
    return frames + ": " + MeaningOf(form, stage, std::to_string(fault.amount) + unit);
}

std::string DescribeFaults() {
    std::string text;
    for (const FaultForm& form : FAULT_FORMS) {
        text += fmt::format("  {:38}{}\n", UsageOf(form), MeaningOf(form, "STAGE", form.amount));
    }
    return text;
}

std::vector<CameraNode> Camera::Stages() const {
    std::vector<CameraNode> stages;
    std::copy_if(nodes.begin(), nodes.end(), std::back_inserter(stages),
                 [](const CameraNode& node) { return !node.isBranch; });
    return stages;
}

Camera ParseCamera(std::string_view toml, std::string_view name) {
    toml::table table;
    TableReader reader{table, name};
    try {
        table = toml::parse(toml);
    } catch (const toml::parse_error& error) {
        reader.Fail(error.source(), error.description());
    }
    Camera camera;
    reader.Read("width", camera.width, 1, INT32_MAX);
    reader.Read("fps", camera.fps, 1, 1000);
    reader.Read("frames", camera.frames, 1, MAX_FRAMES);
    reader.Read("seed", camera.seed, 0, INT64_MAX);
    reader.Read("buffers", camera.buffers, 1, 1000);
    reader.Read("camera", camera.id, INT32_MIN, INT32_MAX);
    reader.Read("master", camera.isMaster);
    reader.ReadMilliseconds("wait", camera.wait, LONGEST, false);
    // As the configuration has it: 0xFFFF8001 and -32767 are the same.
    reader.Read("mode", camera.mode, INT32_MIN, UINT32_MAX);
    reader.ReadList("faults", "a list of faults", false, [&](const toml::node& fault) {
        try {
            camera.faults.push_back(ParseFault(fault.value_or(std::string_view())));
        } catch (const LineError& error) {
            reader.Fail(fault.source(), error.what());
        }
        return true;
    });
    reader.ReadList("node",
                    "a table [[node]] for each of the camera's nodes, the first one no branch",
                    true, [&](const toml::node& node) {
                        const toml::table* nodeTable = node.as_table();
                        if (nodeTable != nullptr) {
                            camera.nodes.push_back(ReadNode(*nodeTable, name));
                        }
                        return nodeTable != nullptr && !camera.nodes.front().isBranch;
                    });
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
                throw LineError("fault \"" + ToString(fault) + "\" cannot happen: " + reason);
            }
        };
        // A frame that is swapped takes one that follows it.
        const int64_t last = camera.frames - (fault.kind == "swap" ? 2 : 1);
        require(fault.last <= last, fmt::format("expected a frame up to {}", last));
        require(fault.stage < std::ssize(stages),
                fmt::format("expected a stage from 0 to {}", stages.size() - 1));
        if (fault.kind == "second-port") {
            const CameraNode& node = stages[static_cast<size_t>(fault.stage)];
            require(node.ports.size() > 1,
                    "the camera's node " + node.name + " has one port alone");
        }
    }
}

}  // namespace tools
