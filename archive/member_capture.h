// The archive's packet capture.
#pragma once

#include "archive/tar.h"

// Captures on `interface` for `seconds` and stores exactly `max_bytes` in pcap format, padded with zero
// bytes, as member "netdump.cap". With a null handle it writes the bare stream to `fd` (borrowed) instead.
// Leaves out the traffic of the connection `excluded_fd` (borrowed; -1: of `fd` itself). An exact capture
// records each frame with its own length, up to pcap_frame_limit. Returns 0, or 1 if the capture or a write
// failed.
int stream_pcap_dump(tar_handle* t, int fd, const char* interface, int seconds, unsigned max_bytes,
                     int excluded_fd = -1, bool exact = false);
