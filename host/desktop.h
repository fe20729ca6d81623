// A desktop platform for the camera frame boost library: takes the place of Android and of a
// device's own libraries, so that the same library runs on a Linux workstation.
//
// With this header tools and tests set the platform up and watch it. By default the store serves
// the built-in sample configuration, all properties are unset, tracing is off, the boost service
// returns 0 from every call, and log lines and trace counters go to standard error. Environment
// variables change that before any code of the program has run; a value that cannot be used is
// reported on standard error once:
//
//     TARVO_DESKTOP_CONFIG        a TOML file for the store to serve
//     TARVO_DESKTOP_PROPERTIES    system properties: name=value,name=value
//     TARVO_DESKTOP_SERVICE       boost: each call of the boost service goes on to libtarvo_cfbt,
//                                 which boosts, and returns its status
//     TARVO_DESKTOP_TRACE_TAGS    the mask of enabled trace tags, decimal or 0x and hexadecimal
//     TARVO_DESKTOP_TRACE_MARKER  1: trace counters go into the kernel's trace, and no longer to
//                                 standard error; or the trace_marker to write, such as that of an
//                                 instance of the tracer. scripts/sched-trace sets it.
//
// Threads: the platform functions may be called from any thread. The functions below may be called
// while no other thread is in a platform function; SetServiceStatus, SetTraceTags and SetObserver
// at any time.

#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace desktop {

// ---- What the library does to its platform: effects, in order ----

enum class ServiceFunction {
    SceneStart,
    SceneEnd,
    FrameStart,
    FrameEnd,
    StageStart,
    StageEnd,
    AddTids,
    RemoveTids,
    NotifyErrOfUser,
};
inline constexpr size_t SERVICE_FUNCTION_COUNT =
    static_cast<size_t>(ServiceFunction::NotifyErrOfUser) + 1;

// One argument of a service call, with its name.
struct ServiceArgument {
    const char* name;
    int32_t value;
};

// A call into the boost service.
struct ServiceCall {
    ServiceFunction function;
    std::vector<ServiceArgument> arguments;  // Those that are numbers, in order.
    std::vector<int32_t> tids;               // The list of AddTids and RemoveTids.
    int32_t status;                          // What the service returned.

    // The value of the argument `name`; -1 when the function has none of that name.
    int32_t Argument(std::string_view name) const;
};

// A line written to Android's log.
struct LogLine {
    int priority;
    std::string tag;
    std::string format;  // As the library passed it: shows which statement wrote the line.
    std::string text;    // With the values filled in.
};

// A trace counter set to a value.
struct CounterUpdate {
    std::string name;
    int32_t value;
};

struct Effect {
    std::chrono::system_clock::time_point time;
    int32_t thread;  // The kernel's id of the thread that called the platform, as logs have it.
    std::variant<ServiceCall, LogLine, CounterUpdate> event;
};

// The service function's name, such as "cfbtSceneStart", and the function of a name; nothing when
// there is none of that name.
const char* NameOf(ServiceFunction function);
std::optional<ServiceFunction> ServiceFunctionOf(std::string_view name);

// How Android's log shows a priority: "D" for debug; a question mark for an unknown one.
char LetterOf(int priority);

// One line of text each: "cfbtFrameStart(frame=7)", followed by " = 5" when the status is 5 and not
// 0; "D tag: text"; "counter name = 7".
std::string ToString(const ServiceCall& call);
std::string ToString(const LogLine& line);
std::string ToString(const CounterUpdate& update);

// Is called for every effect as it happens, on the thread that causes it and with none of the
// platform's locks held. From a service call or a counter it may call the library again; not from a
// log line, which the library may write with its own lock held.
class Observer {
  public:
    virtual ~Observer() = default;
    virtual void OnEffect(const Effect& effect) = 0;
};

// Sets the observer; null for none, as at the start. The caller owns the observer and sets another
// one, or null, before destroying it.
void SetObserver(Observer* observer);

// Keeps every effect from its construction to its destruction. At most one may exist at a time.
class Recorder : public Observer {
  public:
    Recorder();
    ~Recorder() override;
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void OnEffect(const Effect& effect) override;

    // Returns the effects since the last Take, and forgets them.
    std::vector<Effect> Take();

  private:
    std::mutex mutex;
    std::vector<Effect> effects;  // Guarded by mutex.
};

// How often the platform was called since the program started. Without an observer, and with log
// lines not going to standard error, calls are only counted.
int64_t ServiceCallCount(ServiceFunction function);
int64_t LogLineCount();
int64_t CounterUpdateCount();

// ---- The boost service ----

// What `function` returns from now on, unless TARVO_DESKTOP_SERVICE has another service answer.
void SetServiceStatus(ServiceFunction function, int32_t status);

// ---- The configuration store ----

// From now on serves a TOML file, or TOML text that error messages call `name`. Returns
// "file:line: reason" for a configuration that cannot be read or parsed; the store then serves
// nothing.
//
// A section is a table, a key an entry in it; a list is an array, of numbers or texts; locale keys
// are the entries of a table under their key. Numbers in a list of texts count as texts. A key that
// is missing or of another kind gives a count of 0 and a status of -1.
std::optional<std::string> LoadConfigurationFile(const std::string& path);
std::optional<std::string> LoadConfiguration(std::string_view toml, std::string_view name);

enum class StoreFunction {
    GetInteger,
    GetBoolean,
    GetValuesCount,
    GetUIntegerList,
    GetLocaleKeyCount,
    GetLocaleKeyValuesCount,
    GetLocaleStringList,
};

// An answer that the store is about to return. A script may change the result and the values that
// the pointers point to.
struct StoreAnswer {
    StoreFunction function;
    std::string_view key;
    std::string_view localeKey;  // Empty where the function takes none.
    int32_t result;              // The count or the status.
    int32_t* integer;            // GetInteger: the value.
    uint32_t* numbers;           // GetBoolean: the flag. GetUIntegerList: the caller's array.
    char** texts;                // GetLocaleStringList: the caller's array.
    int64_t length;              // The length of the caller's array.
};

// Calls `script` with every answer of the store before it is returned; an empty one ends that. With
// it, tests make any function of the store fail in any way.
void SetStoreScript(std::function<void(StoreAnswer&)> script);

// A text as the store hands it out: allocated with new char[], to be deleted by the receiver.
char* NewStoreText(std::string_view text);

// ---- Android ----

// Sets a system property, or unsets it when `value` is empty.
void SetProperty(const std::string& name, const std::string& value);

// Sets the mask of enabled trace tags.
void SetTraceTags(uint64_t mask);

// Whether log lines go to standard error, in the form of logcat's threadtime, and also trace
// counters that do not go into the kernel's trace, in the form of a trace: "C|pid|name|value".
void SetLogToStderr(bool on);

// ---- All of it ----

// Sets everything back to the state at the start; the observer stays.
void Reset();

}  // namespace desktop
