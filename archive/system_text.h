// Facts about the system as lines of text.
#pragma once

#include <stdint.h>
#include <sys/timex.h>
#include <sys/utsname.h>
#include <time.h>

#include <string_view>

#include "common/heap_text.h"

// Appends "NAME: VALUE" with the first line of the value, in which control characters become blanks.
void system_text_add_fact(heap_text* text, const char* name, std::string_view value);

// Appends the name of the host and the kernel's version.
void system_text_add_kernel(heap_text* text, const utsname& kernel);

// Appends the time since boot, given in seconds.
void system_text_add_uptime(heap_text* text, uint32_t seconds);

// Appends the local time, with the zone's offset and name, and the time in UTC.
void system_text_add_time(heap_text* text, time_t now);

// Appends the state of the clock: `state` is the result of adjtimex(2), which has filled `clock`.
void system_text_add_clock(heap_text* text, int state, const timex& clock);
