// Captures as they come: text, and what is compressed.

#include <archive.h>
#include <archive_entry.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <memory>

#include "tools/log/capture.h"

namespace tools {
namespace {

constexpr size_t PIECE = 262'144;

// Whether it is the text of a bug report, as Android names it.
bool IsReport(std::string_view name) {
    name.remove_prefix(name.rfind('/') + 1);
    return name.starts_with("bugreport-") && name.ends_with(".txt");
}

struct Contents {
    bool isZip = false, isGzip = false;
    int files = 0;  // How many were read.
};

using Progress = std::function<bool(int64_t, int64_t)>;

// `isWanted`: by its name, of the files in a zip.
Contents ReadFiles(TextSink& sink, int descriptor, const Progress& onProgress,
                   bool (*isWanted)(std::string_view name)) {
    const std::unique_ptr<archive, int (*)(archive*)> owner(archive_read_new(), archive_read_free);
    archive* const all = owner.get();
    archive_read_support_filter_gzip(all);
    archive_read_support_format_zip(all);
    archive_read_support_format_raw(all);  // Text, and what gzip made of it.
    archive_read_support_format_empty(all);
    const auto check = [all](int status) {
        if (status < ARCHIVE_WARN) {
            const char* const reason = archive_error_string(all);
            throw CaptureError(
                fmt::format("cannot be read: {}", reason == nullptr ? "unknown" : reason));
        }
        return status;
    };
    struct stat file {};
    const int64_t size = fstat(descriptor, &file) == 0 ? file.st_size : 0;
    const auto isStopped = [&] {
        return onProgress && !onProgress(archive_filter_bytes(all, -1), size);
    };
    const auto isZip = [all] {
        return (archive_format(all) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_ZIP;
    };
    check(archive_read_open_fd(all, descriptor, PIECE));
    Contents contents;
    archive_entry* entry = nullptr;
    while (check(archive_read_next_header(all, &entry)) != ARCHIVE_EOF) {
        const char* const path = archive_entry_pathname(entry);
        if (path == nullptr || archive_entry_filetype(entry) != AE_IFREG ||
            (isZip() && !isWanted(path))) {
            continue;
        }
        ++contents.files;
        const void* piece = nullptr;
        size_t length = 0;
        la_int64_t offset = 0;
        int status = ARCHIVE_OK;
        while (!isStopped() &&
               (status = archive_read_data_block(all, &piece, &length, &offset)) >= ARCHIVE_WARN &&
               status != ARCHIVE_EOF) {
            sink.Read({static_cast<const char*>(piece), length});
        }
        sink.End();
        if (isStopped()) {
            break;  // Nothing is wrong with the file.
        }
        if (status < ARCHIVE_WARN && sink.TakeDamage(archive_error_string(all))) {
            break;  // What could be read is explained.
        }
        check(status);
    }
    contents.isZip = isZip();
    contents.isGzip = archive_filter_code(all, 0) == ARCHIVE_FILTER_GZIP;
    return contents;
}

}  // namespace

void ReadText(TextSink& sink, int descriptor, const Progress& onProgress) {
    Contents contents = ReadFiles(sink, descriptor, onProgress, IsReport);
    if (contents.isZip && contents.files == 0 && lseek(descriptor, 0, SEEK_SET) == 0) {
        contents = ReadFiles(sink, descriptor, onProgress, [](std::string_view) { return true; });
    }
    if (contents.files != 0) {
        return;
    }
    if (contents.isZip) {
        throw CaptureError("is a zip without a bug report in it");
    }
    if (contents.isGzip) {
        throw CaptureError("is a gzip file with nothing in it: empty, or cut off");
    }
    sink.End();
}

}  // namespace tools
