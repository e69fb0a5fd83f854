// The text of a trace on its way to the caller.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "trace/strace.h"

// Descriptor directories are held open only for traces of at most this many processes.
constexpr size_t strace_held_dirs = 16;

// Writes the pending text, then `text`, through the callback. Returns the callback's result; 0 without a
// callback.
int32_t strace_write(strace_ctx* ctx, const char* text, int length);

// Buffers text for the next strace_write_pending, or writes it at once if there is no buffer. Lines of
// processes that stopped together are then one write.
void strace_write_later(strace_ctx* ctx, const char* text, int length);
void strace_write_pending(strace_ctx* ctx);

// Describes a descriptor of `pid` as proc_fdinfo_lookup does.
int strace_describe_fd(const strace_ctx* ctx, pid_t pid, int fd, char* buf, size_t len);
