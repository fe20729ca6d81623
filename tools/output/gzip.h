// Compression.

#pragma once

#include <string>
#include <string_view>

namespace tools {

// The bytes as a gzip file, The same bytes make the same file: it holds no time and no name. Throws
// a std::length_error for more than 2 GB.
std::string Gzip(std::string_view bytes);

}  // namespace tools
