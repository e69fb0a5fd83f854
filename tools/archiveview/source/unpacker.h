// The bytes of a file, unpacked if it is compressed by gzip. Checks the trailer, which holds a checksum and a
// length.
#pragma once

#include <stdint.h>
#include <zlib.h>

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace archiveview {

enum class source_end { none, whole, cut, damaged };

// `read` fills a buffer and returns how many bytes it took, 0 at the end.
using byte_source = std::function<size_t(std::span<char>)>;

class unpacker {
public:
    explicit unpacker(byte_source read);
    ~unpacker();
    unpacker(const unpacker&) = delete;
    unpacker& operator=(const unpacker&) = delete;

    // The next bytes, valid until the next call. Empty at the end, also if the file is cut or damaged there.
    std::span<const char> next();

    bool is_compressed() const { return is_compressed_; }
    uint64_t unpacked() const { return unpacked_; }
    // Why next() returned nothing. `none` before that.
    source_end end() const { return end_; }
    const std::string& reason() const { return reason_; }

private:
    void begin();
    bool fill();
    std::span<const char> next_compressed();
    void end_compressed();
    void fail(int result);
    std::span<const char> stop(source_end end, std::string reason);

    byte_source read_;
    std::vector<char> input_, output_;
    size_t input_begin_ = 0, input_end_ = 0;
    bool is_begun_ = false, is_compressed_ = false;
    z_stream stream_ = {};
    uint64_t unpacked_ = 0;
    uint64_t packed_ = 0;
    source_end end_ = source_end::none;
    std::string reason_;
};

}  // namespace archiveview
