// The archive's system-call trace.
#pragma once

#include "archive/tar.h"

// Size of the member; a shorter trace is filled with lines of spaces, a longer one is cut.
constexpr int strace_budget = 204800;
constexpr int strace_seconds = 5;

// Traces the `count` processes of `pids` (entries of -1 are skipped; the list is not changed) and stores the
// text as "strace.log" on the handle's own descriptor. No member without memory for it. Returns 0, or 1 when
// the output broke, which is reported on standard error.
int stream_strace_log(tar_handle* t, const int* pids, int count);
