// The compressor of the archive pipeline.
#pragma once

// Compresses standard input onto standard output until the input ends, as one gzip member (RFC 1952) around a
// raw deflate stream of the fastest level. A read error counts as the end of input. When a write fails,
// standard input is closed and the rest is given up; nothing is reported.
void stream_gzip();
