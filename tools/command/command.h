// What the subcommands share: their exit statuses, inputs, outputs, interrupts and progress.

#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <span>
#include <streambuf>
#include <string>

#include "tools/base/finding.h"
#include "tools/base/text.h"

namespace tools {

// Exit statuses.
inline constexpr int NOTHING_FOUND = 0;
inline constexpr int FAULTS_FOUND = 1;
inline constexpr int BAD_INPUT = 2;  // Bad usage, or input or output that fails.

// Throws a CommandError for the way in which the command was called.
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

    // The next bytes, at least one but at the end.
    size_t Read(std::span<char> bytes) const;

    const std::string name;  // What messages call it.
    const int descriptor;
};

// Reads a file whole, as Input does.
NamedText ReadFile(const std::string& path);
// The same for a file of an option; nothing where that was not given, and `path` is empty.
std::optional<NamedText> ReadOption(const std::string& path);

// Output to a file, as gzip where its name ends in .gz, or to standard output for "-". A file that
// is there stays as it is until `Close`: the new one is written beside it, and then takes its
// place. Devices, pipes and standard output under another name are written as they are. A write
// that fails throws a CommandError, at the latest in `Close`.
class Output : private std::streambuf, public std::ostream {
  public:
    explicit Output(const std::string& path);
    ~Output() override;
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // To be called when all is written.
    void Close();
    // A handler of signals: ends the process, which leaves no part of a file behind.
    static void EndProcess(int signal);

  protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override;
    int overflow(int character) override;

  private:
    std::string name;
    std::string target;  // What is replaced in the end, links followed; empty for nothing.
    std::string part;    // The file that replaces it, until it has; else empty.
    gzFile file = nullptr;
    // All that there are: each ends before those that are older.
    static inline const Output* volatile newest = nullptr;
    const Output* older = nullptr;
};

// The file of an option; null where that was not given, and `path` is empty.
std::unique_ptr<Output> OpenOutput(const std::string& path);
// Lets `write` write the file of an option, if there is one.
void WriteFile(const std::string& path, const std::function<void(std::ostream& file)>& write);

// What --color says: auto, always or never.
inline std::string colorOption = "auto";
// Shows whole lines for people on standard output: on a terminal wrapped to its width, but for rows
// of tables, and with severities in colour. The text of --help is wrapped everywhere, to the width
// of the terminal or of COLUMNS, else to 80.
void Show(const std::string& lines, bool isHelp = false);
// The same on standard error.
void Complain(const std::string& lines);

// Shows how far long work has come in a line on standard error, when that is a terminal. May be
// called as often as one likes. What is shown by the functions above takes its place.
void ShowProgress(const std::string& text);
void ClearProgress();

// From the first call on an interrupt (SIGINT, SIGTERM) no longer ends the process, but standard
// input: it has nothing more to read then. Long work asks now and then whether there was one, and
// comes to an end. A second interrupt ends the process.
void CatchInterrupts();
// What a shell shows for a process that the interrupt ended, 130 or 143; 0 where there was none.
int InterruptStatus();
// The interrupt was meant to end standard input, and nothing else.
void ForgetInterrupt();

}  // namespace tools
