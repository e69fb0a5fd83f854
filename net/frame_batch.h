// Frames that are read from packet sockets several at a time, where the kernel does not share its memory.
#pragma once

#include <stdint.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "net/frame_ring.h"

// Room for some frames. frame_batch_prepare() comes before the first use.
struct frame_batch {
    static constexpr int capacity = 64;
    uint8_t frames[capacity][pcap_frame_limit];
    iovec buffers[capacity];
    mmsghdr messages[capacity];
};

void frame_batch_prepare(frame_batch* batch);

// Reads what is queued at `sock`, at most `room` frames, into the places from `first` on, and tells in `into`
// where they lie, without a timestamp. Never waits; an empty queue is no end.
fetched_frames fetch_frames(frame_batch* batch, int sock, int first, captured_frame* into, int room);

// What fetch_frames does where the kernel has no recvmmsg(2).
fetched_frames fetch_frames_singly(frame_batch* batch, int sock, int first, captured_frame* into, int room);
