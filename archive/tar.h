// Writes a ustar stream to a descriptor: headers with a promised size, then data, padded to blocks of 512
// bytes. Buffers nothing beyond one header and knows nothing about the members.
//
// Call tar_new; then for each member tar_store, or tar_addfile and exactly the promised bytes, through any
// mix of tar_write and direct writes counted with tar_fakewrite; then tar_close. Padding follows the counted
// bytes, not the promise. A failed write is not reported: the handle keeps its error. Writes go through
// archive/output.h.
//
// Header layout: POSIX.1-1988 ustar, with two oddities that are deliberate: the version field holds two
// spaces, and a stream ends after its last member's padding, without the two zero blocks.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Is told what is written.
struct tar_watch {
    void (*on_header)(tar_watch* watch, const char* name, int size);  // the name without the prefix
    void (*on_data)(tar_watch* watch, size_t length);
};

struct tar_handle {
    char* prefix;           // owned; begins every member name; null: none
    uint32_t prefix_len;    // 0 if null
    int32_t fd;             // borrowed
    uint32_t member_bytes;  // data bytes since the last header; only the value modulo 512 matters
    int32_t error;          // errno of the first failed write; 0: none
    tar_watch* watch;       // borrowed; null: none
};

// Returns a new handle that writes to `fd` (borrowed), or null if memory runs out. Copies the prefix; null or
// "" means none. tar_close or tar_abandon frees the handle.
tar_handle* tar_new(int fd, const char* prefix);

// Pads the previous member and writes the header of a new one of `size` bytes, with the current time. A name
// of 100 bytes or more, including the prefix, is cut at 100.
void tar_addfile(tar_handle* t, const char* name, int size);

// Writes `len` bytes of the current member.
void tar_write(tar_handle* t, const void* buf, size_t len);

// Stores a whole member: tar_addfile and tar_write. If header, data and padding are small, they are one
// write, and the member is padded at once.
void tar_store(tar_handle* t, const char* name, const void* data, size_t len);

// Counts `len` bytes that the caller has written to the descriptor itself.
void tar_fakewrite(tar_handle* t, size_t len);

// Pads the last member and frees the handle; the descriptor stays open. Returns the handle's error, 0 if the
// whole archive was written.
int tar_close(tar_handle* t);

// Frees the handle without the last padding, for an archive whose reader is gone.
void tar_abandon(tar_handle* t);
