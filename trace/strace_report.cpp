// The pieces of a trace's text that are not system calls, and the way of all text to the caller.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ptrace.h>

#include <algorithm>
#include <utility>

#include "proc/proc_fd.h"
#include "trace/strace.h"
#include "trace/strace_process.h"
#include "trace/text_line.h"

namespace {

constexpr int listed_fds = 1024;
constexpr size_t prefix_room = 16;  // for a descriptor number and a tab
constexpr const char* listing_name = "strace_show_fdinfo_all";

// The lines of the messages below, which are part of their text.
constexpr int line_of_heading = 225;
constexpr int line_of_number = 232;
constexpr int line_of_description = 243;
constexpr int line_of_end = 252;

void report_printf(int line) {
    fprintf(stderr, "%s:%d strace_printf failed\n", listing_name, line);
}

// Gives the context another work buffer for as long as this lives: a line may be standing in its own. Without
// memory for it there is none, and no text has room in it.
class spare_buffer {
public:
    explicit spare_buffer(strace_ctx* ctx)
        : ctx_(ctx),
          buf_(static_cast<char*>(malloc(static_cast<size_t>(ctx->bufsize)))),
          kept_(ctx->buf),
          kept_size_(ctx->bufsize) {
        ctx_->buf = buf_.get();
        ctx_->bufsize = buf_ ? kept_size_ : 0;
    }
    ~spare_buffer() {
        ctx_->buf = kept_;
        ctx_->bufsize = kept_size_;
    }
    spare_buffer(const spare_buffer&) = delete;
    spare_buffer& operator=(const spare_buffer&) = delete;
    bool usable() const { return buf_ != nullptr; }

private:
    strace_ctx* ctx_;
    unique_malloc<char> buf_;
    char* kept_;
    int32_t kept_size_;
};

// Ends the line of a descriptor that has no description.
bool end_line(strace_ctx* ctx, int fd) {
    if (strace_printf(ctx, "%d\t", fd) < 0) {
        report_printf(line_of_number);
        return false;
    }
    if (strace_printf(ctx, "\n") < 0) {
        report_printf(line_of_end);
        return false;
    }
    return true;
}

// Writes one descriptor's line. `room` has prefix_room bytes, the size of a work buffer and a newline's.
bool show_fd(strace_ctx* ctx, pid_t pid, int fd, size_t index, char* room) {
    char* description = room + prefix_room;
    int length = strace_describe_fd(ctx, pid, fd, description, static_cast<size_t>(ctx->bufsize));
    if (length < 0) {
        fprintf(stderr, "%s: fdinfo lookup failed, pid=%d, fd=%d, i=%zu\n", listing_name, pid, fd, index);
        return end_line(ctx, fd);
    }
    if (length == 0 || length >= ctx->bufsize) {
        fprintf(stderr, "%s: Unexpected length: %d\n", listing_name, length);
        return end_line(ctx, fd);
    }
    // The number goes right before the description, so that the line is one piece.
    char number[prefix_room];
    int digits = snprintf(number, sizeof number, "%d\t", fd);
    char* line = description - digits;
    std::copy_n(number, digits, line);
    description[length] = '\n';
    if (strace_write(ctx, line, digits + length + 1) < 0) {
        fprintf(stderr, "%s:%d strace_write failed\n", listing_name, line_of_description);
        return false;
    }
    return true;
}

}  // namespace

int32_t strace_write(strace_ctx* ctx, const char* text, int length) {
    strace_write_pending(ctx);
    return ctx->write ? ctx->write(ctx->cookie, text, length) : 0;
}

void strace_write_later(strace_ctx* ctx, const char* text, int length) {
    strace_names* names = ctx->names;
    if (!names->pending || length > strace_buffer_size) {
        (void)strace_write(ctx, text, length);
        return;
    }
    if (length > strace_buffer_size - names->pending_length) {
        strace_write_pending(ctx);
    }
    std::copy_n(text, length, names->pending.get() + names->pending_length);
    names->pending_length += length;
}

void strace_write_pending(strace_ctx* ctx) {
    strace_names* names = ctx->names;
    int length = names ? std::exchange(names->pending_length, 0) : 0;
    if (length > 0 && ctx->write) {
        ctx->write(ctx->cookie, names->pending.get(), length);
    }
}

int strace_describe_fd(const strace_ctx* ctx, pid_t pid, int fd, char* buf, size_t len) {
    strace_process* process = strace_find(ctx, pid);
    if (process->fd_dir < 0 && ctx->names->count <= strace_held_dirs) {
        process->fd_dir = proc_fd_dir(pid).release();
    }
    return proc_fdinfo_lookup(pid, fd, buf, len, {ctx->names->sockets.get(), process->fd_dir});
}

int strace_printf(strace_ctx* ctx, const char* format, ...) {
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line before makes it
    int length = vsnprintf(ctx->buf, static_cast<size_t>(ctx->bufsize), format, args);
    va_end(args);
    if (length >= 1 && length < ctx->bufsize) {
        (void)strace_write(ctx, ctx->buf, length);
    }
    return length;
}

void strace_exit(strace_ctx* ctx, pid_t pid, int kind, int code, void* extra) {
    if (kind == strace_exit_stop) {
        unsigned long message = 0;
        ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &message);
        code = static_cast<int>(message);
    }
    spare_buffer spare(ctx);
    if ((ctx->flags & strace_fds) && spare.usable()) {
        strace_show_fdinfo_all(ctx, pid);
    }
    if (ctx->on_exit) {
        ctx->on_exit(ctx, ctx->cookie, pid, kind, code, extra);
    }
}

void strace_show_fdinfo_all(strace_ctx* ctx, pid_t pid) {
    int fds[listed_fds];
    int count = proc_fdlist(pid, fds, listed_fds);
    unique_malloc<char> room(static_cast<char*>(malloc(prefix_room + static_cast<size_t>(ctx->bufsize) + 1)));
    if (!room) {
        return;
    }
    if (strace_printf(ctx, "\n[%d %s] %d open fds:\n", pid, strace_find(ctx, pid)->name, count) < 0) {
        report_printf(line_of_heading);
        return;
    }
    for (int i = 0; i < count; i++) {
        if (!show_fd(ctx, pid, fds[i], static_cast<size_t>(i), room.get())) {
            return;
        }
    }
}
