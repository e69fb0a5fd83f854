// A moment by which something has to be over.
#pragma once

#include <stdint.h>

#include "common/uptime.h"

class deadline {
public:
    explicit deadline(int ms) : end_ns_(monotonic_ns() + ms * ns_per_ms) {}

    // Milliseconds until then, of which the last counts as a whole one; 0 when it has passed. What poll(2)
    // takes.
    int left_ms() const {
        int64_t left = end_ns_ - monotonic_ns();
        return left > 0 ? static_cast<int>((left + ns_per_ms - 1) / ns_per_ms) : 0;
    }

private:
    static constexpr int64_t ns_per_ms = 1000000;
    int64_t end_ns_;
};
