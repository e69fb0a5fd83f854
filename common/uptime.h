// Clocks that do not jump with the wall clock.
#pragma once

#include <stdint.h>

// Whole seconds since boot.
uint32_t ptime();

// Nanoseconds since some moment that stays the same while the machine runs.
int64_t monotonic_ns();
