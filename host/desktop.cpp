#include "host/desktop.h"

#include <fcntl.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <system_error>
#include <utility>

#include "host/state.h"

namespace desktop {
namespace {

constexpr std::array<const char*, SERVICE_FUNCTION_COUNT> SERVICE_FUNCTION_NAMES = {
    "cfbtSceneStart", "cfbtSceneEnd", "cfbtFrameStart", "cfbtFrameEnd",        "cfbtStageStart",
    "cfbtStageEnd",   "cfbtAddTids",  "cfbtRemoveTids", "cfbtNotifyErrOfUser",
};

// Android's settings from the environment. Read once, so that errors are reported once.
struct InitialAndroid {
    std::map<std::string, std::string> properties;
    uint64_t traceTags = 0;
    int traceMarker = -1;
};

void ReadProperties(InitialAndroid& android) {
    std::istringstream entries(Environment("TARVO_DESKTOP_PROPERTIES"));
    for (std::string entry; std::getline(entries, entry, ',');) {
        const size_t equals = entry.find('=');
        if (equals == 0 || equals == std::string::npos) {
            std::fprintf(stderr, "TARVO_DESKTOP_PROPERTIES: \"%s\" is no property, expected %s\n",
                         entry.c_str(), "name=value");
            continue;
        }
        const std::string value = entry.substr(equals + 1);
        if (!value.empty() && !BooleanOf(value) && !NumberOf(value)) {
            std::fprintf(stderr,
                         "TARVO_DESKTOP_PROPERTIES: \"%s\" counts as not set, expected 1, y, yes, "
                         "on, true, 0, n, no, off, false or a number\n",
                         entry.c_str());
        }
        android.properties[entry.substr(0, equals)] = value;
    }
}

void ReadTraceTags(InitialAndroid& android) {
    const std::string mask = Environment("TARVO_DESKTOP_TRACE_TAGS");
    if (mask.empty()) {
        return;
    }
    char* end = nullptr;
    errno = 0;
    android.traceTags = std::strtoull(mask.c_str(), &end, 0);
    // strtoull takes a leading sign or blank, which a mask must not have.
    if (errno != 0 || *end != '\0' || std::isdigit(static_cast<unsigned char>(mask[0])) == 0) {
        std::fprintf(stderr,
                     "TARVO_DESKTOP_TRACE_TAGS: \"%s\" is no mask, expected such as 0x400; "
                     "tracing is off\n",
                     mask.c_str());
        android.traceTags = 0;
    }
}

void OpenTraceMarker(InitialAndroid& android) {
    std::string marker = Environment("TARVO_DESKTOP_TRACE_MARKER");
    if (marker.empty() || marker == "0") {
        return;
    }
    const bool isDefault = marker == "1";
    if (isDefault) {
        marker = "/sys/kernel/tracing/trace_marker";
    }
    android.traceMarker = open(marker.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (android.traceMarker < 0 && errno == ENOENT && isDefault) {
        marker = "/sys/kernel/debug/tracing/trace_marker";
        android.traceMarker = open(marker.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    }
    if (android.traceMarker < 0) {
        std::fprintf(stderr,
                     "TARVO_DESKTOP_TRACE_MARKER: cannot write %s: %s; counters go to standard "
                     "error\n",
                     marker.c_str(), std::generic_category().message(errno).c_str());
    }
}

void SetInitialAndroid(State& state) {
    static const InitialAndroid initial = [] {
        InitialAndroid android;
        ReadProperties(android);
        ReadTraceTags(android);
        OpenTraceMarker(android);
        return android;
    }();
    state.properties = initial.properties;
    state.traceTags = initial.traceTags;
    state.traceMarker = initial.traceMarker;
}

}  // namespace

std::string Environment(const char* name) {
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing sets it.
    return value == nullptr ? "" : value;
}

State& GetState() {
    static State& state = *[] {
        // Never destroyed: threads may still be in the platform while the process ends.
        auto* made = new State;
        SetInitialAndroid(*made);
        return made;
    }();
    return state;
}

int64_t ServiceCallCount(ServiceFunction function) {
    return GetState().serviceCalls[static_cast<size_t>(function)];
}

int64_t LogLineCount() {
    return GetState().logLines;
}

int64_t CounterUpdateCount() {
    return GetState().counterUpdates;
}

int32_t ServiceCall::Argument(std::string_view name) const {
    for (const ServiceArgument& argument : arguments) {
        if (argument.name == name) {
            return argument.value;
        }
    }
    return -1;
}

const char* NameOf(ServiceFunction function) {
    return SERVICE_FUNCTION_NAMES[static_cast<size_t>(function)];
}

std::optional<ServiceFunction> ServiceFunctionOf(std::string_view name) {
    for (size_t i = 0; i < SERVICE_FUNCTION_COUNT; ++i) {
        if (name == SERVICE_FUNCTION_NAMES[i]) {
            return static_cast<ServiceFunction>(i);
        }
    }
    return std::nullopt;
}

std::string ToString(const ServiceCall& call) {
    std::ostringstream text;
    text << NameOf(call.function) << '(';
    const char* separator = "";
    for (const ServiceArgument& argument : call.arguments) {
        text << std::exchange(separator, ", ") << argument.name << '=' << argument.value;
    }
    if (call.function == ServiceFunction::AddTids || call.function == ServiceFunction::RemoveTids) {
        text << ", tids=[";
        separator = "";
        for (const int32_t tid : call.tids) {
            text << std::exchange(separator, ", ") << tid;
        }
        text << ']';
    }
    text << ')';
    if (call.status != 0) {
        text << " = " << call.status;
    }
    return text.str();
}

char LetterOf(int priority) {
    // Of Android's priorities, from 0 for unknown.
    constexpr std::string_view letters = "??VDIWEFS";
    const auto index = static_cast<size_t>(priority);
    return index < letters.size() ? letters[index] : '?';
}

std::string ToString(const LogLine& line) {
    return std::string(1, LetterOf(line.priority)) + " " + line.tag + ": " + line.text;
}

std::string ToString(const CounterUpdate& update) {
    return "counter " + update.name + " = " + std::to_string(update.value);
}

void SetObserver(Observer* observer) {
    GetState().observer.store(observer, std::memory_order_release);
}

Recorder::Recorder() {
    SetObserver(this);
}

Recorder::~Recorder() {
    SetObserver(nullptr);
}

void Recorder::OnEffect(const Effect& effect) {
    const std::lock_guard<std::mutex> lock(mutex);
    effects.push_back(effect);
}

std::vector<Effect> Recorder::Take() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(effects, {});
}

void SetServiceStatus(ServiceFunction function, int32_t status) {
    GetState().serviceStatus[static_cast<size_t>(function)] = status;
}

void SetStoreScript(std::function<void(StoreAnswer&)> script) {
    GetState().storeScript = std::move(script);
}

void SetProperty(const std::string& name, const std::string& value) {
    GetState().properties[name] = value;
}

void SetTraceTags(uint64_t mask) {
    GetState().traceTags = mask;
}

void SetLogToStderr(bool on) {
    GetState().logToStderr = on;
}

void Reset() {
    State& state = GetState();
    for (std::atomic<int32_t>& status : state.serviceStatus) {
        status = 0;
    }
    state.logToStderr = true;
    state.storeScript = nullptr;
    SetInitialAndroid(state);
    ServeInitialConfiguration();
}

}  // namespace desktop
