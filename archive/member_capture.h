// Packet captures: as an archive member and as a download of its own.
#pragma once

#include "archive/tar.h"

// Captures on `interface` for `seconds` onto `fd`, in pcap form of exactly `max_bytes`: what the capture does
// not fill is padded with zero bytes. With a handle `t` this is the member "netdump.cap"; null gives the bare
// stream. Traffic of the connection `filter_fd` is left out (-1: of `fd` itself). Returns 0, or 1 when the
// capture or the output failed.
int stream_pcap_dump(tar_handle* t, int fd, const char* interface, int seconds, unsigned max_bytes,
                     int filter_fd = -1);

// The bare stream with its defaults: "any" for a null or empty interface, 5 seconds and 5120000 bytes for
// limits below 1.
int stream_pcap(int fd, int seconds, int max_bytes, const char* interface);
