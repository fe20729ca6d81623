#include "tools/log/overlap.h"

#include <algorithm>
#include <string>
#include <utility>

namespace tools {
namespace {

// As many of the library's lines as Android's largest log buffer holds, 16 MB.
constexpr size_t LONGEST_OVERLAP = 131'072;
// In forms without time the first line may stand in many places. The longest overlaps are tried.
constexpr size_t MOST_CANDIDATES = 64;
// All messages begin with the library's name, which tells nothing.
constexpr size_t SAME_IN_ALL = 24;

uint64_t HashOf(std::optional<int64_t> time, int32_t process, int32_t thread,
                std::string_view message) {
    constexpr uint64_t spread = 0x9E37'79B9'7F4A'7C15;
    uint64_t hash =
        std::hash<std::string_view>()(message.substr(std::min(message.size(), SAME_IN_ALL)));
    for (const int64_t number : {time.value_or(-1), int64_t{process}, int64_t{thread}}) {
        hash = (hash ^ static_cast<uint64_t>(number)) * spread;
        hash ^= hash >> 32;
    }
    return hash;
}

}  // namespace

void OverlapFilter::Begin() {
    isComparing = !tail.empty();
}

void OverlapFilter::End() {
    Release();
}

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

void OverlapFilter::Remember(uint64_t hash) {
    if (tail.size() == LONGEST_OVERLAP) {
        tail.pop_front();
    }
    tail.push_back(hash);
}

void OverlapFilter::Hold(Held it) {
    const std::optional<uint64_t> hash = it.hash;
    held.push_back(std::move(it));
    if (hash && !MayRepeat(*hash)) {
        Release();
    }
}

// Hands on what turned out not to be a repetition.
void OverlapFilter::Release() {
    isComparing = false;
    size_t position = 0;
    for (const Held& it : held) {
        if (position >= repeated) {
            it.handOn();
            if (it.hash) {
                Remember(*it.hash);
            }
        }
        position += it.hash ? 1U : 0U;
    }
    held.clear();
    candidates.clear();
    hashes = repeated = 0;
}

void OverlapFilter::OnRecord(const Record& record, const Place& place) {
    const uint64_t hash = HashOf(record.time, record.process, record.thread, record.message);
    if (isComparing) {
        Hold({hash, [this, copy = record, text = std::string(record.message), place]() mutable {
                  copy.message = text;
                  sink.OnRecord(copy, place);
              }});
        return;
    }
    Remember(hash);
    sink.OnRecord(record, place);
}

void OverlapFilter::OnLeftOut(int64_t lines, int32_t process, std::optional<int64_t> time,
                              const Place& place) {
    const uint64_t hash = HashOf(time, process, static_cast<int32_t>(lines), "");
    if (isComparing) {
        Hold({hash, [=, this] { sink.OnLeftOut(lines, process, time, place); }});
        return;
    }
    Remember(hash);
    sink.OnLeftOut(lines, process, time, place);
}

void OverlapFilter::OnFragment(std::string_view line, const Place& place) {
    if (isComparing) {
        Hold({{}, [this, text = std::string(line), place] { sink.OnFragment(text, place); }});
        return;
    }
    sink.OnFragment(line, place);
}

void OverlapFilter::OnTime(int64_t time) {
    if (!isComparing) {
        sink.OnTime(time);
    }
}

}  // namespace tools
