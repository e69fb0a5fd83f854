// How much a test does where it could do any number of steps.
#pragma once

// How often a step is repeated, or how many of something there are: `usual`, or `slow` on the target's
// processor, which tests meet emulated and far slower than the machine around it. For numbers that decide
// how likely a rare order of events is met, or how far beyond a limit a size is; what is asserted is the
// same.
template <typename Number>
constexpr Number effort([[maybe_unused]] Number usual, [[maybe_unused]] Number slow) {
#if defined(__mips__)
    return slow;
#else
    return usual;
#endif
}
