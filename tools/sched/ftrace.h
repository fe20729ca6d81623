// Reads the text of the kernel's tracer, ftrace, as a kernel, atrace, systrace (in HTML) and
// Perfetto's converter write it.

#pragma once

#include <string>
#include <string_view>

#include "tools/log/capture.h"
#include "tools/sched/trace.h"

namespace tools {

// Takes a trace. Lines that are none of a trace's are left alone, so that HTML needs nothing else.
class FtraceReader : public TextSink {
  public:
    void Read(std::string_view bytes) override;
    void End() override;
    bool TakeDamage(const char* reason) override;
    // What was read, given away. To be called once, last.
    SchedTrace Finish() { return maker.Finish(); }

  private:
    SchedTraceMaker maker;
    std::string unfinished;  // A line that is not whole yet.
};

}  // namespace tools
