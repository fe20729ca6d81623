// What the subcommands share: their exit statuses, inputs, outputs, interrupts and progress.

#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tools {

// Exit statuses.
inline constexpr int NOTHING_FOUND = 0;
inline constexpr int FAULTS_FOUND = 1;
inline constexpr int BAD_INPUT = 2;      // Bad usage, or input or output that fails.
inline constexpr int INTERRUPTED = 130;  // What a shell shows for a process that SIGINT ended.

// Ends the command with a message on standard error, which is given whole, and BAD_INPUT.
class CommandError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Ends the command like that, for the way in which it was called.
[[noreturn]] void FailUsage(const std::string& message);

// Each adds its subcommand to `app`. When that is the one that was asked for, `run` is set to what
// does the job and returns the exit status.
using Run = std::function<int()>;
void AddCheck(CLI::App& app, Run& run);
void AddExplain(CLI::App& app, Run& run);
void AddReplay(CLI::App& app, Run& run);
void AddSimulate(CLI::App& app, Run& run);

// What messages call an input.
std::string NameOfInput(const std::string& path);

// A file, or standard input or output for "-". Fails, and makes the stream on top of it fail, with
// a CommandError that names the file and the reason: also where standard input would be read twice,
// or a file be written that the command has opened before.
class FileBuffer : public std::streambuf {
  public:
    enum class Mode : uint8_t { Read, Write };
    FileBuffer(const std::string& path, Mode mode);
    ~FileBuffer() override;
    FileBuffer(const FileBuffer&) = delete;
    FileBuffer& operator=(const FileBuffer&) = delete;

    // What messages call it.
    const std::string& Name() const { return name; }

  protected:
    int_type underflow() override;
    // To the beginning or the end, of an input alone.
    pos_type seekoff(off_type offset, std::ios::seekdir from, std::ios::openmode which) override;
    int_type overflow(int_type character) override;
    int sync() override;

  private:
    [[noreturn]] void Fail(const char* what, int error) const;
    void OpenFile(const char* path);

    std::string name;
    bool isWritten;
    int descriptor;
    std::array<char, 1 << 16> buffer{};
};

// Input from a file or "-". An interrupt ends it like the end of the file.
class Input : private FileBuffer, public std::istream {
  public:
    explicit Input(const std::string& path);
    using FileBuffer::Name;
    // All that is left.
    std::string ReadAll() { return {std::istreambuf_iterator<char>(*this), {}}; }
};

// Output to a file or "-". A write that fails throws a CommandError, at the latest in `Close`.
class Output : private FileBuffer, public std::ostream {
  public:
    explicit Output(const std::string& path);
    // To be called when all is written.
    void Close() { flush(); }
};

// Lets `write` write the file of an option; nothing where that was not given, and `path` is empty.
void WriteFile(const std::string& path, const std::function<void(std::ostream& file)>& write);

// Removes what an earlier run left at the paths of `outputs`, so that nobody takes it for the
// result of one that fails. What is among `inputs`, a standard stream, or no plain file is left
// alone, and so is what cannot be removed. A path that is empty, as its option was not given, is
// none.
void RemoveStale(const std::vector<std::string>& outputs, const std::vector<std::string>& inputs);

// From the first call on an interrupt (SIGINT, SIGTERM) no longer ends the process: long work asks
// IsInterrupted now and then and comes to an end. A second interrupt does end it.
void CatchInterrupts();
bool IsInterrupted();

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
