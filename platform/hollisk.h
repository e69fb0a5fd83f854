// The platform library libhollisk.so.7: switches the service watchdogs on and off.
#pragma once

#include <stdint.h>

extern "C" {

// A failure as the library reports it. The caller need not free it.
struct hollisk_error {
    uint32_t domain;
    uint32_t code;
    const char* message;
};

// Switches the watchdogs of all services on (`state` 1) or off (0). `*error` must be null before the call. It
// stays null on success and points to a record on failure. The return value means nothing.
//
// The stand-in succeeds, except that its first N calls fail if HOLLISK_FAIL_COUNT=N is in the environment.
int hollisk_set_service_watchdogs(int state, struct hollisk_error** error);
}
