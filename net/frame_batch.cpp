#include "net/frame_batch.h"

#include <errno.h>

namespace {

// Whether a failed read only says that nothing is queued.
bool is_empty(int error) {
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

fetched_frames fetch_frames_singly(frame_batch* batch, int sock, int first, captured_frame* into, int room) {
    fetched_frames fetched;
    while (fetched.count < room) {
        uint8_t* place = batch->frames[first + fetched.count];
        ssize_t got = recv(sock, place, pcap_frame_limit, MSG_DONTWAIT);
        if (got <= 0) {
            fetched.ended = got == 0 || !is_empty(errno);
            break;
        }
        into[fetched.count++] = {place, static_cast<unsigned>(got), {}};
    }
    return fetched;
}

fetched_frames fetch_frames(frame_batch* batch, int sock, int first, captured_frame* into, int room) {
    mmsghdr* messages = batch->messages + first;
    int got = recvmmsg(sock, messages, static_cast<unsigned>(room), MSG_DONTWAIT, nullptr);
    if (got < 0 && errno == ENOSYS) {
        return fetch_frames_singly(batch, sock, first, into, room);
    }
    fetched_frames fetched;
    if (got < 0) {
        fetched.ended = !is_empty(errno);
        return fetched;
    }
    while (fetched.count < got && !fetched.ended) {
        unsigned length = messages[fetched.count].msg_len;
        fetched.ended = length == 0;
        if (length > 0) {
            into[fetched.count] = {batch->frames[first + fetched.count], length, {}};
            fetched.count++;
        }
    }
    return fetched;
}
