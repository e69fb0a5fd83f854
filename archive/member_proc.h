// Archive members from the proc file system.
#pragma once

#include "archive/tar.h"

// Largest kernel core that goes into an archive.
constexpr int kcore_limit = 10 * 1024 * 1024;

// Stores one snapshot: the files of /proc itself below "proc.YYYYMMDD-HHMMSS/", then those of 26 directories
// below it under their own names, so that a second snapshot stores these again. Returns 0, or 1 when /proc
// can't be opened.
int stream_proc(tar_handle* t, int fd);

// Stores /proc/kcore as "kcore" when it has a size from 1 to kcore_limit. No member when it can't be read at
// all; what can't be read behind its beginning becomes zero bytes. Returns 0, or 1 when the output broke.
int stream_kcore(tar_handle* t, int fd);

// The same for another file in its place.
int stream_kcore_from(tar_handle* t, int fd, const char* path);
