// What it costs to load the library, compared with the floor: the calls of the configuration store
// that loading has to make.

#include <dlfcn.h>

#include <array>
#include <cstdlib>
#include <string>

#include "benchmarks/floor.h"
#include "platform/config_store.h"

namespace {

void Load(benchmark::State& state) {
    const auto work = [] {
        void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            std::abort();
        }
        dlclose(library);
    };
    const auto floor = [] {
        constexpr char SECTION[] = "TarvoCameraFrameBoostConfig";
        int32_t width = 0;
        uint32_t flag = 0;
        std::array<uint32_t, 16> modes{};
        GetIntegerConfiguration(SECTION, "additionalSupportedWidth", &width);
        GetBooleanConfiguration(SECTION, "cameraFrameBoostEnable", &flag);
        const int32_t stages = GetLocaleKeyCount(SECTION, "stage");
        const int32_t modeCount = GetValuesCount(SECTION, "SupportOperationModeList");
        GetUIntegerListConfiguration(SECTION, "SupportOperationModeList", modes.data(),
                                     static_cast<uint32_t>(modeCount));
        for (int32_t stage = 0; stage < stages; ++stage) {
            const std::string key = std::to_string(stage);
            std::array<char*, 16> texts{};
            const int32_t count = GetLocaleKeyValuesCount(SECTION, "stage", key.c_str());
            GetLocaleStringListConfiguration(SECTION, "stage", key.c_str(), texts.data(), count);
            for (const char* text : texts) {
                delete[] text;
            }
        }
    };
    Measure(state, 1, work, floor);
}
BENCHMARK(Load)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
