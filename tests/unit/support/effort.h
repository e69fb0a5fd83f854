// How much work a test does if any number of steps would do.
#pragma once

// A number of repetitions or objects: `usual`, or `slow` on the target's processor, which is emulated when
// tests run and far slower than the host. For numbers that decide how likely a rare order of events is, or
// how far a size is beyond a limit. The assertions must not depend on it.
template <typename Number>
constexpr Number effort([[maybe_unused]] Number usual, [[maybe_unused]] Number slow) {
#if defined(__mips__)
    return slow;
#else
    return usual;
#endif
}
