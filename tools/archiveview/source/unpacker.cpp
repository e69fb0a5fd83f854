#include "tools/archiveview/source/unpacker.h"

#include <string.h>

#include <new>
#include <utility>

#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr size_t buffer_size = size_t{64} << 10;
constexpr size_t magic_size = 2;
constexpr int gzip_window_bits = 15 + 16;  // with gzip's header and trailer

bool is_magic(std::span<const char> bytes) {
    return bytes.size() >= magic_size && bytes[0] == '\x1f' && bytes[1] == '\x8b';
}

}  // namespace

unpacker::unpacker(byte_source read)
    : read_(std::move(read)), input_(buffer_size), output_(4 * buffer_size) {}

unpacker::~unpacker() {
    if (is_compressed_) {
        inflateEnd(&stream_);
    }
}

// Reads more after what the buffer holds. False at the end of the file.
bool unpacker::fill() {
    if (input_begin_ == input_end_) {
        input_begin_ = input_end_ = 0;
    }
    const size_t taken = read_(std::span(input_).subspan(input_end_));
    input_end_ += taken;
    packed_ += taken;
    return taken != 0;
}

void unpacker::begin() {
    is_begun_ = true;
    while (input_end_ < magic_size && fill()) {
    }
    if (!is_magic(std::span(input_).first(input_end_))) {
        return;
    }
    if (inflateInit2(&stream_, gzip_window_bits) != Z_OK) {
        throw std::bad_alloc();
    }
    is_compressed_ = true;
}

std::span<const char> unpacker::stop(source_end end, std::string reason) {
    end_ = end;
    reason_ = std::move(reason);
    return {};
}

std::span<const char> unpacker::next() {
    if (!is_begun_) {
        begin();
    }
    if (end_ != source_end::none) {
        return {};
    }
    if (unpacked_ >= unpacked_limit) {
        return stop(source_end::damaged, "it unpacks to more than " + std::to_string(unpacked_limit >> 30) +
                                             " GiB, and the rest was not read");
    }
    if (is_compressed_) {
        return next_compressed();
    }
    if (input_begin_ == input_end_ && !fill()) {
        return stop(source_end::whole, "");
    }
    const std::span<const char> bytes =
        std::span<const char>(input_).subspan(input_begin_, input_end_ - input_begin_);
    input_begin_ = input_end_;
    unpacked_ += bytes.size();
    return bytes;
}

// What follows the compressed data does not belong to it.
void unpacker::end_compressed() {
    if (input_begin_ != input_end_ || fill()) {
        stop(source_end::damaged, "more bytes follow the end of its compressed data");
    } else {
        stop(source_end::whole, "");
    }
}

void unpacker::fail(int result) {
    if (result == Z_MEM_ERROR) {
        throw std::bad_alloc();
    }
    const char* text = stream_.msg ? stream_.msg : "";
    const bool is_trailer =
        strcmp(text, "incorrect data check") == 0 || strcmp(text, "incorrect length check") == 0;
    stop(source_end::damaged,
         is_trailer ? "its bytes do not have the checksum and the length that stand at its end"
                    : "its compressed data is wrong near byte " + std::to_string(packed_ - stream_.avail_in));
}

std::span<const char> unpacker::next_compressed() {
    stream_.next_out = reinterpret_cast<Bytef*>(output_.data());
    stream_.avail_out = static_cast<uInt>(output_.size());
    while (end_ == source_end::none && stream_.avail_out == output_.size()) {
        if (input_begin_ == input_end_ && !fill()) {
            stop(source_end::cut, "its compressed data ends early");
            break;
        }
        stream_.next_in = reinterpret_cast<Bytef*>(input_.data() + input_begin_);
        stream_.avail_in = static_cast<uInt>(input_end_ - input_begin_);
        const int result = inflate(&stream_, Z_NO_FLUSH);
        input_begin_ = input_end_ - stream_.avail_in;
        if (result == Z_STREAM_END) {
            end_compressed();
        } else if (result != Z_OK && result != Z_BUF_ERROR) {
            fail(result);
        }
    }
    const size_t size = output_.size() - stream_.avail_out;
    unpacked_ += size;
    return std::span<const char>(output_).first(size);
}

}  // namespace archiveview
