// The memory that the kernel shares with a packet socket's reader: frames are there to be looked at, without
// a call of the system for each. The kernel fills block after block and hands a block over when it is full,
// or frame_ring_delay_ms after it has begun it. Children that a process forks do not have its rings.
#pragma once

#include <stddef.h>
#include <stdint.h>

// More of a frame is never recorded.
constexpr unsigned pcap_frame_limit = 1536;

// A moment by the clock of gettimeofday: seconds, and microseconds below a million.
struct frame_time {
    uint32_t s = 0;
    uint32_t us = 0;
    bool operator==(const frame_time&) const = default;
    bool operator<(const frame_time& other) const { return in_order() < other.in_order(); }
    uint64_t in_order() const { return uint64_t{s} << 32 | us; }
};

// A frame that has been fetched, where it lies.
struct captured_frame {
    const uint8_t* bytes;
    unsigned length;  // at most pcap_frame_limit
    frame_time time;  // when the kernel received it; of a frame that was read, 0
};

// What one fetch gave.
struct fetched_frames {
    int count = 0;
    bool ended = false;  // the read after those frames failed or gave an empty frame
};

// A block is used up by the frames of this time, however few: in thin traffic it tells how soon a ring is
// full that nobody reads.
constexpr int frame_ring_delay_ms = 500;

struct frame_ring {
    uint8_t* memory = nullptr;  // null: there is no ring
    size_t size = 0;
    unsigned block_size = 0;
    unsigned blocks = 0;
    unsigned first = 0;    // the oldest block that has not been given back to the kernel
    unsigned block = 0;    // the block that is fetched from next,
    unsigned taken = 0;    // the frames of it that have been fetched,
    unsigned offset = 0;   // and where in it the next frame begins, when there was one before
    uint32_t fetched = 0;  // frames in all, modulo 2^32
};

// The size in bytes of a ring that holds `frames` frames of any length, although nobody reads them for
// `seconds` seconds or half a minute, whichever is less.
uint64_t frame_ring_size(unsigned frames, int seconds);

// Gives a socket that is not bound yet a ring of about `bytes`. False when the system does not; the socket is
// then read as any other.
bool frame_ring_open(frame_ring* ring, int sock, size_t bytes);

void frame_ring_close(frame_ring* ring);

// Tells where the next frames lie, at most `room`; they stay there until they are released. Never waits.
fetched_frames frame_ring_fetch(frame_ring* ring, captured_frame* into, int room);

// Gives back to the kernel what was fetched: none of those frames is looked at any more.
void frame_ring_release(frame_ring* ring);

// How many frames have come to `sock` that have not been fetched; 0 when the system does not tell. To be
// asked once in the life of a socket.
uint32_t frame_ring_count_unfetched(const frame_ring& ring, int sock);
