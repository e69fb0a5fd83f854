#include "net/record_queue.h"

#include <sys/time.h>

#include <algorithm>

namespace {

void add_piece(record_queue* queue, const void* bytes, size_t size) {
    if (size > 0) {
        queue->pieces[queue->piece_count++] = {const_cast<void*>(bytes), size};
        queue->bytes += size;
    }
}

}  // namespace

bool record_queue_write(record_queue* queue, pcap_writer* out) {
    int pieces = queue->piece_count;
    queue->count = 0;
    queue->piece_count = 0;
    queue->bytes = 0;
    return pcap_write(out, queue->pieces, pieces);
}

bool record_queue_add(record_queue* queue, pcap_writer* out, captured_frame frame, unsigned snaplen) {
    static constexpr uint8_t zeros[pcap_frame_limit] = {};
    timeval now;
    gettimeofday(&now, nullptr);
    unsigned length = snaplen != 0 ? snaplen : frame.length;
    unsigned recorded = std::min(length, frame.length);
    unsigned missing = length - recorded;
    unsigned short_of = std::min(missing, pcap_frame_limit);
    pcap_record_header& header = queue->headers[queue->count++];
    header = {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec), length, frame.length};
    add_piece(queue, &header, sizeof header);
    add_piece(queue, frame.bytes, recorded);
    add_piece(queue, zeros, short_of);
    return missing == short_of ||
           (record_queue_write(queue, out) && pcap_write_zeros(out, missing - short_of));
}
