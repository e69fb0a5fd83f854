// The compressor of the archive pipeline.
#pragma once

// Compresses standard input to standard output, as one gzip member (RFC 1952) with a raw deflate stream of
// the fastest level. A read error counts as end of file. After a failed write it closes standard input and
// returns; nothing is reported.
//
// `is_whole`, unless null, is called at end of file. If it returns false, or if a read failed, the trailer is
// not written, so that the stream is recognisably incomplete. Returns 0 if the whole member was written, else
// the errno of the failure.
int stream_gzip(bool (*is_whole)(void* context) = nullptr, void* context = nullptr);
