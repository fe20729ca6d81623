// Reads captures of a device's log: bytes to the library's messages.

#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/base/finding.h"
#include "tools/base/times.h"
#include "tools/log/message.h"
#include "tools/log/record_reader.h"
#include "tools/log/recording.h"

namespace tools {

// When, and by whom, a message was logged.
struct Moment {
    Micros time = NO_TIME;  // Since the capture's first line of the library. Steps of the clock are
                            // taken out: the time goes on from where it was.
    int32_t process = -1;
    int32_t thread = -1;  // -1 where the form lacks it.
};

// Gets what a capture holds, in its order.
class MessageSink {
  public:
    virtual ~MessageSink() = default;
    // `message.place` is the line. The message's texts are gone after the call.
    virtual void OnMessage(const Message& message, const Moment& moment) = 0;
    // The log itself says that it left out `lines` lines of `moment.process`.
    virtual void OnLinesLeftOut(int64_t /*lines*/, const Moment& /*moment*/,
                                const Place& /*place*/) {}
    // The clock was set by so much; `moment.time` is where the time goes on.
    virtual void OnClockSet(Micros /*step*/, const Moment& /*moment*/, const Place& /*place*/) {}
};

// A line of the library's that was not understood.
struct NotUnderstood {
    Place place;
    std::string text;  // As Printable makes it.
};

// What was read, over all inputs.
struct CaptureSummary {
    int64_t lines = 0;
    int64_t libraryLines = 0;
    int64_t notUnderstood = 0;
    std::vector<NotUnderstood> firstNotUnderstood;
    int64_t lost = 0;          // Lines that the log says it left out.
    std::string damage;        // Why an input could not be read to its end; empty if all could.
    std::string from, to;      // Of the library's lines, as the log's clock says; empty where no
                               // line was understood.
    int64_t clock = 0;         // What that clock showed when the time was 0, as Record::time.
    Micros resolution = 1000;  // Of the times: 1000 where all are whole milliseconds, else 1.
    // The time of the last line of any tag, as far as it has been looked at.
    Micros last = NO_TIME;
    // Of a recording: how far its recorder's clock is ahead of the times; nothing where that is not
    // known.
    std::optional<Micros> ahead;
};

// A time of the log's clock as people read it: "11-23 00:03:00.123", with the year where the log
// has it; seconds of a clock that counts from the boot.
std::string ClockText(int64_t clock);

// Takes the text of files.
class TextSink {
  public:
    virtual ~TextSink() = default;
    // The next piece, of any length.
    virtual void Read(std::string_view bytes) = 0;
    // The end of a file.
    virtual void End() {}
    // The file that just ended could not be read to its end. Returns whether what there was of it
    // is of use.
    virtual bool TakeDamage(const char* /*reason*/) { return true; }
};

// Pass the inputs one after the other: Begin, Read in pieces of any length, End for each, and
// Finish once. Memory does not grow with the input. Read and End throw a CommandError that names
// lines of the library's which cannot be explained as they are: they have no times, stand twice, or
// come before those that they follow.
class CaptureReader : public TextSink, private RecordSink {
  public:
    // Each sink gets each message, one sink after the other. They belong to the caller.
    explicit CaptureReader(std::vector<MessageSink*> messageSinks)
        : sinks(std::move(messageSinks)) {}

    // `name`: what messages call the input.
    void Begin(const std::string& name);
    // Gets all packets of captures that are recordings.
    void SetPacketSink(PacketSink packetSink) { otherPackets = std::move(packetSink); }
    void Read(std::string_view bytes) override { records.Read(packets.Read(bytes)); }
    void End() override;
    bool TakeDamage(const char* reason) override;
    void Finish();

    // `lines` and `last` are kept up to date while reading.
    const CaptureSummary& Summary() const { return summary; }

  private:
    // A line that was read, to know it again.
    struct Known {
        int64_t time;
        int32_t process, thread;
        size_t hash;  // Of its message.
        Place place;
    };
    struct Thread {
        int64_t time = 0;
        bool isAdding = false;  // Its last line goes on with the start of the frame that it adds.
    };

    void OnRecord(const Record& record, const Place& place) override;
    void OnTime(int64_t time) override;
    void TakeLeftOut(const Record& record, const Place& place);
    Moment MomentOf(const Record& record, const Place& place);
    int64_t WithoutMadeUpDay(int64_t clock);
    void NoteNotUnderstood(std::string_view text, const Place& place);
    void RequireTimes(int64_t most) const;
    void CheckOrder(const Record& record, const Message& message);
    std::string NameOf(const Place& place) const;

    std::vector<MessageSink*> sinks;
    std::vector<std::string> names;  // Of the inputs.
    RecordReader records{*this};
    RecordingLog recordingLog;
    PacketSink otherPackets;
    PacketReader packets{[this](std::string_view packet) {
        recordingLog.TakePacket(packet);
        if (otherPackets) {
            otherPackets(packet);
        }
    }};
    int64_t recordedLines = 0;
    bool wasSet = false;  // The log's clock, before the last line.
    CaptureSummary summary;
    std::set<int32_t> processes;    // Those with messages.
    std::optional<int64_t> origin;  // What the clock showed when the time was 0.
    int64_t latest = 0;             // What it showed at most since it was last set.
    int64_t latestOther = 0;        // The same, with lines of other programs.
    bool hasOthers = false;         // Some stand behind the library's last line.
    int64_t lastClock = 0;          // Of the library's lines, as the log has it.
    bool hasLeapDay = false;        // A 29th of February was seen.
    bool isInScene = false;         // Of some process.
    std::deque<Known> known;        // The lines that were understood last.
    std::unordered_map<int64_t, Thread> threads;
    // Of the input:
    bool isBeginning = true;                 // No line has been understood.
    int64_t timedLines = 0, otherLines = 0;  // Of the library: with a time, and without.
    Place firstOther;
};

// Reads an open file: text, what gzip made of text, or a zip with a bug report in it. `name`: what
// messages call it. `onProgress` gets how many of how many bytes have been read (0: not known);
// reading ends when it returns false. Throws a CommandError.
void ReadText(TextSink& sink, const std::string& name, int descriptor,
              const std::function<bool(int64_t done, int64_t all)>& onProgress);

}  // namespace tools
