// Archive members from files whose size is not known in advance; each is read whole into a bounded buffer.
#pragma once

#include <stdint.h>

#include "archive/tar.h"

// Default limit on the bytes read from a file.
constexpr unsigned member_read_bound = 102400;

// What a full archive stores of a file of the /proc snapshots.
constexpr int64_t member_whole_bound = 8 << 20;

// How long to wait in all for a file that has no data yet, such as a FIFO. The bytes read until then become
// the member. Only the archive's phase limit ends a read in a driver that ignores O_NONBLOCK.
constexpr int member_read_timeout_ms = 2000;

// Stores the first `limit` (0: member_read_bound) bytes of the file `path` as member `name`. An empty file, a
// directory, or a missing or unreadable file gives no member; a read error drops the bytes read so far. A
// failed open or read is reported with perror(path) and in the archive's manifest, except for directories and
// for the few files in /proc/sys that even root cannot open. `fd` is the archive's descriptor. Returns 0, or
// 1 if memory ran out.
int stream_file_unknownsize(tar_handle* t, int fd, const char* name, const char* path, unsigned limit);

// Stores each file of the directory `dir_path` (ends in '/') as `name_prefix` followed by its name, shortened
// if necessary (archive/member_name.h), in directory order, without subdirectories. Skips the names in
// `skip_names` (ends with null; may be null). Stores nothing if memory runs out. Returns 0, or 1 if the
// directory cannot be opened.
//
// Of each file, `file_bound` bytes are stored at most. A file longer than member_read_bound is read twice,
// first for its size and then for its bytes; if it cannot be read twice, it is cut at member_read_bound.
int stream_dir_unknownsize(tar_handle* t, int fd, const char* name_prefix, const char* dir_path,
                           const char* const* skip_names, int64_t file_bound = member_read_bound);
