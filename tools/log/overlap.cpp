#include "tools/log/overlap.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <string_view>

namespace tools {
namespace {

// As many of the library's lines as Android's largest log buffer holds, 16 MB.
constexpr size_t LONGEST_OVERLAP = 131'072;
// In forms without time the first line may stand in many places. The longest overlaps are tried.
constexpr size_t MOST_CANDIDATES = 64;
// All messages begin with the library's name, which tells nothing.
constexpr size_t SAME_IN_ALL = 24;

uint64_t HashOf(const Record& record) {
    constexpr uint64_t spread = 0x9E37'79B9'7F4A'7C15;
    const std::string_view message = record.message;
    uint64_t hash =
        std::hash<std::string_view>()(message.substr(std::min(message.size(), SAME_IN_ALL)));
    for (const int64_t number :
         {record.time.value_or(-1), int64_t{record.process}, int64_t{record.thread}}) {
        hash = (hash ^ static_cast<uint64_t>(number)) * spread;
        hash ^= hash >> 32;
    }
    return hash;
}

}  // namespace

bool OverlapFilter::MayRepeat(uint64_t hash) {
    const size_t position = hashes++;
    if (position == 0) {
        for (size_t at = 0; at < tail.size() && candidates.size() < MOST_CANDIDATES; ++at) {
            if (tail[at] == hash) {
                candidates.push_back(at);
            }
        }
    } else {
        std::erase_if(candidates, [&](size_t at) {
            return at + position >= tail.size() || tail[at + position] != hash;
        });
    }
    if (!candidates.empty() && candidates.back() + position + 1 == tail.size()) {
        repeated = position + 1;
    }
    return !candidates.empty();
}

void OverlapFilter::HandOn(const Record& record, const Place& place) {
    // A part of a line is never repeated whole.
    if (record.isWhole) {
        if (tail.size() == LONGEST_OVERLAP) {
            tail.pop_front();
        }
        tail.push_back(HashOf(record));
    }
    sink.OnRecord(record, place);
}

void OverlapFilter::End() {
    isComparing = false;
    size_t position = 0;
    for (Held& it : held) {
        if (position >= repeated) {
            it.record.message = it.message;
            HandOn(it.record, it.place);
        }
        position += it.record.isWhole ? 1U : 0U;
    }
    held.clear();
    candidates.clear();
    hashes = repeated = 0;
}

void OverlapFilter::OnRecord(const Record& record, const Place& place) {
    if (!isComparing) {
        HandOn(record, place);
        return;
    }
    held.push_back({record, std::string(record.message), place});
    if (record.isWhole && !MayRepeat(HashOf(record))) {
        End();
    }
}

void OverlapFilter::OnTime(int64_t time) {
    if (!isComparing) {
        sink.OnTime(time);
    }
}

}  // namespace tools
