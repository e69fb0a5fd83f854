// Archives in memory, and what they hold.
#pragma once

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>

#include "archive/tar.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/private_world.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/support/tar_reader.h"

// Seconds until the alarm(2) of this process: the time that a phase has left.
inline long limit_left() {
    itimerval now = {};
    getitimer(ITIMER_REAL, &now);
    return now.it_value.tv_sec;
}

// Bytes that do not compress, the same ones in each call.
inline std::string noise(size_t size) {
    std::mt19937 random(20);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

// What zlib can decompress of a gzip member, or of its first bytes.
struct unpacked_bytes {
    std::string bytes;
    bool is_whole = false;  // exactly one member, with the right checksum
};
inline unpacked_bytes unpack(const std::string& packed) {
    z_stream stream = {};
    constexpr int gzip_only = 15 + 16;
    if (inflateInit2(&stream, gzip_only) != Z_OK) {
        return {};
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    stream.avail_in = static_cast<uInt>(packed.size());
    std::string all;
    std::string block(65536, '\0');
    int result;
    do {
        stream.next_out = reinterpret_cast<Bytef*>(block.data());
        stream.avail_out = static_cast<uInt>(block.size());
        result = inflate(&stream, Z_NO_FLUSH);
        all.append(block, 0, block.size() - stream.avail_out);
    } while (result == Z_OK);
    bool is_whole = result == Z_STREAM_END && stream.avail_in == 0;
    inflateEnd(&stream);
    return {all, is_whole};
}

// The content of a stream of exactly one gzip member, checked by zlib. Nothing if it is anything else.
inline std::optional<std::string> gunzip(const std::string& packed) {
    unpacked_bytes unpacked = unpack(packed);
    return unpacked.is_whole ? std::optional(unpacked.bytes) : std::nullopt;
}

// `size` bytes of lines of 79 blanks.
inline std::string filler(size_t size) {
    std::string lines;
    while (lines.size() < size) {
        lines += std::string(79, ' ') + "\n";
    }
    lines.resize(size);
    return lines;
}

// Returns true if `text` is `shape`, in which each '9' stands for any digit.
inline bool has_shape(const std::string& text, const std::string& shape) {
    return std::equal(text.begin(), text.end(), shape.begin(), shape.end(), [](char is, char wanted) {
        return wanted == '9' ? is >= '0' && is <= '9' : is == wanted;
    });
}

// An archive in memory.
class test_archive {
public:
    explicit test_archive(const char* prefix = nullptr)
        : file_(memory_file()), handle_(tar_new(file_.get(), prefix)) {}
    test_archive(const test_archive&) = delete;
    test_archive& operator=(const test_archive&) = delete;
    ~test_archive() {
        if (handle_) {
            tar_abandon(handle_);
        }
    }

    tar_handle* handle() const { return handle_; }
    int fd() const { return file_.get(); }
    std::string bytes() const { return content_of(file_.get()); }

    // Closes the archive and reads it back.
    tar_listing finish() {
        if (handle_) {
            tar_close(handle_);
            handle_ = nullptr;
        }
        return tar_read(bytes());
    }

private:
    unique_fd file_;
    tar_handle* handle_;
};

#define SKIP_WITHOUT_ROOT()               \
    do {                                  \
        if (geteuid() != 0) {             \
            GTEST_SKIP() << "needs root"; \
        }                                 \
    } while (false)

// Points both standard outputs at files of the test until this process ends.
inline void redirect_outputs(int out_fd, int err_fd) {
    dup2(out_fd, STDOUT_FILENO);
    dup2(err_fd, STDERR_FILENO);
}
