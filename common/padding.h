// Fills a stream up to the size that was promised.
#pragma once

// Writes `count` bytes of readable filler: lines of 79 spaces and a newline, the last line cut. Returns 0, or
// 1 at the first failed write.
int pad_ascii(int fd, int count);

// Writes `count` zero bytes, at most 32 at a time. Returns 0, or 1 at the first failed write. Below 1, writes
// nothing and returns 0.
int stream_pad(int fd, int count);
