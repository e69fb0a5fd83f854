// What a debug archive holds, and in which order.
#pragma once

// Writes one archive onto `fd` (borrowed). `skip_pid` is left out of the process list, the trace and the
// dumps (the compressor), or -1. `browser_fd` is the connection that the archive ends up on, whose traffic
// the capture leaves out; -1 when that is `fd` itself.
//
// A member that cannot be made, for want of memory or descriptors, is left out. An output that broke ends the
// archive. Returns 0 when the whole archive was written, else the errno of why not.
//
// The service watchdogs are off meanwhile. A phase without progress for 300 seconds ends the process
// (archive/phase.h).
int stream_debug_archive(int fd, int skip_pid, int browser_fd = -1);
