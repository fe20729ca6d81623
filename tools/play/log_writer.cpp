#include "tools/play/log_writer.h"

#include <variant>

namespace tools {

LogWriter::LogWriter(std::ostream& stream, const Format& captureFormat, int64_t captureBegin)
    : out(stream), format(captureFormat), begin(captureBegin) {}

void LogWriter::SetMoment(Micros newTime, int32_t newThread) {
    time = newTime;
    thread = newThread;
}

void LogWriter::OnEffect(const desktop::Effect& effect) {
    const auto* line = std::get_if<desktop::LogLine>(&effect.event);
    if (line == nullptr) {
        return;
    }
    Record record;
    record.time = begin + time;
    record.process = CAPTURE_PROCESS;
    record.thread = thread;
    record.priority = desktop::LetterOf(line->priority);
    record.tag = line->tag;
    record.message = line->text;
    text.clear();
    AppendRecord(text, format, record);
    out << text;
}

}  // namespace tools
