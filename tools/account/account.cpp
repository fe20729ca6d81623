#include "tools/account/account.h"

#include <algorithm>

namespace tools {

const char* NameOf(FrameStatus status) {
    static constexpr const char* NAMES[FRAME_STATUSES] = {"complete", "error",  "evicted",
                                                          "refused",  "unseen", "open"};
    return NAMES[static_cast<size_t>(status)];
}

const char* ReasonOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::Forwarded:
            return "";
        case Outcome::Reported:
            return "reported as bad";
        case Outcome::Evicted:
            return "too many frames in flight";
        case Outcome::Ignored:
            return "this node and port end no stage";
        case Outcome::NoScene:
            return "no scene is running";
        case Outcome::NotDescribed:
            return "not described as a scene to boost";
        case Outcome::Disabled:
            return "switched off, or the operation mode is not supported";
        case Outcome::RefusedByService:
            return "by the service";
        case Outcome::AlreadyInFlight:
            return "already in flight";
        case Outcome::Gap:
            return "does not follow the newest frame";
        case Outcome::NotInFlight:
            return "not in flight";
        case Outcome::FrameInError:
            return "the frame is in error";
        case Outcome::NoSuchStage:
            return "no such stage";
        case Outcome::OutOfOrder:
            return "out of order with another stage";
        case Outcome::StageOutOfTurn:
            return "the stage has run already, or has not started";
        case Outcome::Unknown:
            return "lines of the log are missing";
    }
    return "";
}

int64_t Scene::CountOf(FrameStatus status) const {
    return statusCounts[static_cast<size_t>(status)];
}

Severity WorstOf(const Account& account) {
    Severity worst = Severity::Note;
    const auto consider = [&worst](const std::vector<AccountedFinding>& findings) {
        for (const AccountedFinding& finding : findings) {
            worst = std::max(worst, finding.severity);
        }
    };
    consider(account.findings);
    for (const Scene& scene : account.scenes) {
        consider(scene.findings);
    }
    return worst;
}

std::string VerdictOf(const Account& account) {
    int64_t frames = 0, notBoosted = 0, untold = 0, late = 0, started = 0;
    Micros threshold = 0;
    for (const Scene& scene : account.scenes) {
        for (const int64_t count : scene.statusCounts) {
            frames += count;
        }
        notBoosted += scene.notBoosted;
        untold += scene.untold;
        late += scene.lateFrames;
        threshold = std::max(threshold, scene.lateThreshold);
        started += scene.isStarted ? 1 : 0;
    }
    if (started == 0) {
        return "Nothing was boosted: no scene was started.";
    }
    if (frames == 0) {
        return "Nothing was boosted: no frame was reported.";
    }
    const std::string all = std::to_string(frames) + (frames == 1 ? " frame" : " frames");
    const Micros tenths = (threshold + 50) / 100;
    const std::string behind = ", more than " + std::to_string(tenths / 10) + "." +
                               std::to_string(tenths % 10) + " ms after the frame before.";
    const std::string lateness =
        account.hasTimes ? "none late" : "though whether in time is not known";
    if (notBoosted + untold + late == 0) {
        return WorstOf(account) == Severity::Note
                   ? "All is well: " + all + ", all boosted, " + lateness + "."
                   : all + ", all boosted, " + lateness + ", but there is something to look at.";
    }
    if (notBoosted + untold == 0) {
        return all + ", all boosted, but " + std::to_string(late) + " came out late" + behind;
    }
    const auto were = [](int64_t count) {
        return std::to_string(count) + (count == 1 ? " was" : " were");
    };
    std::string verdict = "Of " + all + " " +
                          (notBoosted > 0 ? were(notBoosted) + " not boosted from start to end"
                                          : were(frames - untold) + " boosted");
    if (untold > 0) {
        verdict += "; what became of " + std::to_string(untold) +
                   " cannot be told, as lines of the log are missing";
    }
    if (!account.hasTimes) {
        return verdict + "; which came out late is not known.";
    }
    // A frame may be both.
    return verdict + (late == 0 ? "; none came out late."
                                : "; " + std::to_string(late) + " of the " +
                                      std::to_string(frames) + " came out late" + behind);
}

}  // namespace tools
