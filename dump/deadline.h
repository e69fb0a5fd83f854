// A moment by which something has to be over.
#pragma once

#include <stdint.h>
#include <time.h>

class deadline {
public:
    explicit deadline(int ms) : end_ns_(now_ns() + ms * ns_per_ms) {}

    // Milliseconds until then, of which the last counts as a whole one; 0 when it has passed. What poll(2)
    // takes.
    int left_ms() const {
        int64_t left = end_ns_ - now_ns();
        return left > 0 ? static_cast<int>((left + ns_per_ms - 1) / ns_per_ms) : 0;
    }

private:
    static constexpr int64_t ns_per_ms = 1000000;
    static int64_t now_ns() {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
    }
    int64_t end_ns_;
};
