// Captured frames, their bytes and their timestamps.
#pragma once

#include <stdint.h>

// Bytes recorded of a frame; longer frames are cut.
constexpr unsigned pcap_frame_limit = 1536;

// Frames that one fetch returns at most.
constexpr int frame_fetch_limit = 256;

// Time by the clock of gettimeofday.
struct frame_time {
    uint32_t s = 0;
    uint32_t us = 0;  // below a million
    bool operator==(const frame_time&) const = default;
    bool operator<(const frame_time& other) const { return as_number() < other.as_number(); }
    uint64_t as_number() const { return uint64_t{s} << 32 | us; }
};

struct captured_frame {
    const uint8_t* bytes;  // borrowed from the ring or the batch
    unsigned length;       // at most pcap_frame_limit
    unsigned wire_length;  // of the whole frame
    frame_time time;
};

// The result of one fetch.
struct fetched_frames {
    int count = 0;
    bool is_full = false;    // as many as were asked for: more may be queued
    bool has_ended = false;  // the read after these frames failed or returned an empty frame
};
