// The switch of the platform's service watchdogs, as libhollisk.so.7 offers it.
#pragma once

#include <stdint.h>

extern "C" {

// What the library says about a failure. It belongs to the library's caller, who does not have to free it.
struct hollisk_error {
    uint32_t domain;
    uint32_t code;
    const char* message;
};

// Switches the watchdogs of all services on (`state` 1) or off (0). `*error`, null before the call, stays
// null on success and points to a record on failure; the result says nothing.
//
// The stand-in succeeds. With HOLLISK_FAIL_COUNT=N in the environment its first N calls fail.
int hollisk_set_service_watchdogs(int state, struct hollisk_error** error);
}
