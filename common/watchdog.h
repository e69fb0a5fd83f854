// Switches all service watchdogs of the platform, and reports it on the standard streams.
//
// Each attempt prints "Set service watchdogs state: yes" (or "no") on standard output, and a failure
// "Error setting service watchdogs state 'yes': MESSAGE" on standard error; both are flushed at once.
#pragma once

#include <stdint.h>

// One attempt to switch the watchdogs on (`enable` not 0) or off. Returns 1, or -1 on failure.
int32_t set_service_watchdogs(int enable);

// One attempt to switch the watchdogs off. Returns 1, or -1 on failure. Until enable_watchdogs returns, an
// orderly end by a signal (common/ending.h) switches them on first. It does not wait longer than its limit
// for a platform that fails or hangs.
int32_t disable_watchdogs();

// Switches the watchdogs on. Tries until it succeeds, without a pause or a limit, because a device must not
// run without them. Returns 1.
int32_t enable_watchdogs();
