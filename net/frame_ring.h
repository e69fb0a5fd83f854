// The memory that the kernel shares with a packet socket's reader: frames are there to be looked at, without
// a call of the system for each.
#pragma once

#include <stddef.h>
#include <stdint.h>

// More of a frame is never recorded.
constexpr unsigned pcap_frame_limit = 1536;

// A frame that has been fetched, where it lies.
struct captured_frame {
    const uint8_t* bytes;
    unsigned length;  // at most pcap_frame_limit
};

// What one fetch gave.
struct fetched_frames {
    int count = 0;
    bool ended = false;  // the read after those frames failed or gave an empty frame
};

struct frame_ring {
    uint8_t* memory = nullptr;  // null: there is no ring
    size_t size = 0;
    unsigned slots = 0;
    unsigned next = 0;  // the slot that the kernel fills, or has filled, next
};

// Gives a socket that is not bound yet a ring of about `bytes`. False when the system does not; the socket is
// then read as any other.
bool frame_ring_open(frame_ring* ring, int sock, size_t bytes);

void frame_ring_close(frame_ring* ring);

// Tells where the next frames lie, at most `room`; they stay there until they are released. Never waits.
fetched_frames frame_ring_fetch(const frame_ring& ring, captured_frame* into, int room);

// Gives the places of the next `count` frames back to the kernel.
void frame_ring_release(frame_ring* ring, int count);
