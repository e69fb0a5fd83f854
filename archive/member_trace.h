// The archive's system-call trace.
#pragma once

#include "archive/tar.h"

// Size of the member in bytes. A shorter trace is padded with lines of spaces, a longer one is cut.
constexpr int strace_budget = 204800;
constexpr int strace_seconds = 5;

// Traces the `count` processes of `pids` (-1 entries are skipped; the list is not changed) for strace_seconds
// and stores the text as "strace.log" on the handle's own descriptor, with times (strace_ctx) if `timed`. If
// memory runs out, there is no member. Returns 0, or 1 if the text could not be written, which is reported on
// standard error.
int stream_strace_log(tar_handle* t, const int* pids, int count, bool timed = false);
