// Records that wait to be written in one go.
#pragma once

#include <stdint.h>
#include <sys/uio.h>

#include "net/frame_ring.h"
#include "net/pcap_format.h"
#include "net/pcap_writer.h"

struct record_queue {
    static constexpr int capacity = 256;
    static constexpr unsigned copied_limit = 192;  // frames up to this length cost less copied than listed
    int piece_count;
    uint64_t bytes;
    size_t copied_size;
    uint8_t copied[capacity * (sizeof(pcap_record_header) + copied_limit)];  // headers and short frames
    iovec pieces[capacity * 3];  // header, frame, and zeros behind it; less than the system takes in one call
};

// Makes a record of `frame`, which must stay where it is until the queue has been written.
// `snaplen` is the length to record, 0 for the frame's own; what a frame is short of it is recorded as zeros.
// False when that was so much that the queue had to be written, and a write has failed.
bool record_queue_add(record_queue* queue, pcap_writer* out, captured_frame frame, unsigned snaplen);

// Writes what is queued; false when a write has failed.
bool record_queue_write(record_queue* queue, pcap_writer* out);
