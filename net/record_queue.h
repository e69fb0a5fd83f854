// Records that are written together.
#pragma once

#include <stdint.h>
#include <sys/uio.h>

#include "net/frame.h"
#include "net/pcap_format.h"
#include "net/pcap_writer.h"

struct record_queue {
    static constexpr int capacity = frame_fetch_limit;
    static constexpr unsigned copied_limit =
        192;  // copying a frame up to this length is cheaper than an iovec
    int piece_count;
    uint64_t bytes;
    size_t copied_size;
    uint8_t copied[capacity * (sizeof(pcap_record_header) + copied_limit)];  // headers and short frames
    iovec pieces[capacity * 3];  // header, frame, zeros; fewer than writev takes in one call
};

// Queues a record of `frame`, whose bytes are borrowed until the queue has been written. `snaplen` is the
// length to record, 0 for the frame's own; a shorter frame is followed by zeros. The record's orig_len is the
// frame's length on the wire if `is_exact`, else at most pcap_frame_limit. Returns false if there were so
// many zeros that the queue had to be written, and that failed.
bool record_queue_add(record_queue* queue, pcap_writer* out, const captured_frame& frame, unsigned snaplen,
                      bool is_exact = false);

// Writes and empties the queue. Returns false if a write has failed.
bool record_queue_write(record_queue* queue, pcap_writer* out);
