// The members of a debug archive and their order.
#pragma once

#include "archive/archive_form.h"

// Writes one archive to `fd` (borrowed). `skip_pid` (the compressor; -1: none) is excluded from the process
// list, the trace and the dumps. `browser_fd` is the connection that the archive is sent on, whose traffic is
// excluded from the capture; -1 if that is `fd` itself.
//
// A member that cannot be made because memory or descriptors run out is skipped. A failed write ends the
// archive. A full archive ends with its manifest (archive/manifest.h). Returns 0 if the whole archive was
// written, else the errno of the failure.
//
// The service watchdogs are off meanwhile. A phase without progress for phase_seconds (archive/phase.h) ends
// the process.
int stream_debug_archive(int fd, int skip_pid, int browser_fd = -1, archive_form form = archive_form::usual);
