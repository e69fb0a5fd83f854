// The frames of a capture, in the order in which they are recorded.
//
// A capture of one interface reads its ring; frames have the kernel's timestamps. Without a ring, frames are
// read from the sockets in batches and have the time at which they were read.
#pragma once

#include <stdint.h>

#include "net/frame_batch.h"
#include "net/frame_order.h"
#include "net/pcap_sockets.h"

struct pollfd;

// Too large for a stack.
struct frame_source_memory {
    frame_batch batch;
    captured_frame frames[frame_fetch_limit];
};

struct frame_source {
    pcap_sockets sockets = {};
    frame_source_memory* memory = nullptr;  // borrowed
    frame_time last = {};                   // the largest timestamp so far
    int pause_ms = 0;                       // before the next fetch; 0: wait until poll reports frames
    int64_t last_fetch_ns = 0;              // when a fetch last returned frames

    bool has_ring() const { return static_cast<bool>(sockets.all[0].ring); }
};

// Fetches the queued frames and lists them in memory->frames. `polled` is the result of poll(2) for each
// socket. Never waits. The frames stay valid until frame_source_release().
fetched_frames frame_source_fetch(frame_source* source, const pollfd* polled);

void frame_source_release(frame_source* source);

// The number of frames that were received but not fetched from the ring; 0 without a ring. May be called
// once.
uint32_t frame_source_count_due(const frame_source& source);

// Waits for the next of these frames and fetches up to `limit`. Returns no frames if the ring has none left.
fetched_frames frame_source_fetch_due(frame_source* source, uint32_t limit);
