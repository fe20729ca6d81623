// The configuration that a process dumps into the log when it loads the library.

#pragma once

#include "tools/check/check.h"
#include "tools/log/message.h"

namespace tools {

// Adds what a message of the dump says to `configuration`. False for any other message. The dump
// lacks the additional width, and the count of stages where some are not loaded.
bool AddDumped(const Message& message, Configuration& configuration);

// Whether a process is at its dump.
class Dumping {
  public:
    // To be called with each message of the process. Whether it begins a dump, some of whose first
    // lines may be missing: the library has been loaded.
    bool Begins(const Message& message);

  private:
    bool isGoingOn = false;
};

}  // namespace tools
