#include "archive/gzip.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <unistd.h>
#include <zlib.h>

#include <optional>

#include "common/deadline.h"
#include "common/safe_io.h"

namespace {

constexpr unsigned buffer_size = 16384;

// ID1, ID2, CM (deflate), FLG, MTIME (4 bytes), XFL, OS (Unix): RFC 1952, section 2.3.
constexpr unsigned char gzip_header[10] = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3};

struct compressor {
    z_stream stream;
    uint32_t crc;
    uint32_t length;  // modulo 2^32, as in the trailer
    int flush_after_ms;
    std::optional<deadline> flush_due;  // empty if all input so far was flushed
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

// Calls deflate once, stores its result in `*result` and writes its output.
bool deflate_block(compressor* gz, int flush, int* result) {
    gz->stream.next_out = gz->output;
    gz->stream.avail_out = buffer_size;
    *result = deflate(&gz->stream, flush);
    const unsigned output_size = buffer_size - gz->stream.avail_out;
    return output_size == 0 || write_all(gz->output, output_size);
}

// Waits for input or its end. Returns true if the time is over.
bool is_silent(int timeout_ms) {
    pollfd wait = {STDIN_FILENO, POLLIN, 0};
    return TEMP_FAILURE_RETRY(poll(&wait, 1, timeout_ms)) == 0;
}

// Waits for more input, and flushes when the oldest input that was not flushed is old enough. After a flush,
// the next read waits without a limit. Returns false if a write has failed.
bool flush_if_due(compressor* gz) {
    if (gz->flush_after_ms == 0) {
        return true;
    }
    if (!gz->flush_due) {
        gz->flush_due.emplace(gz->flush_after_ms);
    }
    if (!gz->flush_due->is_over() && !is_silent(gz->flush_due->left_ms())) {
        return true;
    }
    gz->flush_due.reset();
    do {
        int result;
        if (!deflate_block(gz, Z_SYNC_FLUSH, &result)) {
            return false;
        }
    } while (gz->stream.avail_out == 0);
    return true;
}

// Reads a whole block, or what there is if the input may be silent.
ssize_t read_input(compressor* gz) {
    if (gz->flush_after_ms == 0) {
        return safe_read(STDIN_FILENO, gz->input, buffer_size);
    }
    return TEMP_FAILURE_RETRY(read(STDIN_FILENO, gz->input, buffer_size));
}

enum class input_result { end_of_file, read_failed, write_failed };

input_result compress_input(compressor* gz) {
    for (;;) {
        const ssize_t length = read_input(gz);
        if (length <= 0) {
            return length == 0 ? input_result::end_of_file : input_result::read_failed;
        }
        gz->length += static_cast<uint32_t>(length);
        gz->crc = static_cast<uint32_t>(crc32(gz->crc, gz->input, static_cast<uInt>(length)));
        gz->stream.next_in = gz->input;
        gz->stream.avail_in = static_cast<uInt>(length);
        while (gz->stream.avail_in > 0) {
            int result;
            if (!deflate_block(gz, Z_NO_FLUSH, &result)) {
                return input_result::write_failed;
            }
        }
        if (!flush_if_due(gz)) {
            return input_result::write_failed;
        }
    }
}

// Writes the rest of the compressed data and, unless the input is incomplete, the trailer.
bool finish(compressor* gz, bool with_trailer) {
    int result;
    do {
        if (!deflate_block(gz, Z_FINISH, &result)) {
            return false;
        }
    } while (result != Z_STREAM_END);
    return !with_trailer || (write_little_endian(gz->crc) && write_little_endian(gz->length));
}

int compress(compressor* gz, bool (*is_whole)(void* context), void* context) {
    if (!write_all(gzip_header, sizeof gzip_header)) {
        return errno;
    }
    const input_result input = compress_input(gz);
    if (input == input_result::write_failed) {
        return errno;
    }
    const bool with_trailer = !is_whole || (input == input_result::end_of_file && is_whole(context));
    if (!finish(gz, with_trailer)) {
        return errno;
    }
    return with_trailer ? 0 : EIO;
}

}  // namespace

int stream_gzip(bool (*is_whole)(void* context), void* context, int flush_after_ms) {
    static_assert(Z_BEST_SPEED == 1);
    compressor gz;
    gz.stream = {};
    gz.crc = static_cast<uint32_t>(crc32(0, nullptr, 0));
    gz.length = 0;
    gz.flush_after_ms = flush_after_ms;
    constexpr int raw_window_bits = -15;
    constexpr int memory_level = 8;
    if (deflateInit2(&gz.stream, Z_BEST_SPEED, Z_DEFLATED, raw_window_bits, memory_level,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        close(STDIN_FILENO);
        return ENOMEM;
    }
    const int error = compress(&gz, is_whole, context);
    if (error != 0) {
        // The next write of the builder, at the other end of the pipe, fails with EPIPE.
        close(STDIN_FILENO);
    }
    deflateEnd(&gz.stream);
    return error;
}
