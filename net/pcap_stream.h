// Captures for a download, without the traffic of the download itself.
#pragma once

#include <stdint.h>

#include "net/pcap_dump.h"

// Recorded length of every frame, unless a capture is exact.
constexpr unsigned pcap_stream_snaplen = 1536;

// pcap_dump_with in promiscuous mode, for names that are not changed. Leaves out the traffic of `excluded_fd`
// (borrowed); if that is not a connected IPv4 or IPv6 socket, nothing is left out.
int32_t pcap_dump_excluding(int fd, const char* interfaces, int excluded_fd,
                            const pcap_dump_options& options);

// What stream_pcap uses for limits below 1.
constexpr int pcap_default_seconds = 5;
constexpr int pcap_default_bytes = 5120000;

// Captures on `interface` (null or empty: "any") and writes exactly `max_bytes`, but at least the pcap file
// header, to the connection `fd` (borrowed), whose own traffic is left out. If no interface could be opened,
// all bytes are zero. Returns 0, or 1 if a write failed or memory ran out.
//
// An exact capture records each frame with its own length, up to pcap_frame_limit. It writes at most
// `max_bytes` without any padding, and nothing if no interface could be opened. A limit below 1 is then no
// limit; without any limit, the capture ends when the peer closes.
int stream_pcap(int fd, int seconds, int max_bytes, const char* interface, bool exact = false);
