// Android's log, properties and trace.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "host/desktop.h"
#include "host/state.h"
#include "platform/log.h"
#include "platform/properties.h"
#include "platform/trace.h"

namespace {

__attribute__((__format__(printf, 1, 0))) std::string Format(const char* format, va_list values) {
    va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, format, values);
    std::vector<char> text(static_cast<size_t>(length < 0 ? 0 : length) + 1);
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    return text.data();
}

// "MM-DD hh:mm:ss.mmm   pid   tid P tag     : text", logcat's threadtime.
void WriteThreadtime(const desktop::LogLine& line) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, sizeof("MM-DD hh:mm:ss")> date{};
    std::strftime(date.data(), date.size(), "%m-%d %H:%M:%S", &local);
    std::fprintf(stderr, "%s.%03ld %5d %5d %c %-8s: %s\n", date.data(), now.tv_nsec / 1000000,
                 getpid(), desktop::ThreadId(), desktop::LetterOf(line.priority), line.tag.c_str(),
                 line.text.c_str());
}

}  // namespace

std::optional<bool> desktop::BooleanOf(std::string_view value) {
    for (const std::string_view yes : {"1", "y", "yes", "on", "true"}) {
        if (value == yes) {
            return true;
        }
    }
    for (const std::string_view no : {"0", "n", "no", "off", "false"}) {
        if (value == no) {
            return false;
        }
    }
    return std::nullopt;
}

std::optional<int32_t> desktop::NumberOf(const std::string& value) {
    char* end = nullptr;
    errno = 0;
    const int64_t number = std::strtoll(value.c_str(), &end, 0);
    const bool isNumber = errno == 0 && end != value.c_str() &&
                          number >= std::numeric_limits<int32_t>::min() &&
                          number <= std::numeric_limits<int32_t>::max();
    return isNumber ? std::make_optional(static_cast<int32_t>(number)) : std::nullopt;
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    desktop::State& state = desktop::GetState();
    state.logLines.fetch_add(1, std::memory_order_relaxed);
    if (!state.logToStderr && state.observer.load() == nullptr) {
        return 1;
    }
    va_list values;
    va_start(values, format);
    const desktop::LogLine line{priority, tag, format, Format(format, values)};
    va_end(values);
    if (state.logToStderr) {
        WriteThreadtime(line);
    }
    desktop::Emit([&line] { return line; });  // NOLINT(performance-no-automatic-move)
    return 1;
}

int8_t property_get_bool(const char* key, int8_t defaultValue) {
    const auto& properties = desktop::GetState().properties;
    const auto property = properties.find(key);
    const auto value =
        property == properties.end() ? std::nullopt : desktop::BooleanOf(property->second);
    return value ? static_cast<int8_t>(*value) : defaultValue;
}

int32_t property_get_int32(const char* key, int32_t defaultValue) {
    const auto& properties = desktop::GetState().properties;
    const auto property = properties.find(key);
    const auto value =
        property == properties.end() ? std::nullopt : desktop::NumberOf(property->second);
    return value.value_or(defaultValue);
}

uint64_t atrace_get_enabled_tags() {
    return desktop::GetState().traceTags.load(std::memory_order_relaxed);
}

void atrace_int_body(const char* name, int32_t value) {
    desktop::State& state = desktop::GetState();
    state.counterUpdates.fetch_add(1, std::memory_order_relaxed);
    if (state.traceMarker >= 0) {
        // One write each: the kernel makes an entry of it, and refuses it while nothing records.
        std::array<char, 128> text{};
        const int length =
            std::snprintf(text.data(), text.size(), "C|%d|%s|%d\n", getpid(), name, value);
        [[maybe_unused]] const ssize_t written = write(
            state.traceMarker, text.data(), std::min(static_cast<size_t>(length), text.size() - 1));
    } else if (state.logToStderr) {
        std::fprintf(stderr, "C|%d|%s|%d\n", getpid(), name, value);
    }
    desktop::Emit([=] { return desktop::CounterUpdate{name, value}; });
}
