// Writing a pcap stream.
#pragma once

#include <stdint.h>
#include <sys/uio.h>

// Called after each write, for a caller that waits for slow output with a timeout; none where `call` is null.
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

// The calls return true, or false when a write has failed; the stream then ends somewhere within what was to
// be written, and errno is that of the write. Interrupted writes go on, and a descriptor that is not ready is
// waited for.

bool pcap_write_file_header(pcap_writer* out);

// Writes `count` pieces, in one call of the system where it takes all of them; the pieces are used up.
bool pcap_write(pcap_writer* out, iovec* pieces, int count);

// Zero bytes that records may point to.
constexpr uint32_t pcap_zeros_size = 1536;
const void* pcap_zeros();

bool pcap_write_zeros(pcap_writer* out, uint64_t count);

// Fills the stream up to `total` bytes; nothing when it is as long already.
bool pcap_pad(pcap_writer* out, uint32_t total);
