// A point in time by which something must be finished.
#pragma once

#include <limits.h>
#include <stdint.h>

#include <algorithm>

#include "common/monotonic.h"

class deadline {
public:
    // `ms` milliseconds from now; already over if `ms` is 0 or negative.
    explicit deadline(int64_t ms) : end_ns_(monotonic_ns() + ms * ns_per_ms) {}

    // Milliseconds left, rounded up, as poll(2) takes them; 0 after the deadline.
    int left_ms() const {
        const int64_t left_ns = end_ns_ - monotonic_ns();
        return left_ns > 0 ? static_cast<int>(std::min((left_ns + ns_per_ms - 1) / ns_per_ms, longest_ms))
                           : 0;
    }

    bool is_over() const { return end_ns_ <= monotonic_ns(); }

private:
    static constexpr int64_t ns_per_ms = 1000000;
    static constexpr int64_t longest_ms = INT_MAX;
    int64_t end_ns_;
};
