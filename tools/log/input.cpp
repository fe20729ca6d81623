// Captures as they come: text, and what is compressed.

#include <archive.h>
#include <archive_entry.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <istream>
#include <memory>

#include "tools/log/capture.h"

namespace tools {
namespace {

constexpr size_t PIECE = 262'144;

// What a capture is read from.
struct Source {
    std::istream& in;
    const std::function<bool(int64_t, int64_t)>& onProgress;
    int64_t size = 0;  // 0 where it is not known.
    int64_t done = 0;
    bool isStopped = false;
    std::exception_ptr failure{};  // Of a read.
    std::string piece = std::string(PIECE, '\0');
};

// The next piece, for libarchive; empty at the end, and when reading is to stop.
la_ssize_t ReadPiece(archive* self, void* data, const void** piece) {
    Source& source = *static_cast<Source*>(data);
    if (source.isStopped) {
        return 0;
    }
    try {
        source.in.read(source.piece.data(), PIECE);
    } catch (...) {
        source.failure = std::current_exception();
        archive_set_error(self, EIO, "cannot be read");
        return -1;
    }
    source.done += source.in.gcount();
    source.isStopped = source.onProgress && !source.onProgress(source.done, source.size);
    *piece = source.piece.data();
    return source.in.gcount();
}

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

Contents ReadFiles(TextSink& sink, Source& source, Files files) {
    const std::unique_ptr<archive, int (*)(archive*)> owner(archive_read_new(), archive_read_free);
    archive* const all = owner.get();
    archive_read_support_filter_gzip(all);
    archive_read_support_format_zip(all);
    archive_read_support_format_raw(all);  // Text, and what gzip made of it.
    archive_read_support_format_empty(all);
    const auto check = [all, &source](la_ssize_t status) {
        if (source.failure) {
            std::rethrow_exception(source.failure);
        }
        if (status < ARCHIVE_WARN) {
            const char* const reason = archive_error_string(all);
            throw CaptureError(
                fmt::format("cannot be read: {}", reason == nullptr ? "unknown" : reason));
        }
        return status;
    };
    check(archive_read_open(all, &source, nullptr, ReadPiece, nullptr));
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
        while ((status = archive_read_data_block(all, &piece, &length, &offset)) >= ARCHIVE_WARN &&
               status != ARCHIVE_EOF) {
            sink.Read({static_cast<const char*>(piece), length});
        }
        sink.End();
        if (source.isStopped) {
            break;  // Nothing is wrong with the file.
        }
        if (status < ARCHIVE_WARN && !source.failure &&
            sink.TakeDamage(archive_error_string(all))) {
            break;  // What could be read is explained.
        }
        check(status);
    }
    return {KindOf(all), count};
}

}  // namespace

void ReadText(TextSink& sink, std::istream& in,
              const std::function<bool(int64_t done, int64_t all)>& onProgress) {
    Source source{in, onProgress};
    source.size = std::max<int64_t>(in.rdbuf()->pubseekoff(0, std::ios::end, std::ios::in), 0);
    in.seekg(0, std::ios::beg);
    in.clear();
    Contents contents = ReadFiles(sink, source, Files::Reports);
    if (contents.kind == Kind::Zip && contents.files == 0) {
        in.clear();
        source.done = 0;
        if (in.seekg(0, std::ios::beg)) {
            contents = ReadFiles(sink, source, Files::All);
        }
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
