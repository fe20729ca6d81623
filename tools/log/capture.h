// Reads captures of a device's log: bytes to the library's messages.

#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/finding.h"
#include "tools/base/times.h"
#include "tools/log/message.h"
#include "tools/log/overlap.h"
#include "tools/log/record_reader.h"

namespace tools {

// When, and by whom, a message was logged.
struct Moment {
    Micros time = NO_TIME;  // Since the capture's first line of the library. Steps of the clock are
                            // taken out: the time goes on from where it was.
    int32_t process = -1;   // -1 where the form does not tell it.
    int32_t thread = -1;    // The same.
};

// Is told what a capture holds, in its order.
class MessageSink {
  public:
    virtual ~MessageSink() = default;
    // `message.place` is the line. The message's texts are gone after the call.
    virtual void OnMessage(const Message& message, const Moment& moment) = 0;
    // The log itself says that it left out `lines` lines of `moment.process` (-1: not known).
    virtual void OnLinesLeftOut(int64_t /*lines*/, const Moment& /*moment*/,
                                const Place& /*place*/) {}
    // The clock was set by so much; `moment.time` is where the time goes on.
    virtual void OnClockSet(Micros /*step*/, const Moment& /*moment*/, const Place& /*place*/) {}
};

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
    int64_t lost = 0;          // Lines that the log says it left out.
    std::string damage;        // Why an input could not be read to its end; empty if all could.
    std::string from, to;      // Of the library's lines, as the log's clock says.
    bool hasTimes = false;     // Some lines of the library had a time.
    bool hasThreads = false;   // Some lines of the library had a thread.
    Micros resolution = 1000;  // Of the times: 1000 where all are whole milliseconds, else 1.
    Micros last =
        NO_TIME;  // The time of the last line of any tag, as far as it has been looked at.
};

// Takes the text of files.
class TextSink {
  public:
    virtual ~TextSink() = default;
    // The next piece, of any length.
    virtual void Read(std::string_view bytes) = 0;
    // The end of a file.
    virtual void End() = 0;
    // The file that just ended could not be read to its end. Returns whether what there was of it
    // is of use.
    virtual bool TakeDamage(const char* reason) = 0;
};

// Pass the inputs one after the other: Begin, Read in pieces of any length, End for each, and
// Finish once. Memory does not grow with the input.
class CaptureReader : public TextSink, private RecordSink {
  public:
    // The sinks are told of each message in their order. They belong to the caller.
    explicit CaptureReader(std::vector<MessageSink*> messageSinks);

    void Begin(uint32_t input);
    void Read(std::string_view bytes) override { records.Read(bytes); }
    void End() override;
    bool TakeDamage(const char* reason) override;
    // Nothing comes for now, but more may: hands on what has come whole.
    void Settle() { records.Settle(); }
    void Finish();

    // `lines` and `last` are kept up to date while reading.
    const CaptureSummary& Summary() const { return summary; }

  private:
    void OnRecord(const Record& record, const Place& place) override;
    void OnTime(int64_t time) override;
    void TakeLeftOut(const Record& record, const Place& place);
    Moment MomentOf(const Record& record, const Place& place);
    int64_t WithoutMadeUpDay(int64_t clock);
    void NoteNotUnderstood(std::string_view text, const Place& place);

    std::vector<MessageSink*> sinks;
    OverlapFilter overlap{*this};
    RecordReader records{overlap};
    CaptureSummary summary;
    std::set<int32_t> processes;            // Those with messages.
    std::optional<int64_t> origin;          // What the clock showed when the time was 0.
    int64_t latest = 0;                     // What it showed at most since it was last set.
    int64_t firstClock = 0, lastClock = 0;  // Of the library's lines, as the log has it.
    bool hasLeapDay = false;                // A 29th of February was seen.
    bool isInScene = false;                 // Of some process.
};

// What is wrong with what is compressed.
class CaptureError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Reads a file from its beginning: text, what gzip made of text, or a zip with a bug report in it.
// `onProgress` is told how many of how many bytes have been read (0: not known); reading ends when
// it returns false. Throws a CaptureError, and what reading from `in` throws.
void ReadText(TextSink& sink, std::istream& in,
              const std::function<bool(int64_t done, int64_t all)>& onProgress = {});

}  // namespace tools
