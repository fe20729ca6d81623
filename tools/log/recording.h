// Reads recordings of Perfetto, which are packets in protobuf's wire format, one after the other: a
// device's log, its scheduler and its clocks in one file.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/times.h"
#include "tools/log/record_reader.h"

namespace tools {

template <size_t MOST>
class Fields;

// Gets the packets of a recording in the order of the file, which need not be that of their times.
// A packet is gone after the call. May throw a protozero::exception at one that is damaged.
using PacketSink = std::function<void(std::string_view packet)>;

// Splits files that are recordings into packets; a file is one by its first bytes. Pass files one
// after the other, in pieces of any length.
class PacketReader {
  public:
    explicit PacketReader(PacketSink packetSink) : sink(std::move(packetSink)) {}

    // Takes the next bytes. Returns bytes of a file that is no recording; they are good until the
    // next call.
    std::string_view Read(std::string_view bytes) { return Take(bytes, false); }
    // The same at the end of a file. Another file may follow.
    std::string_view End();
    // Why the last file could not be read whole; empty if it could.
    const std::string& Damage() const { return damage; }

  private:
    enum class Form { Unknown, Recording, Other, Broken };

    std::string_view Take(std::string_view bytes, bool isEnd);
    void Split();
    void TakePacket(std::string_view packet);

    PacketSink sink;
    Form form = Form::Unknown;
    std::string pending;  // Bytes that are no whole packet yet.
    std::string text;     // Returned by the last call.
    std::string damage;
};

// The clocks of a recorder, by their numbers in a recording.
enum RecorderClock : uint64_t { REALTIME = 1, MONOTONIC_RAW = 5, BOOTTIME = 6 };

// What clocks showed at one moment, in nanoseconds.
std::map<uint64_t, uint64_t> ClocksOf(std::string_view snapshot);

// The log in a recording.
class RecordingLog {
  public:
    struct Delivered {
        int64_t lines = 0;
        // How far the recorder's clock is ahead of the log's; nothing where no snapshot of the
        // clocks shows that, or where the log's clock was set while it was recorded.
        std::optional<Micros> ahead{};
    };

    void TakePacket(std::string_view packet);
    // Gives the lines that were taken to the sink, in the order in which they were logged, and
    // forgets them. Lines are numbered from 1.
    Delivered Deliver(RecordSink& sink, uint32_t input);

  private:
    struct Event {
        Micros written;     // When its packet was written, by the recorder's clock.
        uint64_t lost = 0;  // How many lines are lost here; 0 for an event that is a line.
        Micros time = 0;
        int32_t process = -1, thread = -1;
        char priority = '?';
        uint8_t tag = 0;              // Which of the tags that matter, or OTHER_TAG.
        size_t text = 0, length = 0;  // Of the message, in `texts`.
    };

    void TakeLine(const Fields<8>& line, Micros written);

    std::vector<Event> events;
    std::optional<Micros> ahead;  // As Delivered's, by the first snapshot.
    bool isSet = false;           // The log's clock was set.
    std::string texts;
    std::set<uint64_t> sequences;  // Those of which a packet was seen.
    uint64_t failed = 0;           // Lines that the recorder could not read.
};

}  // namespace tools
