#include "common/watchdog.h"

#include <poll.h>
#include <pthread.h>
#include <stdio.h>

#include "common/ending.h"
#include "platform/hollisk.h"

namespace {

constexpr int end_pause_ms = 10;

// Held while the watchdogs are being switched off, and at the end of the process.
pthread_mutex_t off_lock = PTHREAD_MUTEX_INITIALIZER;

const char* state_name(int enable) {
    return enable ? "yes" : "no";
}

void report_state(int enable) {
    printf("Set service watchdogs state: %s\n", state_name(enable));
    fflush(stdout);
}

// Returns null, or the platform's error. The return value of the platform's call means nothing.
const hollisk_error* switch_platform(int enable) {
    hollisk_error* error = nullptr;
    (void)hollisk_set_service_watchdogs(enable, &error);
    return error;
}

int32_t report_result(int enable, const hollisk_error* error) {
    if (!error) {
        return 1;
    }
    fprintf(stderr, "Error setting service watchdogs state '%s': %s\n", state_name(enable), error->message);
    fflush(stderr);
    return -1;
}

// Reports after the switch, because the process may be hanging in a write to its output. Keeps the lock, so
// no thread can switch the watchdogs off afterwards.
void enable_at_the_end() {
    pthread_mutex_lock(&off_lock);
    for (;;) {
        const hollisk_error* error = switch_platform(1);
        report_state(1);
        if (report_result(1, error) > 0) {
            return;
        }
        poll(nullptr, 0, end_pause_ms);
    }
}

}  // namespace

int32_t set_service_watchdogs(int enable) {
    report_state(enable);
    return report_result(enable, switch_platform(enable));
}

int32_t disable_watchdogs() {
    ending_add(enable_at_the_end);
    pthread_mutex_lock(&off_lock);
    int32_t result = set_service_watchdogs(0);
    pthread_mutex_unlock(&off_lock);
    return result;
}

int32_t enable_watchdogs() {
    while (set_service_watchdogs(1) < 0) {
    }
    ending_remove(enable_at_the_end);
    return 1;
}
