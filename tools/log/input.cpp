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

// Which of the files in a zip are read.
enum class Files : uint8_t { Reports, All };

enum class Kind : uint8_t { Text, Gzip, Zip };

Kind KindOf(archive* source) {
    const bool isZip = (archive_format(source) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_ZIP;
    const bool isGzip = archive_filter_code(source, 0) == ARCHIVE_FILTER_GZIP;
    return isZip ? Kind::Zip : isGzip ? Kind::Gzip : Kind::Text;
}

struct Contents {
    Kind kind = Kind::Text;
    int files = 0;  // How many were read.
};

using Progress = std::function<bool(int64_t, int64_t)>;

Contents ReadFiles(TextSink& sink, int descriptor, const Progress& onProgress, Files files) {
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
    check(archive_read_open_fd(all, descriptor, PIECE));
    int count = 0;
    archive_entry* entry = nullptr;
    while (check(archive_read_next_header(all, &entry)) != ARCHIVE_EOF) {
        const char* const path = archive_entry_pathname(entry);
        if (path == nullptr || archive_entry_filetype(entry) != AE_IFREG ||
            (KindOf(all) == Kind::Zip && files == Files::Reports && !IsReport(path))) {
            continue;
        }
        ++count;
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
    return {KindOf(all), count};
}

}  // namespace

void ReadText(TextSink& sink, int descriptor, const Progress& onProgress) {
    Contents contents = ReadFiles(sink, descriptor, onProgress, Files::Reports);
    if (contents.kind == Kind::Zip && contents.files == 0 && lseek(descriptor, 0, SEEK_SET) == 0) {
        contents = ReadFiles(sink, descriptor, onProgress, Files::All);
    }
    if (contents.files != 0) {
        return;
    }
    if (contents.kind == Kind::Zip) {
        throw CaptureError("is a zip without a bug report in it");
    }
    if (contents.kind == Kind::Gzip) {
        throw CaptureError("is a gzip file with nothing in it: empty, or cut off");
    }
    sink.End();
}

}  // namespace tools
