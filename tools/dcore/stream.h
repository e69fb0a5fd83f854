// The core on its way out: through one buffer, with an eye on how long the process has been held for it.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "common/unique_fd.h"
#include "tools/dcore/threads.h"

// The larger the buffer, the more of a small process has been read when the first byte is written.
constexpr size_t stream_buffer_size = 1 << 20;

// The process is let go before its memory is all read when its reader takes nothing for this long (it may be
// the very process that is held, or wait for it), and when it is slow.
constexpr int64_t stream_stall_limit_ms = 1000;
constexpr int64_t stream_hold_limit_ms = 30000;

struct core_stream {
    int fd = -1;                  // borrowed
    thread_hold* hold = nullptr;  // let go when one of the limits is reached
    bool let_go_early = false;
    int64_t progress_ms = 0;  // when something was written last
    uint64_t position = 0;    // bytes put into the stream
    int error = 0;            // the errno of the first write that failed; nothing is written after it
    size_t used = 0;
    unique_malloc<unsigned char>
        buffer;  // from a page boundary on: the kernel copies pages to such several times as fast
};

// Begins. From now on a timer interrupts calls that block.
core_stream stream_new(int fd, thread_hold& hold);

// Appends bytes. Failures are kept in `error`.
void stream_put(core_stream& stream, const void* data, size_t length);
void stream_put_zeros(core_stream& stream, uint64_t length);

// Room in the buffer, never empty, to put up to its size of bytes into; tell stream_filled how many.
std::span<unsigned char> stream_room(core_stream& stream);
void stream_filled(core_stream& stream, size_t length);

// Writes out what is in the buffer. Returns `error`.
int stream_flush(core_stream& stream);
