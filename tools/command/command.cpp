#include "tools/command/command.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <regex>
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

[[noreturn]] void Fail(const std::string& name, const char* what) {
    throw CommandError(name + ": error: cannot be " + what + ": " +
                       std::strerror(errno));  // NOLINT(concurrency-mt-unsafe): one thread.
}

std::string_view Environment(const char* name) {
    const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): one thread.
    return value == nullptr ? "" : value;
}

// The first line has the first `indent` bytes, and the others as many blanks. Words that are longer
// than the width stay whole.
std::string Wrapped(const std::string& line, size_t width, size_t indent) {
    const std::regex part(fmt::format("(.{{1,{}}}|\\S+)( +|$)", width - indent));
    const std::string margin(indent, ' ');
    return std::regex_replace(line.substr(indent), part, margin + "$1\n")
        .replace(0, indent, line, 0, indent);
}

std::string Colored(std::string line) {
    constexpr std::pair<const char*, int> COLORS[] = {{"error", 31}, {"warning", 33}, {"note", 36}};
    for (const auto& [severity, color] : COLORS) {
        const std::string word = fmt::format(" {}:", severity);
        if (const size_t at = line.find(word); at != std::string::npos) {
            return line.replace(at, word.size(),
                                fmt::format(" \033[1;{}m{}\033[0m:", color, severity));
        }
    }
    return line;
}

// `lines` as they are shown on that standard stream.
std::string Styled(const std::string& lines, int descriptor, bool isHelp = false) {
    const bool isTerminal = isatty(descriptor) != 0;
    const bool isPlain =
        !isTerminal || !Environment("NO_COLOR").empty() || Environment("TERM") == "dumb";
    const bool hasColors = colorOption == "auto" ? !isPlain : colorOption == "always";
    winsize size{};
    size_t width = ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
    if (isTerminal || isHelp) {
        width = ReadDigits<size_t>(Environment("COLUMNS")).value_or(width);
        width = width == 0 && isHelp ? 80 : width;
    }
    std::istringstream in(lines);
    std::string styled;
    for (std::string line; std::getline(in, line);) {
        // Where a second column begins, which two blanks set off.
        const size_t begin = line.find_first_not_of(' ');
        const size_t column = line.find_first_not_of(' ', line.find("  ", begin));
        const bool isRow = column != std::string::npos;
        if (width != 0 && line.size() > width && (isHelp || !isRow)) {
            const size_t indent = isRow ? column : begin + (isHelp ? 0 : 2);
            line = Wrapped(line, width, std::min(indent, width / 2));
        } else {
            line += '\n';
        }
        styled += hasColors ? Colored(std::move(line)) : line;
    }
    return styled;
}

}  // namespace

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
    if (descriptor < 0 || read(descriptor, nullptr, 0) < 0) {
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
    if (size < 0) {
        Fail(name, "read");
    }
    return static_cast<size_t>(size);
}

NamedText ReadFile(const std::string& path) {
    const Input input(path);
    NamedText file{input.name, {}};
    std::array<char, 1 << 16> piece{};
    while (const size_t size = input.Read(piece)) {
        file.text.append(piece.data(), size);
    }
    return file;
}

std::optional<NamedText> ReadOption(const std::string& path) {
    return path.empty() ? std::nullopt : std::optional(ReadFile(path));
}

Output::Output(const std::string& path)
    : std::ostream(this), name(path == "-" ? "standard output" : path) {
    exceptions(std::ios::badbit);
    int descriptor = -1;
    std::error_code error;
    if (path == "-" || fs::equivalent(path, "/dev/stdout", error)) {
        descriptor = dup(STDOUT_FILENO);
    } else if (fs::exists(fs::symlink_status(path, error)) && !fs::is_regular_file(path, error)) {
        // A device, a pipe, or a link to nothing.
        descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    } else {
        target = fs::weakly_canonical(path, error);
        const bool isOld = fs::exists(target, error);
        if (isOld && access(target.c_str(), W_OK) != 0) {
            Fail(name, "written");
        }
        part = fmt::format("{}.{}.part", target, getpid());
        descriptor = open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (isOld) {
            if (descriptor < 0) {
                Fail(part, "written");
            }
            fs::permissions(part, fs::status(target, error).permissions(), error);
        }
    }
    // T: as it is.
    file = gzdopen(descriptor, path.ends_with(".gz") ? "w" : "wT");
    if (file == nullptr) {
        Fail(name, "written");
    }
    gzbuffer(file, 1 << 16);
    older = newest;
    newest = this;
}

Output::~Output() {
    newest = older;
    if (file != nullptr) {
        gzclose(file);
    }
    unlink(part.c_str());
}

void Output::Close() {
    if (gzclose(std::exchange(file, nullptr)) != Z_OK ||
        (!part.empty() && rename(part.c_str(), target.c_str()) != 0)) {
        Fail(name, "written");
    }
    part.clear();
}

void Output::EndProcess(int signal) {
    for (const Output* output = newest; output != nullptr; output = output->older) {
        unlink(output->part.c_str());
    }
    std::signal(signal, SIG_DFL);  // NOLINT(cert-err33-c): cannot fail for these signals.
    raise(signal);
}

std::streamsize Output::xsputn(const char* text, std::streamsize size) {
    if (size > 0 && gzwrite(file, text, static_cast<unsigned>(size)) == 0) {
        Fail(name, "written");
    }
    return size;
}

int Output::overflow(int character) {
    const char text = static_cast<char>(character);
    return static_cast<int>(xsputn(&text, 1));
}

std::unique_ptr<Output> OpenOutput(const std::string& path) {
    return path.empty() ? nullptr : std::make_unique<Output>(path);
}

void WriteFile(const std::string& path, const std::function<void(std::ostream& file)>& write) {
    if (const auto file = OpenOutput(path)) {
        write(*file);
        file->Close();
    }
}

void Show(const std::string& lines, bool isHelp) {
    ClearProgress();
    WriteFile("-", [&](std::ostream& out) { out << Styled(lines, STDOUT_FILENO, isHelp); });
}

void Complain(const std::string& lines) {
    ClearProgress();
    std::cerr << Styled(lines, STDERR_FILENO);
}

void ShowProgress(const std::string& text) {
    using Clock = std::chrono::steady_clock;
    static Clock::time_point shown = Clock::now();
    const Clock::time_point now = Clock::now();
    if (now - shown >= std::chrono::milliseconds(100) && isatty(STDERR_FILENO) != 0) {
        shown = now;
        std::cerr << '\r' << text << "\033[K" << std::flush;
    }
}

void ClearProgress() {
    if (isatty(STDERR_FILENO) != 0) {
        std::cerr << "\r\033[K" << std::flush;
    }
}

void CatchInterrupts() {
    nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int signal : {SIGINT, SIGTERM}) {
        std::signal(signal, [](int number) {  // NOLINT(cert-err33-c)
            interrupt = number;
            dup2(nothing, STDIN_FILENO);
            std::signal(number, Output::EndProcess);  // NOLINT(cert-err33-c)
        });
    }
}

int InterruptStatus() {
    return interrupt == 0 ? 0 : 128 + interrupt;
}

void ForgetInterrupt() {
    interrupt = 0;
}

}  // namespace tools
