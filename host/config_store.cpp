// The configuration store: serves a TOML file.

#include "platform/config_store.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>

#include "host/desktop.h"
#include "host/sample_configuration.h"
#include "host/state.h"

namespace {

using desktop::StoreAnswer;
using desktop::StoreFunction;

constexpr int32_t OK = 0;
constexpr int32_t FAILED = -1;

struct Store {
    std::string name;  // What messages call the configuration.
    toml::table configuration;
};

// Answers with what is wrong; the store then serves nothing.
std::optional<std::string> Parse(std::string_view toml, std::string_view name, Store& store) {
    store.name = name;
    store.configuration.clear();
    try {
        store.configuration = toml::parse(toml, name);
    } catch (const toml::parse_error& error) {
        std::ostringstream text;
        text << name << ':' << error.source().begin.line << ": " << error.description();
        return text.str();
    }
    return std::nullopt;
}

std::optional<std::string> ParseFile(const std::string& path, Store& store) {
    std::ifstream file(path);
    std::error_code ignored;
    // A directory can be opened; whether reading it fails depends on the standard library.
    if (!file || std::filesystem::is_directory(path, ignored)) {
        Parse("", path, store);
        return path + ":1: cannot be read";
    }
    const std::string text(std::istreambuf_iterator<char>(file), {});
    return Parse(text, path, store);
}

// What is served until something else is: what the environment asks for, or the sample. Read once,
// so that what is wrong with it is said once.
const Store& InitialStore() {
    static const Store& initial = *[] {
        auto* made = new Store;  // Never destroyed, like the state.
        const std::string path = desktop::Environment("TARVO_DESKTOP_CONFIG");
        const auto error = path.empty()
                               ? Parse(desktop::SAMPLE_CONFIGURATION, "sample configuration", *made)
                               : ParseFile(path, *made);
        if (error) {
            std::fprintf(stderr, "%s\n", error->c_str());
        }
        return made;
    }();
    return initial;
}

Store& GetStore() {
    static Store& store = *new Store(InitialStore());
    return store;
}

toml::node_view<const toml::node> Find(const char* section, const char* key) {
    const toml::table& configuration = GetStore().configuration;
    return configuration[section][key];
}

const toml::array* FindLocaleList(const char* section, const char* key, const char* localeKey) {
    return Find(section, key)[localeKey].as_array();
}

int32_t SizeOf(const toml::array* list) {
    return list == nullptr ? 0 : static_cast<int32_t>(list->size());
}

std::optional<std::string> TextOf(const toml::node& value) {
    if (const auto number = value.value_exact<int64_t>()) {
        return std::to_string(*number);
    }
    return value.value_exact<std::string>();
}

// The last word on an answer is the script's, if there is one.
int32_t Scripted(StoreAnswer answer) {
    if (const auto& script = desktop::GetState().storeScript) {
        script(answer);
    }
    return answer.result;
}

std::string At(const toml::source_position& position, std::string_view what) {
    std::ostringstream text;
    text << GetStore().name << ':' << position.line << ": " << what;
    return text.str();
}

std::string At(const toml::node& node, std::string_view what) {
    return At(node.source().begin, what);
}

}  // namespace

namespace desktop {
namespace {

// Collects what is wrong with the library's section.
class Checker {
  public:
    std::vector<std::string> Check() {
        const toml::node* found = GetStore().configuration.get("TarvoCameraFrameBoostConfig");
        const toml::table* section = found == nullptr ? nullptr : found->as_table();
        if (section == nullptr) {
            findings.push_back(GetStore().name +
                               ":1: no table [TarvoCameraFrameBoostConfig]: nothing is configured");
            return findings;
        }
        for (const auto& [key, value] : *section) {
            CheckKey(key.str(), value);
        }
        return findings;
    }

  private:
    void CheckKey(std::string_view key, const toml::node& value) {
        if (key == "additionalSupportedWidth") {
            Expect(FitsInt32(value.value_exact<int64_t>()), value,
                   "additionalSupportedWidth must be a width in pixels");
        } else if (key == "cameraFrameBoostEnable") {
            Expect(value.is_boolean(), value, "cameraFrameBoostEnable must be true or false");
        } else if (key == "SupportOperationModeList") {
            Expect(value.is_array() && value.as_array()->is_homogeneous<int64_t>(), value,
                   "SupportOperationModeList must be a list of numbers");
        } else if (key == "stage") {
            Expect(value.is_table(), value, "stage must be a table of lists");
            if (value.is_table()) {
                CheckStages(*value.as_table());
            }
        } else {
            Expect(false, value, std::string(key) + " is not a key that the library reads");
        }
    }

    void CheckStages(const toml::table& stages) {
        for (const auto& [stage, value] : stages) {
            const std::string name = "stage " + std::string(stage.str());
            const auto number = std::strtoul(stage.data(), nullptr, 10);
            Expect(std::to_string(number) == stage.str() && number < stages.size(), value,
                   name + ": stages are numbered from 0 without a gap");
            const toml::array* list = value.as_array();
            Expect(list != nullptr && !list->empty() && list->front().is_string(), value,
                   name + " must be a list of a node name and port ids");
            for (size_t i = 1; list != nullptr && i < list->size(); ++i) {
                const std::optional<std::string> text = TextOf(*list->get(i));
                Expect(text && FitsInt32(LeadingNumber(*text)), *list->get(i),
                       name +
                           ": port ids are decimal numbers of 32 bits; any other text makes the "
                           "library end the process");
            }
        }
    }

    void Expect(bool holds, const toml::node& node, std::string_view otherwise) {
        if (!holds) {
            findings.push_back(At(node, otherwise));
        }
    }

    static std::optional<int64_t> LeadingNumber(const std::string& text) {
        char* end = nullptr;
        const int64_t number = std::strtoll(text.c_str(), &end, 10);
        return end == text.c_str() ? std::nullopt : std::make_optional(number);
    }

    static bool FitsInt32(std::optional<int64_t> number) {
        return number && *number >= std::numeric_limits<int32_t>::min() &&
               *number <= std::numeric_limits<int32_t>::max();
    }

    std::vector<std::string> findings;
};

}  // namespace

std::optional<std::string> LoadConfiguration(std::string_view toml, std::string_view name) {
    return Parse(toml, name, GetStore());
}

std::optional<std::string> LoadConfigurationFile(const std::string& path) {
    return ParseFile(path, GetStore());
}

std::vector<std::string> CheckConfiguration() {
    return Checker().Check();
}

void ServeInitialConfiguration() {
    GetStore() = InitialStore();
}

char* NewStoreText(std::string_view text) {
    auto* copy = new char[text.size() + 1];
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

}  // namespace desktop

int32_t GetIntegerConfiguration(const char* section, const char* key, int32_t* value) {
    const auto number = Find(section, key).value_exact<int64_t>();
    const bool fits = number && *number >= std::numeric_limits<int32_t>::min() &&
                      *number <= std::numeric_limits<int32_t>::max();
    if (fits) {
        *value = static_cast<int32_t>(*number);
    }
    return Scripted(
        {StoreFunction::GetInteger, key, "", fits ? OK : FAILED, value, nullptr, nullptr, 0});
}

int32_t GetBooleanConfiguration(const char* section, const char* key, uint32_t* flag) {
    const auto value = Find(section, key).value_exact<bool>();
    if (value) {
        *flag = *value ? 1 : 0;
    }
    return Scripted(
        {StoreFunction::GetBoolean, key, "", value ? OK : FAILED, nullptr, flag, nullptr, 1});
}

int32_t GetValuesCount(const char* section, const char* key) {
    return Scripted({StoreFunction::GetValuesCount, key, "", SizeOf(Find(section, key).as_array()),
                     nullptr, nullptr, nullptr, 0});
}

int32_t GetUIntegerListConfiguration(const char* section, const char* key, uint32_t* values,
                                     uint32_t count) {
    const toml::array* list = Find(section, key).as_array();
    int32_t status = list == nullptr ? FAILED : OK;
    for (size_t i = 0; status == OK && i < std::min<size_t>(list->size(), count); ++i) {
        // Negative numbers and those above 32 bits are cut like the store's own.
        if (const auto number = list->get(i)->value_exact<int64_t>()) {
            values[i] = static_cast<uint32_t>(*number);
        } else {
            status = FAILED;
        }
    }
    return Scripted(
        {StoreFunction::GetUIntegerList, key, "", status, nullptr, values, nullptr, count});
}

int32_t GetLocaleKeyCount(const char* section, const char* key) {
    const toml::table* keys = Find(section, key).as_table();
    return Scripted({StoreFunction::GetLocaleKeyCount, key, "",
                     keys == nullptr ? 0 : static_cast<int32_t>(keys->size()), nullptr, nullptr,
                     nullptr, 0});
}

int32_t GetLocaleKeyValuesCount(const char* section, const char* key, const char* localeKey) {
    return Scripted({StoreFunction::GetLocaleKeyValuesCount, key, localeKey,
                     SizeOf(FindLocaleList(section, key, localeKey)), nullptr, nullptr, nullptr,
                     0});
}

int32_t GetLocaleStringListConfiguration(const char* section, const char* key,
                                         const char* localeKey, char** values, int32_t count) {
    const toml::array* list = FindLocaleList(section, key, localeKey);
    int32_t status = list == nullptr ? FAILED : OK;
    for (int32_t i = 0; status == OK && i < std::min(SizeOf(list), count); ++i) {
        if (const auto text = TextOf(*list->get(static_cast<size_t>(i)))) {
            values[i] = desktop::NewStoreText(*text);
        } else {
            status = FAILED;
        }
    }
    return Scripted({StoreFunction::GetLocaleStringList, key, localeKey, status, nullptr, nullptr,
                     values, count});
}
