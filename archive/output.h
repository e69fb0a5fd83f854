// The one way of an archive's bytes to its reader.
//
// Bytes go out in blocks, and each block that went out is progress of the archive's phase (archive/phase.h):
// a slow reader that still reads is no hang. The error of the first write that fails stays in the handle.
#pragma once

#include <stddef.h>
#include <sys/types.h>

struct tar_handle;

// Writes all of it. Returns false, with errno, when a write fails.
bool output_write(tar_handle* t, const void* data, size_t length);

// Writes what can be written without blocking. Returns the number of bytes, or -1: EAGAIN when that is none
// at the moment, EINTR, or the error of a broken output.
ssize_t output_write_some(tar_handle* t, const char* data, size_t length);

// Writes `count` zero bytes, or characters of filler lines (common/padding.h). Return false when a write
// fails.
bool output_pad(tar_handle* t, int count);
bool output_pad_text(tar_handle* t, int count);

// For bytes that another routine writes onto the handle's descriptor: some went out; a write failed, errno
// says why.
void output_progress();
void output_failed(tar_handle* t);
