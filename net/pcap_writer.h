// Writing a pcap stream.
#pragma once

#include <stdint.h>
#include <sys/uio.h>

// Called after each write, for a caller that gives slow output a timeout. No call if `call` is null.
struct pcap_progress {
    void (*call)(void* cookie) = nullptr;
    void* cookie = nullptr;
};

// A stream on a borrowed descriptor.
struct pcap_writer {
    int fd = -1;
    uint64_t written = 0;  // bytes so far
    pcap_progress progress = {};
};

// The calls return false if a write has failed, with its errno; the stream may then end in the middle of a
// record. They retry interrupted writes and wait until a non-blocking descriptor is writable.

bool pcap_write_file_header(pcap_writer* out);

// Writes `count` pieces, with one writev if it takes all of them. Changes `pieces`.
bool pcap_write(pcap_writer* out, iovec* pieces, int count);

// Zero bytes for pieces to point to.
constexpr uint32_t pcap_zeros_size = 1536;
const void* pcap_zeros();

bool pcap_write_zeros(pcap_writer* out, uint64_t count);

// Fills the stream up to `total` bytes. Writes nothing if it is that long already.
bool pcap_pad(pcap_writer* out, uint32_t total);
