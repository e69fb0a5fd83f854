// What a debug archive holds, and in which order.
#pragma once

// Writes one archive onto `fd` (borrowed). `skip_pid` is left out of the process list, the trace and the
// dumps (the compressor), or -1. `browser_fd` is the connection that the archive ends up on, whose traffic
// the capture leaves out; -1 when that is `fd` itself. A member whose output breaks ends the archive.
//
// The service watchdogs are off meanwhile. Each phase has 300 seconds by alarm(2), whose signal ends the
// process: the guard against a member that hangs.
void stream_debug_archive(int fd, int skip_pid, int browser_fd = -1);
