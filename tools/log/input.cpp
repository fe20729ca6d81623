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

using Progress = std::function<bool(int64_t, int64_t)>;

// Reads a file, or of those in a zip the ones that are wanted by their names. Returns whether there
// was any.
bool ReadFiles(TextSink& sink, const std::string& name, int descriptor, const Progress& onProgress,
               bool (*isWanted)(std::string_view name)) {
    const std::unique_ptr<archive, int (*)(archive*)> owner(archive_read_new(), archive_read_free);
    archive* const all = owner.get();
    archive_read_support_filter_gzip(all);
    archive_read_support_format_zip(all);
    archive_read_support_format_raw(all);  // Text, and what gzip made of it.
    archive_read_support_format_empty(all);
    const auto check = [all, &name](int status) {
        if (status < ARCHIVE_WARN) {
            const char* const reason = archive_error_string(all);
            throw CommandError(fmt::format("{}: error: cannot be read: {}", name,
                                           reason == nullptr ? "unknown" : reason));
        }
        return status;
    };
    struct stat file {};
    const int64_t size = fstat(descriptor, &file) == 0 ? file.st_size : 0;
    const auto isStopped = [&] { return !onProgress(archive_filter_bytes(all, -1), size); };
    check(archive_read_open_fd(all, descriptor, PIECE));
    bool hasFile = false;
    archive_entry* entry = nullptr;
    while (check(archive_read_next_header(all, &entry)) != ARCHIVE_EOF) {
        const char* const path = archive_entry_pathname(entry);
        const bool isZip = (archive_format(all) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_ZIP;
        if (path == nullptr || archive_entry_filetype(entry) != AE_IFREG ||
            (isZip && !isWanted(path))) {
            continue;
        }
        hasFile = true;
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
    return hasFile;
}

}  // namespace

void ReadText(TextSink& sink, const std::string& name, int descriptor, const Progress& onProgress) {
    // A zip without a bug report may hold other captures.
    if (!ReadFiles(sink, name, descriptor, onProgress, IsReport) &&
        (lseek(descriptor, 0, SEEK_SET) != 0 ||
         !ReadFiles(sink, name, descriptor, onProgress, [](std::string_view) { return true; }))) {
        sink.End();  // Nothing is in it.
    }
}

}  // namespace tools
