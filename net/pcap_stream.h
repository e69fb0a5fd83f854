// Captures for a download: a fixed size, without the traffic of the download itself.
#pragma once

#include <stdint.h>

#include "net/pcap_writer.h"

// Recorded length of every frame.
constexpr unsigned pcap_stream_snaplen = 1536;

// Captures on `interfaces` (as pcap_dump_with takes them, but not changed) for `seconds` and writes a stream
// of `max_bytes` to `fd` (borrowed). Leaves out the traffic of `excluded_fd` (borrowed); if that is not a
// connected IPv4 or IPv6 socket, nothing is left out. Returns what pcap_dump_with returns.
int32_t pcap_dump_excluding(int fd, const char* interfaces, int seconds, unsigned max_bytes, int excluded_fd,
                            pcap_progress progress = {});

// What stream_pcap uses for limits below 1.
constexpr int pcap_default_seconds = 5;
constexpr int pcap_default_bytes = 5120000;

// Captures on `interface` (null or empty: "any") and writes exactly `max_bytes`, but at least the pcap file
// header, to the connection `fd` (borrowed), whose own traffic is left out. If no interface could be opened,
// all bytes are zero. Returns 0, or 1 if a write failed or memory ran out.
int stream_pcap(int fd, int seconds, int max_bytes, const char* interface);
