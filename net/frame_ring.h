// The receive ring of a packet socket (TPACKET_V3): memory shared with the kernel, from which frames are read
// without a system call for each. The kernel fills one block after the other. It hands a block over when it
// is full, or frame_ring_delay_ms after it was begun. Forked children do not inherit the mapping.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>

#include "net/frame.h"

// In thin traffic each block lasts this long, however few frames it holds, so the number of blocks determines
// how soon an unread ring is full.
constexpr int frame_ring_delay_ms = 500;

struct frame_ring_unmapper {
    size_t bytes = 0;
    void operator()(uint8_t* memory) const;
};

// Unmaps its memory at the end of its life.
struct frame_ring {
    std::unique_ptr<uint8_t, frame_ring_unmapper> memory;  // null: there is no ring
    unsigned block_size = 0;
    unsigned block_count = 0;
    unsigned oldest = 0;   // the oldest block that has not been released
    unsigned current = 0;  // the block to fetch from
    unsigned taken = 0;    // frames fetched from the current block
    unsigned offset = 0;   // of the next frame in it, once one has been taken
    uint32_t fetched = 0;  // all frames so far, modulo 2^32

    explicit operator bool() const { return memory != nullptr; }
    size_t size() const { return size_t{block_count} * block_size; }
};

// The size in bytes of a ring that holds `frames` frames of any length, even if it is not read for `seconds`
// seconds or half a minute, whichever is less.
uint64_t frame_ring_size(unsigned frames, int seconds);

// Gives a socket that is not bound yet a ring of about `bytes`. All rings of the process together have at
// most 32 MiB. Returns an empty ring on failure; the socket can then be read like any other.
frame_ring frame_ring_open(int sock, size_t bytes);

// Lists the next frames in `frames`, at most `limit`. They stay valid until they are released. Never waits.
fetched_frames frame_ring_fetch(frame_ring* ring, int limit, captured_frame* frames);

// Returns the fetched frames' memory to the kernel.
void frame_ring_release(frame_ring* ring);

// The number of frames that `sock` has received and that have not been fetched; 0 if the kernel does not
// report it. May be called once for each socket: the kernel resets its counters.
uint32_t frame_ring_count_unfetched(const frame_ring& ring, int sock);
