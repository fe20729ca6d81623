// The state of the desktop platform. Internal.

#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "host/desktop.h"

namespace desktop {

struct State {
    std::atomic<Observer*> observer{nullptr};
    std::array<std::atomic<int32_t>, SERVICE_FUNCTION_COUNT> serviceStatus{};
    std::array<std::atomic<int64_t>, SERVICE_FUNCTION_COUNT> serviceCalls{};
    std::atomic<int64_t> logLines{0};
    std::atomic<int64_t> counterUpdates{0};
    std::atomic<uint64_t> traceTags{0};
    std::atomic<bool> logToStderr{true};
    int traceMarker = -1;  // Where the kernel takes counters, never closed; -1 for nowhere.
    std::map<std::string, std::string> properties;
    std::function<void(StoreAnswer&)> storeScript;
};

// The one state. Made at the first call: the library calls the platform while it is being loaded,
// when the platform's own variables may not be initialised yet.
State& GetState();

// The value of an environment variable; empty when it is not set.
std::string Environment(const char* name);

// Lets the store serve its default configuration again.
void ServeInitialConfiguration();

// Whether a property's value means true or false to Android; nothing when it means neither.
std::optional<bool> BooleanOf(std::string_view value);

// The number with which a property's value begins; nothing when that is none of 32 bits.
std::optional<int32_t> NumberOf(const std::string& value);

// The kernel's id of this thread. gettid() is missing in older C libraries, such as the one that
// Android's build machines use.
inline int32_t ThreadId() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}

// Calls the observer. Without one, `makeEvent` is not called.
template <typename MakeEvent>
void Emit(MakeEvent makeEvent) {
    if (Observer* observer = GetState().observer.load(std::memory_order_acquire)) {
        observer->OnEffect(Effect{std::chrono::system_clock::now(), ThreadId(), makeEvent()});
    }
}

}  // namespace desktop
