#include "tools/log/recording.h"

#include <zlib.h>

#include <algorithm>
#include <protozero/pbf_reader.hpp>
#include <set>
#include <utility>

#include "tools/log/message.h"

namespace tools {
namespace {

// Enough to tell a packet from text, which may begin with the same byte.
constexpr size_t HEAD = 64;
// Recorders write packets of some 100 KB; more than this is none.
constexpr uint64_t LONGEST_PACKET = 256 << 20;

constexpr std::string_view TAGS[] = {FACADE_TAG, UTILS_TAG, CHATTY_TAG};
constexpr uint8_t OTHER_TAG = std::size(TAGS);
constexpr std::string_view PRIORITIES = "??VDIWEFS";

// Whether the bytes, the first of a file, begin with a packet.
bool IsRecording(std::string_view head) {
    const char* at = head.data();
    const char* const end = at + head.size();
    try {
        if (protozero::decode_varint(&at, end) != 0x0A) {
            return false;
        }
        const uint64_t length = protozero::decode_varint(&at, end);
        if (length == 0 || length > LONGEST_PACKET) {
            return false;
        }
        const char* const last = at + std::min<uint64_t>(length, static_cast<uint64_t>(end - at));
        while (at < last) {
            const uint64_t key = protozero::decode_varint(&at, last);
            uint64_t skipped = 0;
            switch (key & 7U) {
                case 0:
                    protozero::skip_varint(&at, last);
                    break;
                case 1:
                    skipped = 8;
                    break;
                case 2:
                    skipped = protozero::decode_varint(&at, last);
                    break;
                case 5:
                    skipped = 4;
                    break;
                default:
                    return false;
            }
            if (key < 8 || skipped > length) {
                return false;
            }
            at += std::min<uint64_t>(skipped, static_cast<uint64_t>(last - at));
        }
    } catch (const protozero::end_of_buffer_exception&) {
        return head.size() >= HEAD;  // It goes on.
    } catch (const protozero::exception&) {
        return false;
    }
    return true;
}

// What zlib made of a text; as far as it goes where that is damaged.
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

std::string_view PacketReader::Text() {
    text = std::exchange(pending, {});
    return text;
}

std::string_view PacketReader::Read(std::string_view bytes) {
    if (form == Form::Other) {
        return bytes;
    }
    if (form == Form::Broken) {
        return {};
    }
    pending += bytes;
    if (form == Form::Unknown) {
        if (pending.size() < HEAD) {
            return {};
        }
        form = IsRecording(pending) ? Form::Recording : Form::Other;
        damage.clear();
    }
    if (form == Form::Other) {
        return Text();
    }
    Split();
    return {};
}

std::string_view PacketReader::End() {
    if (form == Form::Unknown) {
        damage.clear();
        form = IsRecording(pending) ? Form::Recording : Form::Other;
        if (form == Form::Recording) {
            Split();
        }
    }
    const Form last = std::exchange(form, Form::Unknown);
    if (last == Form::Other) {
        return Text();
    }
    if (last == Form::Recording && !pending.empty()) {
        damage = "it is cut in the middle of a packet";
    }
    pending.clear();
    return {};
}

// A file is field 1, repeated.
void PacketReader::Split() {
    const char* at = pending.data();
    const char* const end = at + pending.size();
    const char* whole = at;
    try {
        while (at < end) {
            const uint64_t key = protozero::decode_varint(&at, end);
            const uint64_t length = protozero::decode_varint(&at, end);
            if (key != 0x0A || length > LONGEST_PACKET) {
                damage = "what follows is no packet";
                form = Form::Broken;
                pending.clear();
                return;
            }
            if (length > static_cast<uint64_t>(end - at)) {
                break;
            }
            TakePacket({at, length});
            whole = at += length;
        }
    } catch (const protozero::end_of_buffer_exception&) {
        // The number goes on in the next piece.
    } catch (const protozero::exception&) {
        damage = "what follows is no packet";
        form = Form::Broken;
        whole = end;
    }
    pending.erase(0, static_cast<size_t>(whole - pending.data()));
}

void PacketReader::TakePacket(std::string_view packet) {
    constexpr protozero::pbf_tag_type DEFLATED = 50, ZSTD = 133;
    try {
        protozero::pbf_reader fields(packet);
        while (fields.next()) {
            if (fields.tag() == ZSTD) {
                throw RecordingError(
                    "its packets are compressed with zstd, which is not read: record without, "
                    "or\nopen it in ui.perfetto.dev and download it from there");
            }
            if (fields.tag() != DEFLATED) {
                fields.skip();
                continue;
            }
            const std::string bundle = Inflated(fields.get_view());
            protozero::pbf_reader packets(bundle);
            while (packets.next(1)) {
                sink(packets.get_view());
            }
        }
        sink(packet);
    } catch (const protozero::exception&) {
        damage = "a packet is damaged";
    }
}

// ---- The log ----

void RecordingLog::TakePacket(std::string_view packet) {
    protozero::pbf_reader fields(packet);
    int64_t written = 0;
    uint64_t sequence = 0;
    bool isAfterLoss = false;
    std::string_view log;
    while (fields.next()) {
        switch (fields.tag()) {
            case 8:
                written = static_cast<int64_t>(fields.get_uint64());
                break;
            case 10:
                sequence = fields.get_uint32();
                break;
            case 39:
                log = fields.get_view();
                break;
            case 42:
                isAfterLoss = fields.get_bool();
                break;
            default:
                fields.skip();
        }
    }
    // The first packet of a sequence is marked, too, as nobody knows what was before.
    const bool isFirst = sequences.try_emplace(sequence).second;
    if (log.empty()) {
        return;
    }
    if (isAfterLoss && !isFirst) {
        events.push_back({written, NO_TIME, -1, -1, '?', OTHER_TAG, 1});
    }
    protozero::pbf_reader parts(log);
    while (parts.next()) {
        if (parts.tag() == 1) {
            TakeEvent(parts.get_view(), written);
        } else if (parts.tag() == 2) {
            protozero::pbf_reader counts(parts.get_view());
            while (counts.next(2)) {
                const auto all = static_cast<int64_t>(counts.get_uint64());
                if (all > failed) {
                    const auto lost = static_cast<uint32_t>(all - failed);
                    events.push_back({written, NO_TIME, -1, -1, '?', OTHER_TAG, lost});
                    failed = all;
                }
            }
        } else {
            parts.skip();
        }
    }
}

void RecordingLog::TakeEvent(std::string_view bytes, int64_t written) {
    Event event{written, 0, -1, -1, '?', OTHER_TAG, 0};
    std::string_view message;
    protozero::pbf_reader fields(bytes);
    while (fields.next()) {
        switch (fields.tag()) {
            case 2:
                event.process = fields.get_int32();
                break;
            case 3:
                event.thread = fields.get_int32();
                break;
            case 5:
                event.time = static_cast<int64_t>(fields.get_uint64()) / 1000;
                break;
            case 6: {
                const std::string_view tag = fields.get_view();
                event.tag = static_cast<uint8_t>(std::ranges::find(TAGS, tag) - TAGS);
                break;
            }
            case 7: {
                const uint32_t priority = fields.get_uint32();
                event.priority = priority < PRIORITIES.size() ? PRIORITIES[priority] : '?';
                break;
            }
            case 8:
                message = fields.get_view();
                break;
            default:
                fields.skip();
        }
    }
    if (event.tag != OTHER_TAG) {
        event.text = texts.size();
        event.length = message.size();
        texts += message;
    }
    events.push_back(event);
}

int64_t RecordingLog::Deliver(RecordSink& sink, uint32_t input) {
    std::ranges::stable_sort(events, {}, &Event::written);
    std::set<int32_t> processes;  // The library's.
    Place place{input, 0};
    Micros time = 0;
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
        processes.insert(event.process);
        sink.OnRecord({time, event.process, event.thread, event.priority, TAGS[event.tag],
                       std::string_view(texts).substr(event.text, event.length)},
                      place);
    }
    *this = {};
    return place.line;
}

}  // namespace tools
