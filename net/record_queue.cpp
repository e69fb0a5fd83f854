#include "net/record_queue.h"

#include <string.h>

#include <algorithm>

namespace {

// Queues borrowed bytes. If they follow the previous piece in memory, they become part of it.
void add_piece(record_queue* queue, const void* bytes, size_t size) {
    queue->bytes += size;
    if (queue->piece_count > 0) {
        iovec& last = queue->pieces[queue->piece_count - 1];
        if (static_cast<const uint8_t*>(last.iov_base) + last.iov_len == bytes) {
            last.iov_len += size;
            return;
        }
    }
    if (size > 0) {
        queue->pieces[queue->piece_count++] = {const_cast<void*>(bytes), size};
    }
}

void add_copy(record_queue* queue, const void* bytes, size_t size) {
    uint8_t* copy = queue->copied + queue->copied_size;
    memcpy(copy, bytes, size);
    queue->copied_size += size;
    add_piece(queue, copy, size);
}

}  // namespace

bool record_queue_write(record_queue* queue, pcap_writer* out) {
    int pieces = queue->piece_count;
    queue->piece_count = 0;
    queue->bytes = 0;
    queue->copied_size = 0;
    return pcap_write(out, queue->pieces, pieces);
}

bool record_queue_add(record_queue* queue, pcap_writer* out, const captured_frame& frame, unsigned snaplen,
                      bool is_exact) {
    static_assert(pcap_frame_limit <= pcap_zeros_size);
    unsigned length = snaplen != 0 ? snaplen : frame.length;
    unsigned recorded = std::min(length, frame.length);
    unsigned missing = length - recorded;
    unsigned queued_zeros = std::min(missing, pcap_frame_limit);
    const pcap_record_header header = {frame.time.s, frame.time.us, length,
                                       is_exact ? frame.wire_length : frame.length};
    add_copy(queue, &header, sizeof header);
    if (recorded <= record_queue::copied_limit) {
        add_copy(queue, frame.bytes, recorded);
    } else {
        add_piece(queue, frame.bytes, recorded);
    }
    add_piece(queue, pcap_zeros(), queued_zeros);
    return missing == queued_zeros ||
           (record_queue_write(queue, out) && pcap_write_zeros(out, missing - queued_zeros));
}
