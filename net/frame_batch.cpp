#include "net/frame_batch.h"

#include <errno.h>

namespace {

// With MSG_TRUNC, a read returns the length of the whole frame even if it was cut.
constexpr int read_flags = MSG_DONTWAIT | MSG_TRUNC;

bool is_queue_empty(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

void frame_batch_prepare(frame_batch* batch) {
    for (int i = 0; i < frame_batch::capacity; i++) {
        batch->buffers[i] = {batch->frames[i], pcap_frame_limit};
        batch->messages[i].msg_hdr.msg_iov = &batch->buffers[i];
        batch->messages[i].msg_hdr.msg_iovlen = 1;
    }
}

fetched_frames frame_batch_fetch(frame_batch* batch, int sock, int first, int limit) {
    mmsghdr* messages = batch->messages + first;
    int got = recvmmsg(sock, messages, static_cast<unsigned>(limit), read_flags, nullptr);
    if (got < 0) {
        return errno == ENOSYS ? frame_batch_fetch_singly(batch, sock, first, limit)
                               : fetched_frames{.has_ended = !is_queue_empty(errno)};
    }
    fetched_frames fetched;
    while (fetched.count < got && messages[fetched.count].msg_len > 0) {
        fetched.count++;
    }
    fetched.has_ended = fetched.count < got;
    fetched.is_full = fetched.count == limit;
    return fetched;
}

fetched_frames frame_batch_fetch_singly(frame_batch* batch, int sock, int first, int limit) {
    fetched_frames fetched;
    while (fetched.count < limit && !fetched.has_ended) {
        const int i = first + fetched.count;
        ssize_t got = recv(sock, batch->frames[i], pcap_frame_limit, read_flags);
        if (got < 0 && is_queue_empty(errno)) {
            break;
        }
        fetched.has_ended = got <= 0;
        if (got > 0) {
            batch->messages[i].msg_len = static_cast<unsigned>(got);
            fetched.count++;
        }
    }
    fetched.is_full = fetched.count == limit;
    return fetched;
}
