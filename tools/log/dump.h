// The configuration that a process dumps into the log when it loads the library.

#pragma once

#include "tools/check/check.h"
#include "tools/log/message.h"

namespace tools {

// Adds what a message of the dump tells to `configuration`. False for any other message. The dump
// lacks the additional width, and the count of stages where some are not loaded. DumpSwitch begins
// one.
bool AddDumped(const Message& message, Configuration& configuration);

}  // namespace tools
