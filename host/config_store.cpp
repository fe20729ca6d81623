// The configuration store: serves a TOML file.

#include "platform/config_store.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cstring>
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

// Returns what is wrong, if anything; the store then serves nothing.
std::optional<std::string> Parse(std::string_view toml, std::string_view name,
                                 toml::table& configuration) {
    configuration.clear();
    try {
        configuration = toml::parse(toml, name);
    } catch (const toml::parse_error& error) {
        std::ostringstream text;
        text << name << ':' << error.source().begin.line << ": " << error.description();
        return text.str();
    }
    return std::nullopt;
}

std::optional<std::string> ParseFile(const std::string& path, toml::table& configuration) {
    std::ifstream file(path);
    std::error_code ignored;
    // A directory can be opened; whether reading it fails depends on the standard library.
    if (!file || std::filesystem::is_directory(path, ignored)) {
        Parse("", path, configuration);
        return path + ":1: cannot be read";
    }
    const std::string text(std::istreambuf_iterator<char>(file), {});
    return Parse(text, path, configuration);
}

// The default configuration: the file that the environment names, or the sample. Read once, so that
// errors are reported once.
const toml::table& InitialConfiguration() {
    static const toml::table& initial = *[] {
        auto* made = new toml::table;  // Never destroyed, like the state.
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

toml::table& Configuration() {
    static toml::table& configuration = *new toml::table(InitialConfiguration());
    return configuration;
}

toml::node_view<const toml::node> Find(const char* section, const char* key) {
    const toml::table& configuration = Configuration();
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

// Lets the script, if there is one, change the answer.
int32_t Scripted(StoreAnswer answer) {
    if (const auto& script = desktop::GetState().storeScript) {
        script(answer);
    }
    return answer.result;
}

}  // namespace

namespace desktop {

std::optional<std::string> LoadConfiguration(std::string_view toml, std::string_view name) {
    return Parse(toml, name, Configuration());
}

std::optional<std::string> LoadConfigurationFile(const std::string& path) {
    return ParseFile(path, Configuration());
}

void ServeInitialConfiguration() {
    Configuration() = InitialConfiguration();
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
        // Negative numbers and those above 32 bits are cut to 32 bits.
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
