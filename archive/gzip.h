// The compressor of the archive pipeline.
#pragma once

// Compresses standard input onto standard output until the input ends, as one gzip member (RFC 1952) around a
// raw deflate stream of the fastest level. A read error counts as the end of input. When a write fails,
// standard input is closed and the rest is given up; nothing is reported.
//
// `is_whole`, unless it is null, is asked at the end of the input: where it says no, or the input ended with
// a read error, the member stays without its trailer, so that nobody takes it for a whole one. Returns 0 when
// the member was written to its end, else the errno of why not.
int stream_gzip(bool (*is_whole)(void* context) = nullptr, void* context = nullptr);
