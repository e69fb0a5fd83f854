// Packet captures, as an archive member and as a separate download.
#pragma once

#include "archive/tar.h"

// Captures on `interface` for `seconds` and writes exactly `max_bytes` to `fd` in pcap format, padded with
// zero bytes. With a handle `t` this is the member "netdump.cap"; with null it is the bare stream. Leaves out
// the traffic of the connection `filter_fd` (-1: of `fd` itself). Returns 0, or 1 if the capture or a write
// failed.
int stream_pcap_dump(tar_handle* t, int fd, const char* interface, int seconds, unsigned max_bytes,
                     int filter_fd = -1);

// The bare stream, with defaults: "any" for a null or empty interface; 5 seconds and 5120000 bytes for limits
// below 1.
int stream_pcap(int fd, int seconds, int max_bytes, const char* interface);
