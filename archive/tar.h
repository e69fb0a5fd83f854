// A ustar stream written straight onto a descriptor: headers with a promised size, data counted, padding to
// blocks of 512 bytes. Nothing is buffered beyond one header, and nothing is known of what the members are.
//
// For one archive: tar_new; for each member tar_addfile and then exactly its promised bytes, through any mix
// of tar_write and direct writes announced with tar_fakewrite; tar_close. Padding follows the counted bytes,
// not the promise. A failed write is not reported: the handle keeps its error, and what is written goes the
// way of archive/output.h.
//
// Header layout: POSIX.1-1988 ustar, with two oddities that are deliberate: the version field holds two
// spaces, and a stream ends after its last member's padding, without the two zero blocks.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct tar_handle {
    char* prefix;           // owned; stands in front of every member name; null when there is none
    uint32_t prefix_len;    // 0 when null
    int32_t fd;             // borrowed
    uint32_t member_bytes;  // data bytes since the last header; only the value modulo 512 counts
    int32_t error;          // errno of the first write to `fd` that failed; 0 as long as none has
};

// Returns a new handle that writes to `fd` (borrowed), or null when memory ran out, for the prefix too. The
// prefix is copied; a null or empty one means none. tar_close frees the handle.
tar_handle* tar_new(int fd, const char* prefix);

// Ends the member before and writes the header of a new one of `size` bytes, with the current time. A name of
// 100 bytes or more, prefix included, is cut at 100.
void tar_addfile(tar_handle* t, const char* name, int size);

// Writes `len` bytes of the current member.
void tar_write(tar_handle* t, const void* buf, size_t len);

// Counts `len` bytes that somebody else has put on the descriptor.
void tar_fakewrite(tar_handle* t, size_t len);

// Pads the last member and frees the handle; the descriptor stays open. Returns the handle's error: 0 when
// the whole archive was written.
int tar_close(tar_handle* t);

// Frees the handle without a last padding: for an archive whose reader has gone.
void tar_abandon(tar_handle* t);
