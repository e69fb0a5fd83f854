// Archive members from files whose size is not known in advance; each is read whole into a bounded buffer.
#pragma once

#include "archive/tar.h"

// Default limit of the bytes read from a file.
constexpr unsigned member_read_bound = 102400;

// How long one read waits for a file without data, such as a FIFO; the bytes read until then are the member.
// The archive's phase limit applies to a driver that ignores O_NONBLOCK.
constexpr int member_read_patience_ms = 2000;

// Stores the first `limit` (0: member_read_bound) bytes of the file `path` as member `name`. An empty file, a
// directory, or a missing or unreadable file gives no member. A read error drops the bytes read so far and is
// reported with perror(path), except for directories and for the files in /proc/sys that cannot be read at
// all. `fd` is the archive's descriptor. Returns 0, or 1 if memory ran out.
int stream_file_unknownsize(tar_handle* t, int fd, const char* name, const char* path, unsigned limit);

// Stores each file of the directory `dir_path` (ends in '/') as `name_prefix` followed by its name, shortened
// if necessary (archive/member_name.h), in directory order, without subdirectories. Skips the names in
// `skip_names` (ends with null; may be null). Returns 0, or 1 if the directory cannot be opened.
int stream_dir_unknownsize(tar_handle* t, int fd, const char* name_prefix, const char* dir_path,
                           const char* const* skip_names);
