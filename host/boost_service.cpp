// A boost service that reports every call to the observer and returns the status that was set. With
// TARVO_DESKTOP_SERVICE=boost each call also goes to the service that boosts, whose status it
// returns.

#include "platform/boost_service.h"

#include <dlfcn.h>

#include <cstdio>
#include <initializer_list>
#include <string>

#include "host/desktop.h"
#include "host/state.h"

namespace {

using desktop::ServiceCall;
using desktop::ServiceFunction;

// The service that boosts; null where the environment does not ask for it. Asked at the first call,
// so that a program can set the variable itself.
void* BoostingService() {
    static void* const service = []() -> void* {
        const std::string wanted = desktop::Environment("TARVO_DESKTOP_SERVICE");
        if (wanted.empty()) {
            return nullptr;
        }
        if (wanted != "boost") {
            std::fprintf(stderr,
                         "TARVO_DESKTOP_SERVICE: \"%s\" is no service, expected boost; nothing is "
                         "boosted\n",
                         wanted.c_str());
            return nullptr;
        }
        // Beside this library. By its path, as sanitizers look up names from elsewhere.
        Dl_info self{};
        dladdr(reinterpret_cast<const void*>(&desktop::GetState), &self);
        std::string path = self.dli_fname == nullptr ? "" : self.dli_fname;
        path.replace(path.rfind('/') + 1, std::string::npos, "libtarvo_cfbt.so");
        void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            // NOLINTNEXTLINE(concurrency-mt-unsafe): the text is the calling thread's.
            std::fprintf(stderr, "TARVO_DESKTOP_SERVICE: %s; nothing is boosted\n", dlerror());
        }
        return library;
    }();
    return service;
}

void Put(ServiceCall& call, const char* name, int32_t value) {
    call.arguments.push_back({name, value});
}

void Put(ServiceCall& call, const char* /*name*/, const std::vector<int32_t>& tids) {
    call.tids = tids;
}

// `Self` is the type of the service's function, whose arguments have these names.
template <ServiceFunction FUNCTION, typename Self, typename... Values>
int32_t Answer(Self* /*self*/, std::initializer_list<const char*> names, const Values&... values) {
    static Self* const boosting =
        BoostingService() == nullptr
            ? nullptr
            : reinterpret_cast<Self*>(dlsym(BoostingService(), desktop::NameOf(FUNCTION)));
    desktop::State& state = desktop::GetState();
    constexpr auto index = static_cast<size_t>(FUNCTION);
    state.serviceCalls[index].fetch_add(1, std::memory_order_relaxed);
    const int32_t status = boosting != nullptr
                               ? boosting(values...)
                               : state.serviceStatus[index].load(std::memory_order_relaxed);
    desktop::Emit([&] {
        ServiceCall call{FUNCTION, {}, {}, status};
        const char* const* name = names.begin();
        (Put(call, *name++, values), ...);
        return call;
    });
    return status;
}

}  // namespace

int32_t cfbtSceneStart(int32_t scene, int32_t fpsClass, int32_t version) {
    return Answer<ServiceFunction::SceneStart>(cfbtSceneStart, {"scene", "fpsClass", "version"},
                                               scene, fpsClass, version);
}

int32_t cfbtSceneEnd(int32_t scene) {
    return Answer<ServiceFunction::SceneEnd>(cfbtSceneEnd, {"scene"}, scene);
}

int32_t cfbtFrameStart(int32_t frameNumber) {
    return Answer<ServiceFunction::FrameStart>(cfbtFrameStart, {"frame"}, frameNumber);
}

int32_t cfbtFrameEnd(int32_t frameNumber) {
    return Answer<ServiceFunction::FrameEnd>(cfbtFrameEnd, {"frame"}, frameNumber);
}

int32_t cfbtStageStart(int32_t frameNumber, int32_t stage, int32_t stageArg1, int32_t stageArg2) {
    return Answer<ServiceFunction::StageStart>(cfbtStageStart, {"frame", "stage", "arg1", "arg2"},
                                               frameNumber, stage, stageArg1, stageArg2);
}

int32_t cfbtStageEnd(int32_t frameNumber, int32_t stage) {
    return Answer<ServiceFunction::StageEnd>(cfbtStageEnd, {"frame", "stage"}, frameNumber, stage);
}

int32_t cfbtAddTids(int32_t scene, const std::vector<int32_t>& tids) {
    return Answer<ServiceFunction::AddTids>(cfbtAddTids, {"scene", "tids"}, scene, tids);
}

int32_t cfbtRemoveTids(int32_t scene, const std::vector<int32_t>& tids) {
    return Answer<ServiceFunction::RemoveTids>(cfbtRemoveTids, {"scene", "tids"}, scene, tids);
}

int32_t cfbtNotifyErrOfUser(int32_t scene, int32_t frameNumber, int32_t stage, int32_t errorStage) {
    return Answer<ServiceFunction::NotifyErrOfUser>(cfbtNotifyErrOfUser,
                                                    {"scene", "frame", "stage", "errorStage"},
                                                    scene, frameNumber, stage, errorStage);
}
