// Compression.

#include <zlib.h>

#include <cstdint>
#include <new>
#include <stdexcept>

#include "tools/output/outputs.h"

namespace tools {

std::string Gzip(std::string_view bytes) {
    if (bytes.size() > INT32_MAX) {
        throw std::length_error("more than 2 GB are not compressed");
    }
    constexpr int gzip = 16;  // What zlib adds to the window's size for gzip's header.
    constexpr int memory = 8;
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzip + MAX_WBITS, memory,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc();
    }
    std::string packed(deflateBound(&stream, bytes.size()), '\0');
    // Read alone, in spite of the type.
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

}  // namespace tools
