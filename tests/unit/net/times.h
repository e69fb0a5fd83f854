// Timestamps in microseconds, by the clock of captured frames.
#pragma once

#include <stdint.h>
#include <sys/time.h>

#include "net/frame.h"

inline uint64_t now_us() {
    timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

inline uint64_t time_us(const captured_frame& frame) {
    return uint64_t{frame.time.s} * 1000000 + frame.time.us;
}
