// Captures as they come: files and standard input, and what is compressed.

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <system_error>

#include "tools/log/capture.h"

namespace tools {
namespace {

constexpr size_t PIECE = 262'144;
// How compressed files begin.
constexpr std::string_view ZIP_MARK = "PK\x03\x04";
constexpr std::string_view GZIP_MARK = "\x1F\x8B";

class File {
  public:
    File(const std::string& path, const std::function<bool(int64_t, int64_t)>& onProgress)
        : descriptor(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)),
          progress(onProgress) {
        if (descriptor < 0) {
            Fail();
        }
        struct stat status {};
        isRegular = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
        size = isRegular ? status.st_size : 0;
    }
    ~File() {
        if (descriptor > STDIN_FILENO) {
            close(descriptor);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // The next piece; empty at the end, and when reading is to stop.
    std::string_view Next() {
        if (!isAgain) {
            ssize_t count = -1;
            while (count < 0) {
                isStopped = progress && !progress(done, size);
                if (isStopped) {
                    return {};
                }
                count = read(descriptor, buffer.data(), buffer.size());
                if (count < 0 && errno != EINTR) {
                    Fail();
                }
            }
            buffered = static_cast<size_t>(count);
            done += count;
        }
        isAgain = false;
        return {buffer.data(), buffered};
    }
    // Lets the last piece come again.
    void Back() { isAgain = true; }

    // Whether reading was to stop before the end.
    bool IsStopped() const { return isStopped; }
    // Begins anew, where that is possible.
    bool Rewind() {
        done = 0;
        isAgain = false;
        return isRegular && lseek(descriptor, 0, SEEK_SET) == 0;
    }

  private:
    [[noreturn]] static void Fail() {
        throw CaptureError(
            fmt::format("cannot be read: {}", std::generic_category().message(errno)));
    }

    int descriptor;
    const std::function<bool(int64_t, int64_t)>& progress;
    bool isRegular = false;
    bool isStopped = false;
    bool isAgain = false;
    int64_t size = 0;
    int64_t done = 0;
    size_t buffered = 0;
    std::string buffer = std::string(PIECE, '\0');
};

// Whether it is the text of a bug report, as Android names it.
bool IsReport(std::string_view name) {
    name.remove_prefix(name.rfind('/') + 1);
    return name.starts_with("bugreport-") && name.ends_with(".txt");
}

// Which of the files in it are read.
enum class Files : uint8_t { Reports, All };

// Reads what is in a gzip file, or the files in a zip. `name`: what it is. Returns how many were
// read.
int ReadArchive(CaptureReader& reader, File& file, const char* name, Files files) {
    const std::unique_ptr<archive, int (*)(archive*)> source(archive_read_new(), archive_read_free);
    archive_read_support_filter_gzip(source.get());
    archive_read_support_format_zip(source.get());
    archive_read_support_format_raw(source.get());  // What gzip made of a file.
    archive_read_support_format_empty(source.get());
    const auto readNext = [](archive* self, void* data, const void** piece) -> la_ssize_t {
        try {
            const std::string_view next = static_cast<File*>(data)->Next();
            *piece = next.data();
            return static_cast<la_ssize_t>(next.size());
        } catch (const CaptureError& error) {
            archive_set_error(self, EIO, "%s", error.what());
            return -1;
        }
    };
    const auto check = [&source, name](la_ssize_t status) {
        if (status < ARCHIVE_WARN) {
            const char* const reason = archive_error_string(source.get());
            throw CaptureError(fmt::format("is a {} that cannot be read: {}", name,
                                           reason == nullptr ? "unknown" : reason));
        }
        return status;
    };
    check(archive_read_open(source.get(), &file, nullptr, readNext, nullptr));
    int count = 0;
    archive_entry* entry = nullptr;
    while (check(archive_read_next_header(source.get(), &entry)) != ARCHIVE_EOF) {
        const char* const path = archive_entry_pathname(entry);
        if (path == nullptr || archive_entry_filetype(entry) != AE_IFREG ||
            !(files == Files::All || IsReport(path))) {
            continue;
        }
        ++count;
        const void* piece = nullptr;
        size_t length = 0;
        la_int64_t offset = 0;
        int status = ARCHIVE_OK;
        while ((status = archive_read_data_block(source.get(), &piece, &length, &offset)) >=
               ARCHIVE_WARN) {
            if (status == ARCHIVE_EOF) {
                break;
            }
            reader.Read({static_cast<const char*>(piece), length});
        }
        reader.End();
        if (file.IsStopped()) {
            return count;  // Nothing is wrong with the file.
        }
        if (status < ARCHIVE_WARN && reader.Summary().libraryLines != 0) {
            // What could be read is explained.
            reader.NoteDamage(archive_error_string(source.get()));
            return count;
        }
        check(status);
    }
    return count;
}

void ReadZip(CaptureReader& reader, File& file) {
    if (ReadArchive(reader, file, "zip", Files::Reports) == 0 &&
        !(file.Rewind() && ReadArchive(reader, file, "zip", Files::All) != 0)) {
        throw CaptureError("is a zip without a bug report in it");
    }
}

}  // namespace

void ReadCapture(CaptureReader& reader, uint32_t input, const std::string& path,
                 const std::function<bool(int64_t done, int64_t all)>& onProgress) {
    File file(path, onProgress);
    reader.Begin(input);
    std::string_view piece = file.Next();
    if (piece.starts_with(ZIP_MARK)) {
        file.Back();
        ReadZip(reader, file);
        return;
    }
    if (piece.starts_with(GZIP_MARK)) {
        file.Back();
        if (ReadArchive(reader, file, "gzip file", Files::All) == 0) {
            throw CaptureError("is a gzip file with nothing in it: empty, or cut off");
        }
        return;
    }
    for (; !piece.empty(); piece = file.Next()) {
        reader.Read(piece);
    }
    reader.End();
}

}  // namespace tools
