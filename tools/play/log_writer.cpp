#include "tools/play/log_writer.h"

#include <string>

namespace tools {

void WriteLogLine(std::ostream& out, const Format& format, int64_t time, int32_t thread,
                  const desktop::LogLine& line) {
    std::string text;
    text.reserve(256);  // Few lines are longer.
    AppendRecord(
        text, format,
        {time, CAPTURE_PROCESS, thread, desktop::LetterOf(line.priority), line.tag, line.text});
    out << text;
}

}  // namespace tools
