#include "trace/strace_report.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ptrace.h>

#include <algorithm>
#include <utility>

#include "proc/proc_fd.h"
#include "trace/strace_process.h"
#include "trace/text_line.h"

namespace {

constexpr int listed_fds = 1024;
constexpr size_t prefix_size = 16;  // for a descriptor number and a tab
constexpr const char* listing_name = "strace_show_fdinfo_all";

// The line numbers in the messages below.
constexpr int heading_line = 225;
constexpr int number_line = 232;
constexpr int description_line = 243;
constexpr int end_line = 252;

void report_failed_printf(int line) {
    fprintf(stderr, "%s:%d strace_printf failed\n", listing_name, line);
}

// Gives the context another work buffer during its life, since its own may hold a line that is not finished.
// If memory runs out, the other buffer has the size 0, and no text fits in it.
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
    bool is_usable() const { return buf_ != nullptr; }

private:
    strace_ctx* ctx_;
    unique_malloc<char> buf_;
    char* kept_;
    int32_t kept_size_;
};

int32_t write_now(strace_ctx* ctx, const char* text, int length) {
    strace_write_pending(ctx);
    return ctx->write ? ctx->write(ctx->cookie, text, length) : 0;
}

// Adds to the pending text.
void append(strace_ctx* ctx, const char* text, int length) {
    strace_state* state = ctx->names;
    if (!state->pending || length > strace_buffer_size) {
        (void)write_now(ctx, text, length);
        return;
    }
    if (length > strace_buffer_size - state->pending_length) {
        strace_write_pending(ctx);
    }
    std::copy_n(text, length, state->pending.get() + state->pending_length);
    state->pending_length += length;
}

// In a timed trace, writes the time of a line that begins with `text`, and the newlines before it. Returns
// how many bytes of `text` it has written; some are always left, since an empty write would be a poll. Names
// of processes and files may contain newlines: only the first line of `text` has a time.
int begin_line(strace_ctx* ctx, const char* text, int length) {
    strace_state* state = ctx->names;
    if (!ctx->timed || !state) {
        return 0;
    }
    int blank = 0;
    while (blank < length && text[blank] == '\n') {
        blank++;
    }
    const bool begins = blank > 0 || !state->mid_line;
    state->mid_line = text[length - 1] != '\n';
    if (!begins || blank == length) {
        return 0;
    }
    if (blank > 0) {
        append(ctx, text, blank);
    }
    const strace_time_text time = strace_time_of_day(&state->minute, state->event.wall);
    append(ctx, time.text, time.length);
    return blank;
}

// Writes the line of a descriptor that has no description.
bool show_number(strace_ctx* ctx, int fd) {
    if (strace_printf(ctx, "%d\t", fd) < 0) {
        report_failed_printf(number_line);
        return false;
    }
    if (strace_printf(ctx, "\n") < 0) {
        report_failed_printf(end_line);
        return false;
    }
    return true;
}

// Writes one descriptor's line. `line_buf` has space for the prefix, a description of the size of the work
// buffer, and a newline. Returns false if the list is to end.
bool show_fd(strace_ctx* ctx, pid_t pid, int fd, size_t index, char* line_buf) {
    char* description = line_buf + prefix_size;
    int length = strace_describe_fd(ctx, pid, fd, description, static_cast<size_t>(ctx->bufsize));
    if (length < 0) {
        fprintf(stderr, "%s: fdinfo lookup failed, pid=%d, fd=%d, i=%zu\n", listing_name, pid, fd, index);
        return show_number(ctx, fd);
    }
    if (length == 0 || length >= ctx->bufsize) {
        fprintf(stderr, "%s: Unexpected length: %d\n", listing_name, length);
        return show_number(ctx, fd);
    }
    // The number goes right before the description: the line is then one write.
    char number[prefix_size];
    int digits = snprintf(number, sizeof number, "%d\t", fd);
    char* line = description - digits;
    std::copy_n(number, digits, line);
    description[length] = '\n';
    if (strace_write(ctx, line, digits + length + 1) < 0) {
        fprintf(stderr, "%s:%d strace_write failed\n", listing_name, description_line);
        return false;
    }
    return true;
}

}  // namespace

int32_t strace_write(strace_ctx* ctx, const char* text, int length) {
    const int begun = begin_line(ctx, text, length);
    return write_now(ctx, text + begun, length - begun);
}

void strace_write_later(strace_ctx* ctx, const char* text, int length) {
    const int begun = begin_line(ctx, text, length);
    append(ctx, text + begun, length - begun);
}

void strace_write_pending(strace_ctx* ctx) {
    strace_state* state = ctx->names;
    int length = state ? std::exchange(state->pending_length, 0) : 0;
    if (length > 0 && ctx->write) {
        ctx->write(ctx->cookie, state->pending.get(), length);
    }
}

int strace_describe_fd(const strace_ctx* ctx, pid_t pid, int fd, char* buf, size_t len) {
    const strace_state& state = *ctx->names;
    strace_process* process = strace_find(state, pid);
    if (process && !process->fd_dir && state.count <= strace_held_dirs) {
        process->fd_dir = proc_fd_dir(pid);
    }
    const int fd_dir = process ? process->fd_dir.get() : -1;
    return proc_fdinfo_lookup(pid, fd, buf, len, {state.sockets.get(), fd_dir});
}

int strace_printf(strace_ctx* ctx, const char* format, ...) {
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start has initialized it
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
    if ((ctx->flags & strace_fds) && spare.is_usable()) {
        strace_show_fdinfo_all(ctx, pid);
    }
    if (ctx->on_exit) {
        ctx->on_exit(ctx, ctx->cookie, pid, kind, code, extra);
    }
}

void strace_show_fdinfo_all(strace_ctx* ctx, pid_t pid) {
    int fds[listed_fds];
    int count = proc_fdlist(pid, fds, listed_fds);
    unique_malloc<char> line_buf(
        static_cast<char*>(malloc(prefix_size + static_cast<size_t>(ctx->bufsize) + 1)));
    if (!line_buf) {
        return;
    }
    const strace_process* process = strace_find(*ctx->names, pid);
    if (strace_printf(ctx, "\n[%d %s] %d open fds:\n", pid, process ? process->name : "", count) < 0) {
        report_failed_printf(heading_line);
        return;
    }
    for (int i = 0; i < count; i++) {
        if (!show_fd(ctx, pid, fds[i], static_cast<size_t>(i), line_buf.get())) {
            return;
        }
    }
}
