// Frames read from packet sockets several at a time, for sockets without a ring.
#pragma once

#include <stdint.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "net/frame.h"

// Frame i lies in frames[i], cut at pcap_frame_limit; messages[i].msg_len is the length of the whole frame.
// Call frame_batch_prepare() before the first use.
struct frame_batch {
    static constexpr int capacity = 64;
    uint8_t frames[capacity][pcap_frame_limit];
    iovec buffers[capacity];
    mmsghdr messages[capacity];
};

void frame_batch_prepare(frame_batch* batch);

// Reads what is queued at `sock`, at most `limit` frames, into the batch from frame `first` on. Never waits;
// an empty queue is not an end.
fetched_frames frame_batch_fetch(frame_batch* batch, int sock, int first, int limit);

// The same with one system call for each frame. frame_batch_fetch() calls it on kernels without recvmmsg(2).
fetched_frames frame_batch_fetch_singly(frame_batch* batch, int sock, int first, int limit);
