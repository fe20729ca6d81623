#include "tools/log/recording.h"

#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <utility>

#include "tools/log/fields.h"
#include "tools/log/message.h"

namespace tools {
namespace {

// Enough to distinguish a packet from text, which may begin with the same byte.
constexpr size_t HEAD = 64;
// Recorders write packets of some 100 KB; a larger length than this is of no packet.
constexpr uint64_t LONGEST_PACKET = 256 << 20;

// Lines of several threads do not stand quite in order, and clocks are adjusted by a little.
constexpr Micros SLACK = SECOND / 10;
// Recorders take lines out of the log's buffer within that time.
constexpr Micros LONGEST_DELAY = 5 * SECOND;

constexpr std::string_view TAGS[] = {FACADE_TAG, UTILS_TAG, CHATTY_TAG};
constexpr uint8_t OTHER_TAG = std::size(TAGS);
constexpr std::string_view PRIORITIES = "??VDIWEFS";

// Whether the bytes, the first of a file, begin with a packet.
bool IsRecording(std::string_view head) {
    head = head.substr(0, HEAD);  // The same answer however much was read at once.
    if (!head.starts_with('\x0A')) {
        return false;
    }
    const char* at = head.data() + 1;
    const char* const end = head.data() + head.size();
    try {
        const uint64_t length = protozero::decode_varint(&at, end);
        const auto rest = static_cast<uint64_t>(end - at);
        protozero::pbf_reader packet(at, std::min(length, rest));
        while (packet.next()) {
            packet.skip();
        }
        return length > 0 && length <= LONGEST_PACKET;
    } catch (const protozero::end_of_buffer_exception&) {
        return head.size() >= HEAD;  // The packet goes on behind the head.
    } catch (const protozero::exception&) {
        return false;
    }
}

// Unpacks what zlib packed; where that is damaged, as far as it goes.
std::string Inflated(std::string_view packed) {
    std::string text;
    std::string piece(1 << 18, '\0');
    z_stream stream{};
    inflateInit(&stream);
    // zlib does not change what it reads.
    stream.next_in = const_cast<Bytef*>(reinterpret_cast<const Bytef*>(packed.data()));
    stream.avail_in = static_cast<uInt>(packed.size());
    int status = Z_OK;
    while (status == Z_OK && text.size() < LONGEST_PACKET) {
        stream.next_out = reinterpret_cast<Bytef*>(piece.data());
        stream.avail_out = static_cast<uInt>(piece.size());
        status = inflate(&stream, Z_NO_FLUSH);
        text.append(piece, 0, piece.size() - stream.avail_out);
    }
    inflateEnd(&stream);
    return text;
}

}  // namespace

// ---- Packets ----

std::string_view PacketReader::Take(std::string_view bytes, bool isEnd) {
    if (form == Form::Other) {
        return bytes;
    }
    if (form == Form::Broken) {
        return {};
    }
    pending += bytes;
    if (form == Form::Unknown && (isEnd || pending.size() >= HEAD)) {
        form = IsRecording(pending) ? Form::Recording : Form::Other;
        damage.clear();
    }
    if (form == Form::Other) {
        text = std::exchange(pending, {});
        return text;
    }
    if (form == Form::Recording) {
        Split();
    }
    return {};
}

std::string_view PacketReader::End() {
    const std::string_view rest = Take({}, true);
    if (form == Form::Recording && !pending.empty()) {
        damage = "it is cut in the middle of a packet";
    }
    form = Form::Unknown;
    pending.clear();
    return rest;
}

// Each packet of a file is a field 1.
void PacketReader::Split() {
    const char* at = pending.data();
    const char* const end = at + pending.size();
    const char* whole = at;
    try {
        while (at < end) {
            const bool isPacket = *at++ == '\x0A';
            const uint64_t length = protozero::decode_varint(&at, end);
            if (!isPacket || length > LONGEST_PACKET) {
                throw protozero::invalid_tag_exception();
            }
            if (length > static_cast<uint64_t>(end - at)) {
                break;
            }
            TakePacket({at, length});
            whole = at += length;
        }
    } catch (const protozero::end_of_buffer_exception&) {
        // The length goes on in the next piece.
    } catch (const protozero::exception&) {
        damage = "what follows is no packet";
        form = Form::Broken;
        whole = end;
    }
    pending.erase(0, static_cast<size_t>(whole - pending.data()));
}

void PacketReader::TakePacket(std::string_view packet) {
    constexpr uint32_t DEFLATED = 50, ZSTD = 133;
    try {
        ForEachField(packet, [this](uint32_t field, std::string_view content) {
            if (field == ZSTD) {
                damage =
                    "its packets are compressed with zstd, which is not read: record without "
                    "that (compression_type in Perfetto's configuration)";
            }
            if (field == DEFLATED) {
                ForEachField(Inflated(content),
                             [this](uint32_t, std::string_view one) { sink(one); });
            }
        });
        sink(packet);
    } catch (const protozero::exception&) {
        damage = "a packet is damaged";
    }
}

// ---- The log ----

std::map<uint64_t, uint64_t> ClocksOf(std::string_view snapshot) {
    std::map<uint64_t, uint64_t> times;
    ForEachField(snapshot, [&times](uint32_t field, std::string_view content) {
        if (field == 1) {
            const Fields<2> clock(content);
            times[clock.Number(1)] = clock.Number(2);
        }
    });
    return times;
}

void RecordingLog::TakePacket(std::string_view packet) {
    const Fields<42> fields(packet);
    const Micros written = fields.Number<Micros>(8) / 1000;
    if (const std::string_view snapshot = fields.Text(6); !snapshot.empty()) {
        std::map<uint64_t, uint64_t> clocks = ClocksOf(snapshot);
        if (clocks[REALTIME] != 0 && clocks[BOOTTIME] != 0) {
            const Micros now = static_cast<Micros>(clocks[BOOTTIME]) / 1000 -
                               static_cast<Micros>(clocks[REALTIME]) / 1000;
            isSet = isSet || std::abs(now - ahead.value_or(now)) > SLACK;
            ahead = ahead.value_or(now);
        }
    }
    // The mark that packets are lost before this one means nothing at the first of a sequence: all
    // of these have it.
    const bool isFirst = sequences.insert(fields.Number(10)).second;
    const std::string_view log = fields.Text(39);
    if (log.empty()) {
        return;
    }
    if (fields.Number(42) != 0 && !isFirst) {
        events.push_back({written, 1});
    }
    const uint64_t allFailed = Fields<2>(Fields<2>(log).Text(2)).Number(2);
    if (allFailed > failed) {
        events.push_back({written, allFailed - failed});
        failed = allFailed;
    }
    ForEachField(log, [this, written](uint32_t field, std::string_view event) {
        if (field == 1) {
            TakeLine(Fields<8>(event), written);
        }
    });
}

void RecordingLog::TakeLine(const Fields<8>& line, Micros written) {
    const auto tag = std::ranges::find(TAGS, line.Text(6)) - TAGS;
    const std::string_view text = tag == OTHER_TAG ? "" : line.Text(8);
    const size_t priority = std::min(line.Number(7), PRIORITIES.size());
    events.push_back({written, 0, line.Number<Micros>(5) / 1000, line.Number<int32_t>(2),
                      line.Number<int32_t>(3), PRIORITIES[priority % PRIORITIES.size()],
                      static_cast<uint8_t>(tag), texts.size(), text.size()});
    texts += text;
}

RecordingLog::Delivered RecordingLog::Deliver(RecordSink& sink, uint32_t input) {
    std::ranges::stable_sort(events, {}, &Event::written);
    std::set<int32_t> processes;  // Those that have the library.
    Place place{input, 0};
    Micros time = 0, latest = 0;
    for (const Event& event : events) {
        if (event.lost > 0) {
            const std::string text = std::to_string(event.lost) + " lines";
            for (const int32_t process : processes) {
                sink.OnRecord({time, process, -1, 'I', CHATTY_TAG, text}, place);
            }
            continue;
        }
        ++place.line;
        time = event.time;
        if (event.tag == OTHER_TAG) {
            sink.OnTime(time);
            continue;
        }
        // A line is logged soon before its packet is written, and behind the lines before it. Where
        // it seems otherwise, the log's clock was set.
        const Micros boottime = time + ahead.value_or(0);
        isSet = isSet || boottime > event.written + MILLISECOND ||
                boottime <= event.written - LONGEST_DELAY || boottime + SLACK < latest;
        latest = std::max(latest, boottime);
        processes.insert(event.process);
        sink.OnRecord({time, event.process, event.thread, event.priority, TAGS[event.tag],
                       std::string_view(texts).substr(event.text, event.length)},
                      place);
    }
    const Delivered delivered = {place.line, isSet ? std::nullopt : ahead};
    *this = {};
    return delivered;
}

}  // namespace tools
