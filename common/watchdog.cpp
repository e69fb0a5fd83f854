#include "common/watchdog.h"

#include <stdio.h>

#include "platform/hollisk.h"

int32_t set_service_watchdogs(int enable) {
    const char* state = enable ? "yes" : "no";
    printf("Set service watchdogs state: %s\n", state);
    fflush(stdout);
    hollisk_error* error = nullptr;
    // Only the error record says whether the call succeeded.
    (void)hollisk_set_service_watchdogs(enable, &error);
    if (!error) {
        return 1;
    }
    fprintf(stderr, "Error setting service watchdogs state '%s': %s\n", state, error->message);
    fflush(stderr);
    return -1;
}

int32_t disable_watchdogs() {
    return set_service_watchdogs(0);
}

int32_t enable_watchdogs() {
    while (set_service_watchdogs(1) < 0) {
    }
    return 1;
}
