#include "archive/gzip.h"

#include <errno.h>
#include <stdint.h>
#include <unistd.h>
#include <zlib.h>

#include "common/safe_io.h"

namespace {

constexpr unsigned buffer_size = 16384;

// ID1, ID2, CM (deflate), FLG, MTIME (4 bytes), XFL, OS (Unix): RFC 1952, section 2.3.
constexpr unsigned char gzip_header[10] = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3};

struct compressor {
    z_stream stream;
    uint32_t crc;
    uint32_t length;  // modulo 2^32, as the trailer wants it
    unsigned char input[buffer_size];
    unsigned char output[buffer_size];
};

bool write_all(const void* data, unsigned length) {
    return safe_write(STDOUT_FILENO, data, length) >= 0;
}

bool write_little_endian(uint32_t value) {
    const unsigned char bytes[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                                    static_cast<unsigned char>(value >> 16),
                                    static_cast<unsigned char>(value >> 24)};
    return write_all(bytes, sizeof bytes);
}

// One call of deflate and the writing of what it gave. `*result` is deflate's own.
bool deflate_some(compressor* gz, int flush, int* result) {
    gz->stream.next_out = gz->output;
    gz->stream.avail_out = buffer_size;
    *result = deflate(&gz->stream, flush);
    unsigned produced = buffer_size - gz->stream.avail_out;
    return produced == 0 || write_all(gz->output, produced);
}

// What became of the input.
enum class input_end { whole, broken, output_failed };

input_end compress_input(compressor* gz) {
    for (;;) {
        ssize_t got = safe_read(STDIN_FILENO, gz->input, buffer_size);
        if (got <= 0) {
            return got == 0 ? input_end::whole : input_end::broken;
        }
        unsigned count = static_cast<unsigned>(got);
        gz->length += count;
        gz->crc = static_cast<uint32_t>(crc32(gz->crc, gz->input, count));
        gz->stream.next_in = gz->input;
        gz->stream.avail_in = count;
        while (gz->stream.avail_in > 0) {
            int result;
            if (!deflate_some(gz, Z_NO_FLUSH, &result)) {
                return input_end::output_failed;
            }
        }
    }
}

// What has been compressed goes out; the trailer does only when all of the input was there.
bool finish(compressor* gz, bool with_trailer) {
    int result;
    do {
        if (!deflate_some(gz, Z_FINISH, &result)) {
            return false;
        }
    } while (result != Z_STREAM_END);
    return !with_trailer || (write_little_endian(gz->crc) && write_little_endian(gz->length));
}

int compress(compressor* gz, bool (*is_whole)(void* context), void* context) {
    if (!write_all(gzip_header, sizeof gzip_header)) {
        return errno;
    }
    const input_end end = compress_input(gz);
    if (end == input_end::output_failed) {
        return errno;
    }
    const bool whole = !is_whole || (end == input_end::whole && is_whole(context));
    if (!finish(gz, whole)) {
        return errno;
    }
    return whole ? 0 : EIO;
}

}  // namespace

int stream_gzip(bool (*is_whole)(void* context), void* context) {
    static_assert(Z_BEST_SPEED == 1);
    compressor gz;
    gz.stream = {};
    gz.crc = static_cast<uint32_t>(crc32(0, nullptr, 0));
    gz.length = 0;
    constexpr int raw_window_bits = -15;
    constexpr int memory_level = 8;
    if (deflateInit2(&gz.stream, Z_BEST_SPEED, Z_DEFLATED, raw_window_bits, memory_level,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        close(STDIN_FILENO);
        return ENOMEM;
    }
    const int error = compress(&gz, is_whole, context);
    if (error != 0) {
        // The builder at the other end of the pipe learns by EPIPE that nobody wants the rest.
        close(STDIN_FILENO);
    }
    deflateEnd(&gz.stream);
    return error;
}
