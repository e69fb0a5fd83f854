// Clocks that do not follow steps of the wall clock.
#pragma once

#include <stdint.h>

// Whole seconds since boot.
uint32_t ptime();

// Nanoseconds since a fixed moment (CLOCK_MONOTONIC).
int64_t monotonic_ns();
