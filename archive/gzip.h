// The compressor of the archive pipeline.
#pragma once

// Compresses standard input to standard output, as one gzip member (RFC 1952), with deflate at its
// fastest level. A read error counts as end of file. After a failure, standard input is closed; no
// message is printed.
//
// `is_whole`, unless null, is called at end of file. If it returns false, or if a read failed, the trailer is
// not written: readers then report the stream as incomplete. Returns 0 if the whole member was written, EIO
// if the trailer was not written, else the errno of the failure.
//
// Input is made readable after `flush_after_ms` at the latest: it can then be decompressed from what has been
// written. 0: never; the output then depends only on the input's bytes.
int stream_gzip(bool (*is_whole)(void* context) = nullptr, void* context = nullptr, int flush_after_ms = 0);
