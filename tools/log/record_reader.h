// Finds the library's records in the bytes of a capture, in the forms of logcat that have times.

#pragma once

#include <iconv.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "tools/base/finding.h"
#include "tools/log/record.h"

namespace tools {

// The tag under which Android's log says that it has left lines out.
inline constexpr std::string_view CHATTY_TAG = "chatty";

// Gets what a capture holds, in its order.
class RecordSink {
  public:
    virtual ~RecordSink() = default;
    // A record of the library's, whole or not, or a whole one of CHATTY_TAG's. Its message is gone
    // after the call.
    virtual void OnRecord(const Record& record, const Place& place) = 0;
    // What the log's clock showed on a line of another program.
    virtual void OnTime(int64_t /*time*/) {}
};

// Text of any encoding as UTF-8: what is UTF-16, which a mark in front shows, is
// converted.
class Utf8Decoder {
  public:
    // The next bytes. The result is good until the next call; bytes that are half a character wait.
    std::string_view Decode(std::string_view bytes);
    // What is left of an input too short to show its encoding.
    std::string_view Rest();

  private:
    bool isKnown = false;  // The encoding.
    // Null for UTF-8.
    std::unique_ptr<std::remove_pointer_t<iconv_t>, int (*)(iconv_t)> fromUtf16{nullptr,
                                                                                iconv_close};
    std::string pending;  // Bytes too few to show the encoding, or half a character.
    std::string text;
};

// Reads one capture after the other, in pieces of any length. Memory does not grow with them.
class RecordReader {
  public:
    explicit RecordReader(RecordSink& recordSink) : sink(recordSink) {}

    // The next of the inputs begins.
    void Begin(uint32_t input);
    void Read(std::string_view bytes);
    // The input has ended.
    void End();

    int64_t Lines() const { return lines; }

  private:
    void ReadText(std::string_view text);
    void ReadLine(std::string_view line);
    bool ReadHead(std::string_view line, Record& record);
    bool ReadTime(std::string_view& rest, int64_t& time);
    bool ReadDate(std::string_view& rest, int64_t& seconds);

    RecordSink& sink;
    Utf8Decoder decoder;
    Place place;
    int64_t lines = 0;
    std::string carry;  // The beginning of a line whose end has not come.
    bool isLog = true;  // False in the parts of a bug report that are no log.

    // Lines come by the thousand a second: the last date and time, less the second's fraction.
    std::string dateText;
    int64_t dateSeconds = 0;
    // Where the form has no year: any leap year, as the day may be a 29th of February.
    static constexpr int64_t MADE_UP_YEAR = 2000;
    int64_t year = MADE_UP_YEAR;
    int32_t lastMonth = 0;
};

}  // namespace tools
