// The buffered output of the core. It detaches the process when the output takes too long.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "common/unique_fd.h"
#include "tools/dcore/threads.h"

// With a larger buffer, more of a small process has been read when the first byte is written.
constexpr size_t stream_buffer_size = 1 << 20;

// The process is detached before all of its memory has been read when the reader takes nothing for this long
// (the reader may be the stopped process, or wait for it), or when the whole output takes longer.
constexpr int64_t stream_stall_limit_ms = 1000;
constexpr int64_t stream_hold_limit_ms = 30000;

struct core_stream {
    int fd = -1;                  // borrowed
    thread_hold* hold = nullptr;  // borrowed; detached at one of the limits
    bool detached_early = false;
    int64_t progress_ms = 0;  // the time of the last write
    uint64_t position = 0;    // bytes that were put into the stream
    int error = 0;            // the errno of the first failed write, after which nothing is written
    size_t used = 0;
    // Starts at a page boundary: the kernel then copies pages several times as fast.
    unique_malloc<unsigned char> buffer;
};

// Starts a timer whose signal interrupts system calls that block.
core_stream stream_new(int fd, thread_hold* hold);

// Append bytes. A failure is stored in `error`.
void stream_write(core_stream* stream, const void* data, size_t length);
void stream_write_zeros(core_stream* stream, uint64_t length);

// Returns the free part of the buffer, which is never empty. After filling it from its start, call
// stream_advance() with the number of bytes.
std::span<unsigned char> stream_space(core_stream* stream);
void stream_advance(core_stream* stream, size_t length);

// Writes what is in the buffer. Returns `error`.
int stream_flush(core_stream* stream);
