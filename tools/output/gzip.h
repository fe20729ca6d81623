// Output compressed on its way.

#pragma once

#include <memory>
#include <ostream>
#include <streambuf>

namespace tools {

// Writes what it is given to another stream, as gzip. The same text makes the same bytes: they hold
// no time and no name.
class GzipStream : public std::ostream {
  public:
    // `target` gets the compressed bytes, and has to outlive this. Where it fails, this fails, and
    // throws what the target throws, and when.
    explicit GzipStream(std::ostream& target);
    ~GzipStream() override;
    GzipStream(const GzipStream&) = delete;
    GzipStream& operator=(const GzipStream&) = delete;

    // To be called when all is written; without it the target is left with a part of the bytes.
    void Close();

  private:
    class Buffer;
    std::unique_ptr<Buffer> buffer;
};

}  // namespace tools
