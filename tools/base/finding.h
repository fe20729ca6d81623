// What is wrong, where and how badly: the one form in which all parts of the command say so.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

// From the least to the worst.
enum class Severity : uint8_t { Note, Warning, Error };

// Where something stands: which of the inputs, in the order in which they were given from 0, and
// the line in it from 1. Line 0: nowhere.
struct Place {
    uint32_t input = 0;
    uint32_t line = 0;

    auto operator<=>(const Place&) const = default;  // NOLINT(modernize-use-nullptr): its 0.
};

struct Finding {
    std::string check{};  // The finding's name, such as "port-misread".
    Severity severity = Severity::Note;
    std::string message{};
    Place place{};
    uint32_t column = 0;  // In characters, from 1; 0 where no column is known.
};

// Ends the command. The message is whole: it says where, and what is wrong.
class CommandError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// "error", "warning" or "note".
const char* NameOf(Severity severity);

// "file:line[:column]: severity: message [check-name]". `file`: what the place's input is called.
std::string ToString(const Finding& finding, const std::string& file);

// `text` for a message: cut to `longest` characters, and with all that is not printable ASCII as
// \x1B. So no terminal obeys a text, and letters that only look right show. `Quoted`: in double
// quotes.
std::string Printable(std::string_view text, size_t longest = 60);
std::string Quoted(std::string_view text, size_t longest = 60);

// Which of the known names was probably meant by one that is not known: the one with the fewest
// letters to change, whatever their case; nothing when none is near.
std::optional<std::string> Meant(std::string_view given, const std::vector<std::string>& known);

}  // namespace tools
