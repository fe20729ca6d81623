// What became of a HAL call, told from the messages that the library left on the call's thread.

#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "tools/account/step.h"
#include "tools/capture/message.h"

namespace tools {

// Adds what a message of the configuration's dump tells to `configuration`. False for any other
// message. The dump lacks the additional width, and the count of stages where some are not loaded.
bool AddDumped(const Message& message, Configuration& configuration);

struct Told {
    size_t read = 0;     // How many of the messages are the call's.
    size_t missing = 0;  // How many more there should have been, at least.
};

// Fills `step.events` from `step.call` and `step.result`.
//
// `messages`: what the call's thread logged from the call's beginning on, maybe those of later
// calls as well. Events point at the places of their messages. `configuration`: the one loaded,
// which tells which node ends count. `isCut`: lines may be missing behind the last message, so that
// silence tells nothing.
//
// The library is silent about an event of a frame in error and, when no scene runs, about
// everything. An event that can be neither, though its message is missing, is Outcome::Unknown.
// Without a result and without a message a call other than a node end is taken to have had a scene.
// `isStagePort`: whether a node end is one that counts, for who has worked it out.
Told TellEvents(Step& step, std::span<const Message> messages, const Configuration& configuration,
                bool isCut = false, std::optional<bool> isStagePort = {});

}  // namespace tools
