// What the compressor writes, made and read with zlib.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <zlib.h>

#include <algorithm>
#include <fstream>
#include <string>

inline const std::string gzip_header("\x1f\x8b\x08\0\0\0\0\0\0\x03", 10);

inline std::string little_endian(uint32_t value) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

inline uint32_t crc_of(const std::string& bytes) {
    return static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

// The output of zlib at its fastest level for blocks of 16384 bytes, without a flush.
inline std::string raw_deflate(const std::string& bytes) {
    z_stream stream = {};
    EXPECT_EQ(deflateInit2(&stream, 1, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string out(bytes.size() + bytes.size() / 100 + 1000, '\0');
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    for (size_t at = 0; at < bytes.size(); at += 16384) {
        std::string block = bytes.substr(at, 16384);
        stream.next_in = reinterpret_cast<Bytef*>(block.data());
        stream.avail_in = static_cast<uInt>(block.size());
        EXPECT_EQ(deflate(&stream, Z_NO_FLUSH), Z_OK);
        EXPECT_EQ(stream.avail_in, 0u);
    }
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(out.size() - stream.avail_out);
    deflateEnd(&stream);
    return out;
}

// The whole stream that must come from `bytes` without a flush.
inline std::string unflushed_stream(const std::string& bytes) {
    return gzip_header + raw_deflate(bytes) + little_endian(crc_of(bytes)) +
           little_endian(static_cast<uint32_t>(bytes.size()));
}

// How often the stream was flushed. For streams that do not hold the flush's four bytes by chance.
inline int count_flushes(const std::string& packed) {
    const std::string end_of_flush("\0\0\xff\xff", 4);
    int count = 0;
    for (size_t at = packed.find(end_of_flush); at != std::string::npos;
         at = packed.find(end_of_flush, at + 1)) {
        count++;
    }
    return count;
}

// True while the process is blocked in the system call `number`.
inline bool is_blocked_in(long number, pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/syscall");
    std::string call;
    return std::getline(file, call, ' ') && call == std::to_string(number);
}

inline bool can_see_blocked_calls() {
    std::ifstream file("/proc/self/syscall");
    std::string line;
    return static_cast<bool>(std::getline(file, line));
}

#define SKIP_WITHOUT_BLOCKED_CALLS()                                       \
    do {                                                                   \
        if (!can_see_blocked_calls()) {                                    \
            GTEST_SKIP() << "this kernel does not show what blocks calls"; \
        }                                                                  \
    } while (false)
