// Writes an archive's bytes.
//
// Bytes are written in blocks. Each block counts as progress of the archive's phase (archive/phase.h), so a
// slow reader does not look like a hang. The handle keeps the error of the first failed write.
#pragma once

#include <stddef.h>
#include <sys/types.h>

struct tar_handle;

// Writes all bytes. Returns false with errno set if a write fails.
bool output_write(tar_handle* t, const void* data, size_t length);

// Writes as much as possible without blocking. Returns the number of bytes, or -1 with errno set: EAGAIN if
// nothing can be written now, EINTR, or the error of the failed write.
ssize_t output_write_some(tar_handle* t, const char* data, size_t length);

// Write `count` zero bytes, or `count` characters of filler lines (common/padding.h). Return false if a write
// fails.
bool output_pad(tar_handle* t, int count);
bool output_pad_text(tar_handle* t, int count);

// For callers that write to the handle's descriptor themselves: stores errno as the handle's error if that is
// the first one. Such callers report their progress with phase_progress.
void output_set_error(tar_handle* t);
