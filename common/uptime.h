// A clock that does not jump with the wall clock.
#pragma once

#include <stdint.h>

// Whole seconds since boot.
uint32_t ptime();
