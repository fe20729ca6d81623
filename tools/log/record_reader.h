// Finds the library's records in the bytes of a capture, whatever form of logcat's each line has.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/base/finding.h"
#include "tools/log/record.h"

namespace tools {

// The tag under which Android's log says that it has left lines out.
inline constexpr std::string_view CHATTY_TAG = "chatty";

// Is told of what a capture holds, in its order.
class RecordSink {
  public:
    virtual ~RecordSink() = default;
    // A record of the library's, or CHATTY_TAG's. Its message is gone after the call.
    virtual void OnRecord(const Record& record, const Place& place) = 0;
    // What the log's clock showed on a line of any tag: now and then, and on the last one.
    virtual void OnTime(int64_t /*time*/) {}
};

// Text of any encoding as UTF-8: what is UTF-16, with a mark or without, is converted.
class Utf8Decoder {
  public:
    // The next bytes. The result is good until the next call; bytes that are half a character wait.
    std::string_view Decode(std::string_view bytes);
    // What is left of an input too short to tell its encoding.
    std::string_view Rest();

  private:
    enum class Encoding : uint8_t { Unknown, Utf8, Utf16Little, Utf16Big };
    void AppendUnit(uint32_t unit);

    Encoding encoding = Encoding::Unknown;
    std::string pending;  // Bytes too few to tell anything.
    std::string text;
    uint32_t highSurrogate = 0;
};

// Reads one capture after the other, in pieces of any length. Memory does not grow with them.
class RecordReader {
  public:
    explicit RecordReader(RecordSink& recordSink) : sink(recordSink) {}

    // The next of the inputs begins.
    void Begin(uint32_t input);
    void Read(std::string_view bytes);
    // Nothing more comes for now: hands on what might have had a next line.
    void Settle();
    // The input has ended.
    void End();

    int64_t Lines() const { return lines; }

  private:
    // What stands before a message, and the record as far as one line tells it.
    struct Head {
        Record record;
        std::string_view text;  // As it stands.
        bool isTagged = false;  // Has a tag, which is the library's or chatty's.
        bool isLong = false;    // The message follows on lines of its own.
        bool isOthers = false;  // Whole, but has another tag.
    };

    void ReadText(std::string_view text);
    void ReadLine(std::string_view line);
    bool GoesOnLong(std::string_view line);
    bool ReadHead(std::string_view line, Head& head);
    bool ReadHeadAsLast(std::string_view line, Head& head);
    static bool ReadTag(std::string_view& rest, Head& head);
    static bool ReadTagged(std::string_view& rest, Head& head);
    bool ReadTime(std::string_view& rest, std::optional<int64_t>& time);
    bool ReadDate(std::string_view& rest, int64_t& seconds);
    void Append(std::string_view line);
    void KeepHeld();
    void TellTime();

    RecordSink& sink;
    Utf8Decoder decoder;
    Place place;
    int64_t lines = 0;
    std::string carry;       // The beginning of a line whose end has not come.
    std::string plain;       // A line without its colours.
    std::string_view timed;  // The last line that may begin with a time, until that is told.
    bool isLog = true;       // False in the parts of a bug report that are no log.

    // The record that may go on in the next line: a message of several lines repeats its head.
    Head held;
    Place heldPlace;
    bool isHeld = false;
    bool isLong = false;                // Of the long form: goes on until an empty line.
    bool isOthersLong = false;          // What comes is of another tag, in the long form.
    std::string heldHead, heldMessage;  // Where it is kept beyond the bytes it came in.

    // Lines come by the thousand a second: the last date and time, less the second's fraction.
    std::string dateText;
    int64_t dateSeconds = 0;
    // And what stood before the last tag, in the form that is the default; what a thread logs at
    // once begins alike.
    std::string lastHead;
    Record lastRecord;
    // Where the form has no year.
    int64_t year = 0;
    int32_t lastMonth = 0;
};

}  // namespace tools
