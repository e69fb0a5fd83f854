// The clock that does not follow steps of the wall clock (CLOCK_MONOTONIC).
#pragma once

#include <stdint.h>

int64_t monotonic_ns();
int64_t monotonic_ms();
