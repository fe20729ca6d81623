#include "tools/log/dump.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <set>

namespace tools {
namespace {

// The numbers in a list as dumped: modes such as "0x10x-A", ports such as "1 2 "; each once.
std::vector<int32_t> NumbersOf(std::string_view list, std::string_view separator, int base) {
    std::set<int32_t> numbers;
    for (size_t at = 0; at < list.size();) {
        const size_t end = std::min(list.find(separator, at), list.size());
        int64_t number = 0;
        if (std::from_chars(&list[at], list.data() + end, number, base).ec == std::errc()) {
            numbers.insert(static_cast<int32_t>(number));
        }
        at = end + separator.size();
    }
    return {numbers.begin(), numbers.end()};
}

}  // namespace

bool AddDumped(const Message& message, Configuration& configuration) {
    switch (message.kind) {
        case MessageKind::DumpSwitch:
            configuration.isEnabled = message.flag;
            return true;
        case MessageKind::DumpModes:
            configuration.modes = NumbersOf(message.list, "0x", 16);
            return true;
        case MessageKind::DumpStage: {
            // The highest stage comes first.
            auto& stages = configuration.stages;
            const auto place = std::lower_bound(
                stages.begin(), stages.end(), message.stage,
                [](const ConfiguredStage& stage, int32_t number) { return stage.stage < number; });
            if (place == stages.end() || place->stage != message.stage) {
                stages.insert(place, {message.stage, std::string(message.name),
                                      NumbersOf(message.list, " ", 10)});
            }
            return true;
        }
        default:
            return false;
    }
}

bool Dumping::Begins(const Message& message) {
    const bool isDump = message.kind <= MessageKind::DumpStage;
    const bool isFirst = isDump && (message.kind == MessageKind::DumpSwitch || !isGoingOn);
    // Stage 0 comes last.
    isGoingOn = isDump && (message.kind != MessageKind::DumpStage || message.stage != 0);
    return isFirst;
}

}  // namespace tools
