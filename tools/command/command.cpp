#include "tools/command/command.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "tools/base/words.h"

namespace tools {
namespace fs = std::filesystem;
namespace {

volatile std::sig_atomic_t interrupt = 0;  // The signal that came.
volatile std::sig_atomic_t nothing = -1;   // /dev/null, to be read.

// The second interrupt ends the process, which leaves no part of a file behind.
void EndProcess(int signal) {
    Output::RemoveParts();
    std::signal(signal, SIG_DFL);  // NOLINT(cert-err33-c): cannot fail for this signal.
    raise(signal);
}

[[noreturn]] void Fail(const std::string& name, const char* what) {
    throw CommandError(name + ": error: cannot be " + what + ": " +
                       std::strerror(errno));  // NOLINT(concurrency-mt-unsafe): one thread.
}

std::string_view Environment(const char* name) {
    const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): one thread.
    return value == nullptr ? "" : value;
}

// COLUMNS, or the width of a terminal; 0 where there is neither.
size_t WidthOf(int descriptor) {
    winsize size{};
    const size_t width = ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
    return ReadDigits<size_t>(Environment("COLUMNS")).value_or(width);
}

// Where the second column of a line begins, which two blanks set off; npos where it has none.
size_t SecondColumnOf(std::string_view line) {
    return line.find_first_not_of(' ', line.find("  ", line.find_first_not_of(' ')));
}

std::string Colored(std::string line) {
    constexpr std::array<std::pair<const char*, const char*>, 3> colors = {
        {{" error:", "\033[1;31m"}, {" warning:", "\033[1;33m"}, {" note:", "\033[1;36m"}}};
    for (const auto& [word, color] : colors) {
        if (const size_t at = line.find(word); at != std::string::npos) {
            line.insert(at + std::strlen(word) - 1, "\033[0m");
            line.insert(at + 1, color);
            break;
        }
    }
    return line;
}

}  // namespace

std::string& ColorOption() {
    static std::string option = "auto";
    return option;
}

Style StyleOf(int descriptor) {
    const bool isTerminal = isatty(descriptor) != 0;
    const bool wantsColors =
        isTerminal && Environment("NO_COLOR").empty() && Environment("TERM") != "dumb";
    return {isTerminal ? WidthOf(descriptor) : 0,
            ColorOption() == "auto" ? wantsColors : ColorOption() == "always"};
}

std::string Styled(const std::string& lines, const Style& style) {
    std::istringstream in(lines);
    std::string styled;
    for (std::string line; std::getline(in, line);) {
        if (style.width != 0 && SecondColumnOf(line) == std::string::npos) {
            line = Wrapped(line, style.width, line.find_first_not_of(' ') + 2);
        }
        styled += (style.hasColors ? Colored(line) : line) + '\n';
    }
    return styled;
}

void Complain(const std::string& lines) {
    std::cerr << Styled(lines, StyleOf(STDERR_FILENO));
}

std::string StyledHelp(const std::string& help) {
    const size_t width = WidthOf(STDOUT_FILENO);
    std::istringstream in(help);
    std::string styled;
    for (std::string line; std::getline(in, line);) {
        const size_t column = SecondColumnOf(line);
        line = Wrapped(line, width == 0 ? 80 : width,
                       column == std::string::npos ? line.find_first_not_of(' ') : column);
        styled += line.empty() && styled.ends_with("\n\n") ? "" : line + '\n';
    }
    return styled;
}

void FailUsage(const std::string& message) {
    throw CommandError("cameraframeboost: error: " + message);
}

std::string NameOfInput(const std::string& path) {
    return path == "-" ? "standard input" : path;
}

Input::Input(const std::string& path)
    : name(NameOfInput(path)),
      descriptor(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    // Of a directory only reading fails, where the reason would be lost.
    char none = 0;
    if (descriptor < 0 || read(descriptor, &none, 0) < 0) {
        Fail(name, "read");
    }
}

Input::~Input() {
    if (descriptor != STDIN_FILENO) {
        close(descriptor);
    }
}

size_t Input::Read(std::span<char> bytes) const {
    const ssize_t size = read(descriptor, bytes.data(), bytes.size());
    if (size < 0 && errno != EINTR) {
        Fail(name, "read");
    }
    return static_cast<size_t>(std::max<ssize_t>(size, 0));
}

NamedText ReadFile(const std::string& path) {
    const Input input(path);
    NamedText file{input.Name(), {}};
    std::array<char, 1 << 16> piece{};
    while (const size_t size = input.Read(piece)) {
        file.text.append(piece.data(), size);
    }
    return file;
}

std::optional<NamedText> ReadOption(const std::string& path) {
    return path.empty() ? std::nullopt : std::optional(ReadFile(path));
}

Output::Output(const std::string& path, const Style& textStyle)
    : std::ostream(this), name(path), descriptor(STDOUT_FILENO), style(textStyle) {
    exceptions(std::ios::badbit);
    std::error_code error;
    if (path == "-") {
        name = "standard output";
    } else if (fs::is_regular_file(path, error)) {
        if (!fs::equivalent(path, "/dev/stdout", error)) {
            OpenBeside(fs::canonical(path));
        }
    } else if (!fs::exists(fs::symlink_status(path, error))) {
        OpenBeside(path);
    } else {  // A device, a pipe, or a link to nothing.
        descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    }
    if (descriptor < 0) {
        Fail(name, "written");
    }
    older = newest;
    newest = this;
}

void Output::OpenBeside(const std::string& path) {
    target = path;
    struct stat old {};
    const bool isOld = stat(path.c_str(), &old) == 0;
    if (isOld && access(path.c_str(), W_OK) != 0) {
        Fail(name, "written");
    }
    beside = path + "." + std::to_string(getpid()) + ".part";
    descriptor = open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0 || (isOld && fchmod(descriptor, old.st_mode & 07777) != 0)) {
        Fail(isOld ? beside : name, "written");
    }
}

void Output::RemoveParts() {
    for (const Output* output = newest; output != nullptr; output = output->older) {
        unlink(output->beside.c_str());
    }
}

Output::~Output() {
    newest = older;
    if (descriptor > STDERR_FILENO) {
        close(descriptor);
    }
    if (!beside.empty()) {
        unlink(beside.c_str());
    }
}

void Output::Close() {
    flush();
    style = {};  // A last line without its end is shown as it is.
    flush();
    if (!beside.empty()) {
        if (close(std::exchange(descriptor, -1)) != 0 ||
            rename(beside.c_str(), target.c_str()) != 0) {
            Fail(name, "written");
        }
        beside.clear();
    }
}

std::streamsize Output::xsputn(const char* text, std::streamsize size) {
    bytes.append(text, static_cast<size_t>(size));
    if (bytes.size() >= 1 << 16) {
        sync();
    }
    return size;
}

int Output::overflow(int character) {
    const char text = static_cast<char>(character);
    xsputn(&text, character == EOF ? 0 : 1);
    return character == EOF ? 0 : character;
}

int Output::sync() {
    // What cannot be written is not tried again.
    std::string all = std::exchange(bytes, {});
    if (style.width != 0 || style.hasColors) {
        const size_t whole = all.rfind('\n') + 1;
        bytes = all.substr(whole);
        all = Styled(all.substr(0, whole), style);
    }
    for (std::string_view rest = all; !rest.empty();) {
        const ssize_t size = ::write(descriptor, rest.data(), rest.size());
        if (size >= 0) {
            rest.remove_prefix(static_cast<size_t>(size));
        } else if (errno == EPIPE && descriptor == STDOUT_FILENO) {
            throw CommandError("", BROKEN_PIPE);
        } else if (errno != EINTR) {
            Fail(name, "written");
        }
    }
    return 0;
}

void WriteFile(const std::string& path, const std::function<void(std::ostream& file)>& write) {
    if (!path.empty()) {
        Output file(path);
        write(file);
        file.Close();
    }
}

void CatchInterrupts() {
    nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    struct sigaction action {};
    action.sa_handler = [](int signal) {
        interrupt = signal;
        dup2(nothing, STDIN_FILENO);
        std::signal(signal, EndProcess);  // NOLINT(cert-err33-c)
    };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int InterruptStatus() {
    return interrupt == 0 ? 0 : 128 + interrupt;
}

void ForgetInterrupt() {
    interrupt = 0;
}

ProgressLine::ProgressLine(std::string countedUnit, bool writesToTerminal)
    : unit(std::move(countedUnit)),
      isWanted(isatty(STDERR_FILENO) != 0 && (!writesToTerminal || isatty(STDOUT_FILENO) == 0)) {}

ProgressLine::~ProgressLine() {
    Clear();
}

void ProgressLine::Show(int64_t done, int64_t all) {
    const auto now = std::chrono::steady_clock::now();
    if (isWanted && now - lastShown >= std::chrono::milliseconds(100)) {
        lastShown = now;
        Show(all == 0 ? fmt::format("{} {}", done, unit)
                      : fmt::format("{} of {} {}", done, all, unit));
    }
}

void ProgressLine::Show(const std::string& text) {
    if (isWanted) {
        isShown = true;
        std::cerr << '\r' << text << "\033[K" << std::flush;
    }
}

void ProgressLine::Clear() {
    if (std::exchange(isShown, false)) {
        std::cerr << "\r\033[K" << std::flush;
    }
}

}  // namespace tools
