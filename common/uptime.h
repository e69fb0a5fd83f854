// How long the machine has been running.
#pragma once

#include <stdint.h>

// Whole seconds since boot. Steps of the wall clock do not change it.
uint32_t ptime();
