#include "tools/account/accountant.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "tools/account/scene_account.h"
#include "tools/account/step_order.h"

namespace tools {
namespace {

constexpr size_t KINDS = static_cast<size_t>(EventKind::Report) + 1;
constexpr size_t OUTCOMES = static_cast<size_t>(Outcome::Unknown) + 1;
constexpr int32_t NOT_KNOWN = -1;
// Where memory is to stay flat.
constexpr size_t SCENES_KEPT = 1000;

}  // namespace

class Accountant::Implementation : public StepSink {
  public:
    explicit Implementation(AccountOptions accountOptions) : options(std::move(accountOptions)) {}

    // In order.
    void OnStep(const Step& step) override;
    void OnDisturbance(const Disturbance& disturbance) override;
    const Scene* Current() const;
    Account Finish();

    StepOrder order{*this};

  private:
    // A process that uses the library: one camera, as far as its log can tell.
    struct Camera {
        bool isDescribed = false;
        bool isVideo = false;
        int32_t width = 0, fps = 0;
        // The description, while only what comes of it tells whether it qualifies.
        std::optional<Step> pending;
        std::unique_ptr<SceneAccount> scene;
    };

    Scene Begin(const Camera& camera, const Step& step) const;
    void OnSceneStart(Camera& camera, const Step& step, const Event& event);
    void Refuse(const Camera& camera, const Step& step, Outcome outcome);
    void RefusePending(Camera& camera);
    void EndScene(Camera& camera, bool hasEnded = true);
    void Add(Scene&& scene);
    int32_t ExtraWidth() const;  // That is boosted besides 3840; NOT_KNOWN.
    std::string WhyNotBoosted(const Camera& camera) const;
    void FindSeveralCameras();

    AccountOptions options;
    Account account;
    std::map<int32_t, Camera> cameras;  // By process.
    int32_t currentProcess = -1;
    std::array<std::array<int64_t, OUTCOMES>, KINDS> events{};
};

void Accountant::Implementation::OnStep(const Step& step) {
    for (const Event& event : step.events) {
        ++events[static_cast<size_t>(event.kind)][static_cast<size_t>(event.outcome)];
    }
    Camera& camera = cameras[step.process];
    currentProcess = step.process;
    if (step.time != NO_TIME) {
        account.hasTimes = true;
        account.resolution = step.time % 1000 != 0 ? 1 : account.resolution;
    }
    account.hasThreads = account.hasThreads || step.thread != -1;
    if (step.loaded) {
        EndScene(camera, false);  // A process loads the library once: it is a new one.
        camera = Camera();
        account.configuration = step.loaded;
    }
    if (step.call.operation == nullptr) {
        return;
    }
    const std::string_view name = step.call.operation->name;
    if (name == "TcfbtSetSceneInfo" && step.call.arguments.size() == 3) {
        RefusePending(camera);
        camera.isDescribed = true;
        camera.isVideo = std::get<bool>(step.call.arguments[0]);
        camera.width = std::get<int32_t>(step.call.arguments[1]);
        camera.fps = std::get<int32_t>(step.call.arguments[2]);
        const int32_t extra = ExtraWidth();
        // Where the extra width is not known, what comes of the scene tells.
        const bool isOtherWidth =
            extra != NOT_KNOWN && camera.width != 3840 && camera.width != extra;
        if (camera.isVideo && (camera.fps != 60 || isOtherWidth)) {
            if (camera.scene != nullptr) {
                camera.scene->OnStep(step);
                EndScene(camera);
            }
            return Refuse(camera, step, Outcome::NotDescribed);
        }
        // Of a scene that is no video a log does not even tell that it was started.
        if (camera.isVideo ? camera.width != 3840 && extra == NOT_KNOWN : camera.scene == nullptr) {
            camera.pending = step;
        }
    }
    bool isOfScene = false;
    for (const Event& event : step.events) {
        if (event.kind == EventKind::SceneStart) {
            return OnSceneStart(camera, step, event);
        }
        if (event.kind == EventKind::SceneEnd) {
            if (event.outcome == Outcome::Forwarded && camera.scene != nullptr) {
                camera.scene->OnStep(step);
                EndScene(camera);
            }
            return;
        }
        isOfScene = isOfScene || event.outcome != Outcome::NoScene;
    }
    if (camera.scene == nullptr && isOfScene) {
        Scene scene = Begin(camera, step);
        scene.isStarted = true;
        scene.isBeginningMissing = true;
        camera.scene =
            std::make_unique<SceneAccount>(std::move(scene), options, account.configuration);
    }
    if (camera.scene != nullptr) {
        camera.scene->OnStep(step);
    }
}

Scene Accountant::Implementation::Begin(const Camera& camera, const Step& step) const {
    Scene scene;
    scene.from = scene.to = step.place;
    scene.begin = scene.end = step.time;
    scene.process = step.process;
    scene.isDescribed = camera.isDescribed;
    scene.isVideo = camera.isVideo;
    scene.width = camera.width;
    scene.fps = camera.fps;
    return scene;
}

void Accountant::Implementation::OnSceneStart(Camera& camera, const Step& step,
                                              const Event& event) {
    camera.pending.reset();
    if (event.outcome != Outcome::Forwarded) {
        return Refuse(camera, step, event.outcome);
    }
    if (camera.scene != nullptr) {
        return;  // The library goes on with the scene that runs.
    }
    Scene scene = Begin(camera, step);
    scene.isStarted = true;
    if (!step.isGuessed && !step.call.arguments.empty()) {
        scene.mode = std::get<int32_t>(step.call.arguments[0]);
    }
    camera.scene = std::make_unique<SceneAccount>(std::move(scene), options, account.configuration);
}

int32_t Accountant::Implementation::ExtraWidth() const {
    return account.configuration ? account.configuration->additionalWidth.value_or(NOT_KNOWN)
                                 : NOT_KNOWN;
}

std::string Accountant::Implementation::WhyNotBoosted(const Camera& camera) const {
    if (!camera.isDescribed) {
        return "the scene was not described before it was started";
    }
    if (!camera.isVideo) {
        return "the scene was described as no video; only video is boosted";
    }
    std::string text = "the scene was described as video of width " + std::to_string(camera.width) +
                       " at " + std::to_string(camera.fps) + " fps; only ";
    if (camera.fps != 60) {
        return text + "60 fps are boosted";
    }
    const int32_t extra = ExtraWidth();
    text += "width 3840 ";
    if (extra != NOT_KNOWN && extra != 0) {
        text += "or " + std::to_string(extra) + " ";
    }
    return text + "is boosted" +
           (extra != NOT_KNOWN
                ? ""
                : ", and that of additionalSupportedWidth, which the log does not tell");
}

void Accountant::Implementation::Refuse(const Camera& camera, const Step& step, Outcome outcome) {
    Scene scene = Begin(camera, step);
    scene.refusal = outcome;
    if (!step.isGuessed && step.call.operation->name == "TcfbtNotifySceneStart" &&
        !step.call.arguments.empty()) {
        scene.mode = std::get<int32_t>(step.call.arguments[0]);
    }
    AccountedFinding finding;
    finding.place = step.place;
    finding.time = step.time;
    finding.check = "scene-refused";
    finding.severity = Severity::Warning;
    if (outcome == Outcome::RefusedByService) {
        finding.severity = Severity::Error;
        finding.message = "the boost service refused the scene: nothing is boosted";
    } else if (outcome == Outcome::Disabled) {
        finding.check = "disabled";
        finding.severity = Severity::Error;
        finding.message =
            !account.configuration
                ? "the scene was refused: boosting is switched off, or the operation mode is not "
                  "supported; the capture lacks the configuration that would tell which"
            : account.configuration->isEnabled
                ? "the scene was refused: its operation mode is not in SupportOperationModeList"
                : "the scene was refused: boosting is switched off (cameraFrameBoostEnable)";
        if (scene.mode && account.configuration && account.configuration->isEnabled) {
            finding.message += ", it is " + std::to_string(*scene.mode);
        }
    } else {
        finding.message = "nothing is boosted: " + WhyNotBoosted(camera);
        if (step.call.operation->name == "TcfbtSetSceneInfo" && !camera.isVideo) {
            finding.severity = Severity::Note;  // As it is to be, for a preview or a photo.
        }
    }
    // A HAL that tries again and again is told of once.
    if (!account.scenes.empty()) {
        Scene& last = account.scenes.back();
        if (last.process == scene.process && !last.findings.empty() && !last.isStarted &&
            last.findings.front().message == finding.message) {
            ++last.findings.front().times;
            last.to = scene.to;
            last.end = scene.end;
            return;
        }
    }
    scene.findings.push_back(finding);
    if (options.onFinding) {
        options.onFinding(scene, finding);
    }
    Add(std::move(scene));
}

// A description that nothing came of did not qualify.
void Accountant::Implementation::RefusePending(Camera& camera) {
    if (const auto description = std::exchange(camera.pending, std::nullopt)) {
        Refuse(camera, *description, Outcome::NotDescribed);
    }
}

void Accountant::Implementation::EndScene(Camera& camera, bool hasEnded) {
    RefusePending(camera);
    if (camera.scene != nullptr) {
        Add(camera.scene->Close(hasEnded));
        camera.scene.reset();
    }
}

void Accountant::Implementation::Add(Scene&& scene) {
    if (!options.keepsFrames) {
        scene.frames = {};
        scene.stageTimes = {};
        if (account.scenes.size() == SCENES_KEPT) {
            account.scenes.erase(account.scenes.begin());
        }
    }
    account.scenes.push_back(std::move(scene));
}

void Accountant::Implementation::OnDisturbance(const Disturbance& disturbance) {
    bool isTold = false;
    for (auto& [process, camera] : cameras) {
        if (camera.scene != nullptr) {
            camera.scene->OnDisturbance(disturbance);
            isTold = true;
        }
    }
    if (isTold) {
        return;
    }
    AccountedFinding finding;
    finding.place = disturbance.place;
    finding.time = disturbance.time;
    if (disturbance.kind == Disturbance::Kind::LinesLost) {
        finding.check = "lines-lost";
        finding.message = (disturbance.amount > 0 ? std::to_string(disturbance.amount) + " lines"
                                                  : std::string("lines")) +
                          " of the capture are missing where no scene runs";
    } else if (disturbance.kind == Disturbance::Kind::ClockJump) {
        finding.check = "clock-jump";
        finding.message = "the clock was set where no scene runs";
    } else {
        return;
    }
    const auto known =
        std::find_if(account.findings.begin(), account.findings.end(),
                     [&](const AccountedFinding& other) { return other.check == finding.check; });
    if (known != account.findings.end()) {
        ++known->times;
    } else {
        account.findings.push_back(std::move(finding));
    }
}

const Scene* Accountant::Implementation::Current() const {
    const auto camera = cameras.find(currentProcess);
    if (camera != cameras.end() && camera->second.scene != nullptr) {
        return &camera->second.scene->Current();
    }
    return account.scenes.empty() ? nullptr : &account.scenes.back();
}

// Scenes of two processes at the same time are two cameras at work.
void Accountant::Implementation::FindSeveralCameras() {
    for (size_t i = 1; i < account.scenes.size(); ++i) {
        const Scene& scene = account.scenes[i];
        for (size_t j = 0; j < i; ++j) {
            const Scene& other = account.scenes[j];
            if (scene.process != other.process && scene.isStarted && other.isStarted &&
                scene.from.input == other.to.input && scene.from.line < other.to.line) {
                AccountedFinding finding;
                finding.check = "two-cameras";
                finding.place = scene.from;
                finding.time = scene.begin;
                finding.message = "processes " + std::to_string(other.process) + " and " +
                                  std::to_string(scene.process) +
                                  " ran scenes at the same time; they are told apart here";
                account.findings.push_back(std::move(finding));
                return;
            }
        }
    }
}

Account Accountant::Implementation::Finish() {
    for (auto& [process, camera] : cameras) {
        EndScene(camera, false);
    }
    std::stable_sort(account.scenes.begin(), account.scenes.end(),
                     [](const Scene& one, const Scene& other) {
                         return std::pair(one.from.input, one.from.line) <
                                std::pair(other.from.input, other.from.line);
                     });
    FindSeveralCameras();
    for (size_t kind = 0; kind < KINDS; ++kind) {
        for (size_t outcome = 0; outcome < OUTCOMES; ++outcome) {
            if (events[kind][outcome] != 0) {
                account.events[{static_cast<EventKind>(kind), static_cast<Outcome>(outcome)}] =
                    events[kind][outcome];
            }
        }
    }
    return std::move(account);
}

Accountant::Accountant(AccountOptions options)
    : implementation(std::make_unique<Implementation>(std::move(options))) {}
Accountant::~Accountant() = default;

void Accountant::OnStep(const Step& step) {
    implementation->order.OnStep(step);
}

void Accountant::OnDisturbance(const Disturbance& disturbance) {
    implementation->order.OnDisturbance(disturbance);
}

void Accountant::Settle() {
    implementation->order.Flush();
}

const Scene* Accountant::Current() const {
    return implementation->Current();
}

Account Accountant::Finish() {
    implementation->order.Flush();
    return implementation->Finish();
}

}  // namespace tools
