#include "tools/command/command.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <set>
#include <system_error>
#include <utility>

namespace tools {
namespace {

volatile std::sig_atomic_t isInterrupted = 0;

// The files on a disk that were opened so far, and whether standard input was.
std::set<std::pair<dev_t, ino_t>> openedFiles;
bool isStandardInputOpened = false;

}  // namespace

void FailUsage(const std::string& message) {
    throw CommandError("cameraframeboost: error: " + message);
}

std::string NameOfInput(const std::string& path) {
    return path == "-" ? "standard input" : path;
}

FileBuffer::FileBuffer(const std::string& path, Mode mode)
    : name(mode == Mode::Read ? NameOfInput(path) : path), isWritten(mode == Mode::Write) {
    if (path == "-") {
        name = isWritten ? "standard output" : name;
        descriptor = isWritten ? STDOUT_FILENO : STDIN_FILENO;
        if (!isWritten && std::exchange(isStandardInputOpened, true)) {
            throw CommandError(name + ": error: cannot be read twice");
        }
        struct stat status {};
        if (!isWritten && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
            openedFiles.insert({status.st_dev, status.st_ino});
        }
    } else {
        OpenFile(path.c_str());
    }
    if (isWritten) {
        setp(buffer.data(), buffer.data() + buffer.size());
    }
}

void FileBuffer::OpenFile(const char* path) {
    const char* const what = isWritten ? "written" : "read";
    descriptor = open(path, (isWritten ? O_WRONLY | O_CREAT : O_RDONLY) | O_CLOEXEC, 0666);
    struct stat status {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        Fail(what, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return;
    }
    const bool isNew = openedFiles.insert({status.st_dev, status.st_ino}).second;
    if (isWritten && !isNew) {
        close(descriptor);
        throw CommandError(name + ": error: cannot be written: it is used already");
    }
    if (isWritten && ftruncate(descriptor, 0) != 0) {
        Fail(what, errno);
    }
}

FileBuffer::~FileBuffer() {
    if (descriptor != STDIN_FILENO && descriptor != STDOUT_FILENO) {
        close(descriptor);
    }
}

void FileBuffer::Fail(const char* what, int error) const {
    throw CommandError(name + ": error: cannot be " + what + ": " +
                       std::strerror(error));  // NOLINT(concurrency-mt-unsafe): one thread.
}

FileBuffer::int_type FileBuffer::underflow() {
    ssize_t size = 0;
    do {
        size = IsInterrupted() ? 0 : read(descriptor, buffer.data(), buffer.size());
    } while (size < 0 && errno == EINTR);
    if (size < 0) {
        Fail("read", errno);
    }
    setg(buffer.data(), buffer.data(), buffer.data() + size);
    return size == 0 ? traits_type::eof() : traits_type::to_int_type(buffer.front());
}

FileBuffer::pos_type FileBuffer::seekoff(off_type offset, std::ios::seekdir from,
                                         std::ios::openmode /*which*/) {
    setg(nullptr, nullptr, nullptr);
    return lseek(descriptor, offset, from == std::ios::beg ? SEEK_SET : SEEK_END);
}

FileBuffer::int_type FileBuffer::overflow(int_type character) {
    sync();
    if (!traits_type::eq_int_type(character, traits_type::eof())) {
        sputc(traits_type::to_char_type(character));
    }
    return traits_type::not_eof(character);
}

int FileBuffer::sync() {
    if (!isWritten) {
        return 0;
    }
    const char* next = pbase();
    const char* const end = pptr();
    // What cannot be written is not tried again.
    setp(buffer.data(), buffer.data() + buffer.size());
    while (next != end) {
        const ssize_t size = write(descriptor, next, static_cast<size_t>(end - next));
        if (size >= 0) {
            next += size;
        } else if (errno != EINTR) {
            Fail("written", errno);
        }
    }
    return 0;
}

Input::Input(const std::string& path) : FileBuffer(path, Mode::Read), std::istream(this) {
    exceptions(std::ios::badbit);
}

Output::Output(const std::string& path) : FileBuffer(path, Mode::Write), std::ostream(this) {
    exceptions(std::ios::badbit);
}

void WriteFile(const std::string& path, const std::function<void(std::ostream& file)>& write) {
    if (!path.empty()) {
        Output file(path);
        write(file);
        file.Close();
    }
}

void RemoveStale(const std::vector<std::string>& outputs, const std::vector<std::string>& inputs) {
    std::vector<std::string> kept = {"/dev/stdin", "/dev/stdout", "/dev/stderr"};
    kept.insert(kept.end(), inputs.begin(), inputs.end());
    for (const std::string& path : outputs) {
        std::error_code error;
        // Not what a link names: that may be open under another name.
        if (std::filesystem::symlink_status(path, error).type() ==
                std::filesystem::file_type::regular &&
            std::none_of(kept.begin(), kept.end(), [&](const std::string& other) {
                return std::filesystem::equivalent(path, other, error);
            })) {
            std::filesystem::remove(path, error);
        }
    }
}

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = [](int) { isInterrupted = 1; };
    // Without SA_RESTART: who waits for input is to hear of it.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool IsInterrupted() {
    return isInterrupted != 0;
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
