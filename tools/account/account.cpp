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

}  // namespace tools
