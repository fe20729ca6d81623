// Whatever the configuration store answers: what is loaded is what has to come of it.

#include <fuzzer/FuzzedDataProvider.h>

#include "tests/fuzz/require.h"
#include "tests/store_contents.h"

namespace {

int32_t Count(FuzzedDataProvider& data) {
    constexpr int32_t odd[] = {std::numeric_limits<int32_t>::min(), -1, 1000, 70000};
    const auto count = data.ConsumeIntegralInRange<int32_t>(-4, 12);
    return count < 0 ? odd[-count - 1] : count;
}

int32_t Status(FuzzedDataProvider& data) {
    return data.ConsumeIntegralInRange<int32_t>(0, 9) == 0 ? data.ConsumeIntegral<int32_t>() : 0;
}

StoreContents::Text Text(FuzzedDataProvider& data, bool isPort) {
    const int choice = data.ConsumeIntegralInRange(0, 9);
    if (choice == 0) {
        return std::nullopt;
    }
    // A port that is no number has to end the process, so as a rule it is one.
    return (isPort && choice > 1 ? std::to_string(data.ConsumeIntegralInRange(-1, 5)) : "") +
           data.ConsumeRandomLengthString(6);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    StoreContents contents;
    if (data.ConsumeBool()) {
        contents.width = data.ConsumeIntegral<int32_t>();
    }
    if (data.ConsumeBool()) {
        contents.flag = data.ConsumeIntegral<uint32_t>();
    }
    contents.valueStatus = Status(data);
    contents.modes = {Count(data), Status(data), {}};
    for (int32_t i = data.ConsumeIntegralInRange(0, 5); i > 0; --i) {
        contents.modes.values.push_back(data.ConsumeIntegral<uint32_t>());
    }
    std::vector<std::string> nodes = {""};
    for (int32_t i = data.ConsumeIntegralInRange(0, 8); i > 0; --i) {
        contents.stages.push_back({Count(data), Status(data), {}});
        for (int32_t slot = data.ConsumeIntegralInRange(0, 5); slot > 0; --slot) {
            auto& values = contents.stages.back().values;
            values.push_back(Text(data, !values.empty()));
        }
        nodes.push_back(data.ConsumeRandomLengthString(12));
        if (!contents.stages.back().values.empty()) {
            nodes.push_back(nodes.back() + contents.stages.back().values[0].value_or("") + "0");
        }
    }
    contents.stageCount = Count(data);
    if (!contents.Table()) {
        return -1;
    }
    contents.Serve();
    LocalConfig::enable = false;
    LocalConfig config;
    const std::string difference = contents.Compare(config, nodes);
    Require(difference.empty(), "different: " + difference);
    return 0;
}
