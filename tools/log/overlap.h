// Captures that overlap: what stands at the end of one and again at the beginning of the next.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "tools/log/record_reader.h"

namespace tools {

// Hands on records, but the longest end of what has been read with which an input begins only once.
class OverlapFilter : public RecordSink {
  public:
    explicit OverlapFilter(RecordSink& recordSink) : sink(recordSink) {}

    // An input begins.
    void Begin() { isComparing = !tail.empty(); }
    // It ends, or is known to repeat no more: hands on what turned out not to be a repetition.
    void End();

    void OnRecord(const Record& record, const Place& place) override;
    void OnTime(int64_t time) override;

  private:
    // A record that may have been read before.
    struct Held {
        Record record;
        std::string message;
        Place place;
    };

    // Whether what has that hash, the next of the input, may stand in the end of what was read.
    bool MayRepeat(uint64_t hash);
    void HandOn(const Record& record, const Place& place);

    RecordSink& sink;
    std::deque<uint64_t> tail;  // Hashes of the records that were handed on last.
    // While an input may still repeat what was read:
    bool isComparing = false;
    std::vector<size_t> candidates;  // Where in the tail its beginning may stand.
    std::deque<Held> held;
    size_t hashes = 0;    // Of what is held.
    size_t repeated = 0;  // How many of them are known to be a repetition.
};

}  // namespace tools
