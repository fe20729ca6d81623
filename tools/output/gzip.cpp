#include "tools/output/gzip.h"

#include <archive.h>
#include <archive_entry.h>

#include <array>
#include <cstddef>
#include <exception>
#include <ios>

namespace tools {

class GzipStream::Buffer : public std::streambuf {
  public:
    explicit Buffer(std::ostream& stream) : target(&stream) {
        setp(pending.data(), pending.data() + pending.size());
    }
    ~Buffer() override {
        target = nullptr;  // Freeing finishes what was not closed, which must not look whole.
        archive_write_free(compressor);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    // The calls below return whether all went well; they throw what the target threw.

    bool Open() {
        archive_write_set_format_raw(compressor);
        archive_write_add_filter_gzip(compressor);
        archive_write_set_filter_option(compressor, "gzip", "timestamp", nullptr);
        archive_write_set_bytes_in_last_block(compressor, 1);  // No padding.
        const std::unique_ptr<archive_entry, void (*)(archive_entry*)> file(archive_entry_new(),
                                                                            archive_entry_free);
        archive_entry_set_filetype(file.get(), AE_IFREG);
        return IsWell(archive_write_open(compressor, this, nullptr, WriteTarget, nullptr)) &&
               IsWell(archive_write_header(compressor, file.get()));
    }
    bool Compress() {
        const auto size = static_cast<size_t>(pptr() - pbase());
        setp(pending.data(), pending.data() + pending.size());
        return IsWell(archive_write_data(compressor, pending.data(), size));
    }
    bool Close() { return Compress() && IsWell(archive_write_close(compressor)); }

  protected:
    int_type overflow(int_type character) override {
        if (!Compress()) {
            return traits_type::eof();
        }
        return traits_type::eq_int_type(character, traits_type::eof())
                   ? traits_type::not_eof(character)
                   : sputc(traits_type::to_char_type(character));
    }

  private:
    // An exception must not pass through libarchive, which is C.
    static la_ssize_t WriteTarget(archive*, void* self, const void* bytes, size_t size) {
        auto& buffer = *static_cast<Buffer*>(self);
        const auto length = static_cast<std::streamsize>(size);
        try {
            return buffer.target == nullptr ||
                           buffer.target->write(static_cast<const char*>(bytes), length)
                       ? length
                       : -1;
        } catch (...) {
            buffer.failure = std::current_exception();
            return -1;
        }
    }

    bool IsWell(la_ssize_t status) {
        if (failure) {
            std::rethrow_exception(failure);
        }
        return status >= ARCHIVE_OK;
    }

    std::ostream* target;
    archive* compressor = archive_write_new();
    std::exception_ptr failure;
    std::array<char, 1 << 16> pending{};
};

GzipStream::GzipStream(std::ostream& target)
    : std::ostream(nullptr), buffer(std::make_unique<Buffer>(target)) {
    rdbuf(buffer.get());
    exceptions(target.exceptions());
    if (!buffer->Open()) {
        setstate(badbit);
    }
}

GzipStream::~GzipStream() = default;

void GzipStream::Close() {
    if (!bad() && !buffer->Close()) {
        setstate(badbit);
    }
}

}  // namespace tools
