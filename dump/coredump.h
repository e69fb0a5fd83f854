// The core of one live process, for a browser.
#pragma once

// Streams the raw core of `pid` to `fd` (borrowed) and returns after the dumper has ended. A failure is
// reported on standard error as "dump error for pid PID"; the system log says why there is no core or only a
// part of it. `pid` may be a thread of the calling process.
void coredump(int fd, int pid);
