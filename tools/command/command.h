// What the subcommands share: their exit statuses, inputs, outputs, interrupts and progress.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <span>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "tools/base/text.h"

namespace tools {

// Exit statuses.
inline constexpr int NOTHING_FOUND = 0;
inline constexpr int FAULTS_FOUND = 1;
inline constexpr int BAD_INPUT = 2;      // Bad usage, or input or output that fails.
inline constexpr int BROKEN_PIPE = 141;  // What a shell shows for a process that SIGPIPE ended.

// Ends the command with a message on standard error, which is given whole and may be empty, and an
// exit status.
class CommandError : public std::runtime_error {
  public:
    explicit CommandError(const std::string& message, int exitStatus = BAD_INPUT)
        : std::runtime_error(message), status(exitStatus) {}
    int Status() const { return status; }

  private:
    int status;
};

// Ends the command like that, for the way in which it was called.
[[noreturn]] void FailUsage(const std::string& message);

// What messages call an input.
std::string NameOfInput(const std::string& path);

// A file that is open for reading, or standard input for "-". Throws a CommandError that names the
// file and the reason where it cannot be read.
class Input {
  public:
    explicit Input(const std::string& path);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    // What messages call it.
    const std::string& Name() const { return name; }
    int Descriptor() const { return descriptor; }
    // The next bytes, at least one but at the end, and when an interrupt comes first.
    size_t Read(std::span<char> bytes) const;

  private:
    std::string name;
    int descriptor;
};

// Reads a file whole, as Input does.
NamedText ReadFile(const std::string& path);
// The same for a file of an option; nothing where that was not given, and `path` is empty.
std::optional<NamedText> ReadOption(const std::string& path);

// How text for people is shown.
struct Style {
    size_t width = 0;  // What longer lines are wrapped to, but for rows of tables; 0: nothing is.
    bool hasColors = false;  // Severities are coloured.
};

// For a standard stream: on a terminal its width, and colours as --color has it.
Style StyleOf(int descriptor);
// `lines` are whole.
std::string Styled(const std::string& lines, const Style& style);
// Shows lines on standard error.
void Complain(const std::string& lines);
// What --color says: auto, always or never.
std::string& ColorOption();
// Text of --help, wrapped to the terminal's width or that of COLUMNS, and to 80 where there is
// none.
std::string StyledHelp(const std::string& help);

// Output to a file, or standard output for "-". A file that is there stays as it is until `Close`:
// the new one is written beside it, and then takes its place. Devices, pipes and standard output
// under another name are written as they are. A write that fails throws a CommandError, at the
// latest in `Close`; one to a pipe that nobody reads has no message.
class Output : private std::streambuf, public std::ostream {
  public:
    explicit Output(const std::string& path, const Style& textStyle = {});
    ~Output() override;
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // To be called when all is written.
    void Close();
    // Removes what is not written to its end. A handler of signals may call it.
    static void RemoveParts();

  protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override;
    int overflow(int character) override;
    int sync() override;

  private:
    void OpenBeside(const std::string& path);

    std::string name;
    std::string target;  // What is replaced in the end, links followed; empty for nothing.
    std::string beside;  // The file that replaces it, until it has; else empty.
    int descriptor;
    Style style;
    std::string bytes;
    // All that there are: each ends before those that are older.
    static inline const Output* volatile newest = nullptr;
    const Output* older = nullptr;
};

// Lets `write` write the file of an option; nothing where that was not given, and `path` is empty.
void WriteFile(const std::string& path, const std::function<void(std::ostream& file)>& write);

// From the first call on an interrupt (SIGINT, SIGTERM) no longer ends the process, but standard
// input: it has nothing more to read then. Long work asks now and then whether there was one, and
// comes to an end. A second interrupt ends the process, and removes what it has half written.
void CatchInterrupts();
// What a shell shows for a process that the interrupt ended, 130 or 143; 0 where there was none.
int InterruptStatus();
// The interrupt was meant to end standard input, and nothing else.
void ForgetInterrupt();

// A line that shows how far long work has come: on standard error when that is a terminal, and
// nothing that is shown on a terminal is in its way.
class ProgressLine {
  public:
    // `unit`: what is counted, such as "frames". `writesToTerminal`: standard output is written to
    // while the work goes on; progress then shows only when that is not a terminal.
    ProgressLine(std::string unit, bool writesToTerminal);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // `all`: 0 for not known. May be called as often as one likes.
    void Show(int64_t done, int64_t all);
    void Show(const std::string& text);
    // Takes the line away, for something else to be written.
    void Clear();

  private:
    std::string unit;
    bool isWanted;
    bool isShown = false;
    std::chrono::steady_clock::time_point lastShown = std::chrono::steady_clock::now();
};

}  // namespace tools
