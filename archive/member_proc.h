// Archive members from the proc file system.
#pragma once

#include "archive/archive_form.h"
#include "archive/tar.h"

// Size in bytes of the largest kernel core that is stored in an archive.
constexpr int kcore_limit = 10 * 1024 * 1024;

// Stores one snapshot: the files of /proc itself as "proc.YYYYMMDD-HHMMSS/...", then those of certain
// directories below it (proc_snapshot_dirs) under their own names, which a second snapshot therefore repeats.
// In a full archive, long files are stored up to member_whole_bound. Returns 0, or 1 if /proc cannot be
// opened.
int stream_proc(tar_handle* t, int fd, archive_form form = archive_form::usual);

// Stores /proc/kcore as "kcore" if its size is 1 to kcore_limit. If its first byte cannot be read, there is
// no member; after a later read error, the rest is zero bytes. Returns 0, or 1 if the reader is gone.
int stream_kcore(tar_handle* t, int fd);

// The same for another file.
int stream_kcore_from(tar_handle* t, int fd, const char* path);
