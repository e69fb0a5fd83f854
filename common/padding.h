// Filling a stream up to a promised size.
#pragma once

// Writes `count` bytes of readable filler: lines of 79 spaces and a newline, the last one cut short. Returns
// 0, or 1 at the first failed write; reports nothing.
int pad_ascii(int fd, int count);

// Writes `count` zero bytes, at most 32 at a time. Returns 0, or 1 at the first failed write; a count below 1
// is a success that writes nothing.
int stream_pad(int fd, int count);
