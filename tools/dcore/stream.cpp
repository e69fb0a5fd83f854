#include "tools/dcore/stream.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "common/monotonic.h"
#include "tools/dcore/ticks.h"

namespace {

constexpr int tick_ms = 200;
constexpr long tick_us = tick_ms * 1000L;
constexpr size_t buffer_alignment = 1 << 16;
static_assert(stream_buffer_size % buffer_alignment == 0);

void interrupt_calls(int) {
    // The signal itself interrupts a write.
}

void apply_limits(core_stream* stream) {
    threads_reap_killed(stream->hold);
    int64_t now = monotonic_ms();
    if (stream->detached_early || now - stream->progress_ms > stream_stall_limit_ms ||
        now - stream->hold->stopped_at_ms > stream_hold_limit_ms) {
        if (!threads_all_detached(*stream->hold)) {
            stream->detached_early = true;
            threads_detach(stream->hold);
        }
    }
}

// Returns the number of bytes that were written; 0 after an interruption and on failure.
size_t write_some(core_stream* stream, const unsigned char* data, size_t length) {
    ssize_t wrote = write(stream->fd, data, length);
    if (wrote > 0) {
        stream->progress_ms = monotonic_ms();
        return static_cast<size_t>(wrote);
    }
    if (wrote < 0 && errno == EAGAIN) {
        pollfd reader = {stream->fd, POLLOUT, 0};
        poll(&reader, 1, tick_ms);
    } else if (wrote < 0 && errno != EINTR) {
        stream->error = errno;
    }
    return 0;
}

}  // namespace

core_stream stream_new(int fd, thread_hold* hold) {
    core_stream stream;
    stream.fd = fd;
    stream.hold = hold;
    stream.progress_ms = monotonic_ms();
    stream.buffer.reset(static_cast<unsigned char*>(aligned_alloc(buffer_alignment, stream_buffer_size)));
    if (!stream.buffer) {
        abort();  // which also resumes the process
    }
    ticks_handle(SIGALRM, interrupt_calls, 0, SIG_UNBLOCK);
    ticks_set(tick_us);
    return stream;
}

void stream_write(core_stream* stream, const void* data, size_t length) {
    auto from = static_cast<const unsigned char*>(data);
    while (length > 0) {
        std::span<unsigned char> space = stream_space(stream);
        size_t step = std::min(space.size(), length);
        memcpy(space.data(), from, step);
        stream_advance(stream, step);
        from += step;
        length -= step;
    }
}

void stream_write_zeros(core_stream* stream, uint64_t length) {
    while (length > 0) {
        std::span<unsigned char> space = stream_space(stream);
        size_t step = static_cast<size_t>(std::min<uint64_t>(space.size(), length));
        memset(space.data(), 0, step);
        stream_advance(stream, step);
        length -= step;
    }
}

std::span<unsigned char> stream_space(core_stream* stream) {
    if (stream->used == stream_buffer_size) {
        stream_flush(stream);
    }
    return {stream->buffer.get() + stream->used, stream_buffer_size - stream->used};
}

void stream_advance(core_stream* stream, size_t length) {
    stream->used += length;
    stream->position += length;
}

int stream_flush(core_stream* stream) {
    size_t done = 0;
    while (done < stream->used && stream->error == 0) {
        done += write_some(stream, stream->buffer.get() + done, stream->used - done);
        apply_limits(stream);
    }
    stream->used = 0;
    return stream->error;
}
