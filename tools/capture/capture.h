// Reads captures of a device's log: bytes to steps.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/account/step.h"
#include "tools/capture/calls.h"
#include "tools/capture/record_reader.h"

namespace tools {

// A line of the library's that was not understood.
struct NotUnderstood {
    Place place;
    std::string text;  // Shortened, control characters as '?'.
};

// What was read, over all inputs.
struct CaptureSummary {
    int64_t lines = 0;
    int64_t libraryLines = 0;
    int64_t notUnderstood = 0;
    std::vector<NotUnderstood> firstNotUnderstood;
    int64_t lost = 0;    // Lines that are known to be missing.
    std::string damage;  // Why an input could not be read to its end; empty when all could.
    int64_t clockJumps = 0;
    std::string from, to;     // Of the library's lines, as the log's clock says.
    bool hasTimes = false;    // Some lines of the library had a time,
    bool hasUntimed = false;  // some had none;
    bool hasThreads = false;  // the same of threads.
    bool hasUnthreaded = false;
    // What a dump does not tell, as the library showed it last.
    std::optional<int32_t> stageCount;
    std::optional<int32_t> additionalWidth;
};

// Pass the inputs one after the other: Begin, Read in pieces of any length, End for each, and
// Finish once. Memory does not grow with the input.
class CaptureReader : private RecordSink, private StepSink {
  public:
    explicit CaptureReader(StepSink& stepSink) : sink(stepSink), records(*this), calls(*this) {}

    void Begin(uint32_t input) { records.Begin(input); }
    void Read(std::string_view bytes) { records.Read(bytes); }
    void End() { records.End(); }
    // The input that just ended could not be read to its end.
    void NoteDamage(const char* reason) { summary.damage = reason == nullptr ? "damaged" : reason; }
    // Nothing comes for now, but more may: hands on what has come whole.
    void Settle();
    void Finish();

    // Who else is told of each message, with its text, before the steps that it is part of.
    using Listener = std::function<void(const Message&, std::string_view text, const Moment&)>;
    void SetListener(Listener messageListener) { listener = std::move(messageListener); }

    // `lines` is kept up to date while reading.
    const CaptureSummary& Summary() const { return summary; }

  private:
    void OnRecord(const Record& record, const Place& place) override;
    void OnLeftOut(int64_t lines, int32_t process, std::optional<int64_t> time,
                   const Place& place) override;
    void OnFragment(std::string_view line, const Place& place) override;
    void OnStep(const Step& step) override { sink.OnStep(step); }
    void OnDisturbance(const Disturbance& disturbance) override;
    Micros TimeOf(const std::optional<int64_t>& clock, const Place& place);
    void NoteNotUnderstood(std::string_view text, const Place& place);

    StepSink& sink;
    Listener listener;
    RecordReader records;
    CallFinder calls;
    CaptureSummary summary;
    std::optional<int64_t> origin;  // What the clock showed when the time was 0.
    int64_t latest = 0;             // What it showed at most since it was last set.
    int64_t first = 0;              // What it showed at first.
    bool isInScene = false;         // Of some process.
};

// What a file that could not be read is about: "cannot be read", and so on.
class CaptureError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Reads a file, "-" for standard input: text, or a zip with a bug report in it. `onProgress` is
// told how many of how many bytes have been read (0: not known); reading ends when it returns
// false. Throws a CaptureError.
void ReadCapture(CaptureReader& reader, uint32_t input, const std::string& path,
                 const std::function<bool(int64_t done, int64_t all)>& onProgress = {});

}  // namespace tools
