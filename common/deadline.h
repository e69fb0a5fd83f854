// A point in time by which something must be finished.
#pragma once

#include <stdint.h>

#include "common/uptime.h"

class deadline {
public:
    explicit deadline(int ms) : end_ns_(monotonic_ns() + ms * ns_per_ms) {}

    // Milliseconds left, rounded up, as poll(2) takes them; 0 after the deadline.
    int left_ms() const {
        int64_t left = end_ns_ - monotonic_ns();
        return left > 0 ? static_cast<int>((left + ns_per_ms - 1) / ns_per_ms) : 0;
    }

private:
    static constexpr int64_t ns_per_ms = 1000000;
    int64_t end_ns_;
};
