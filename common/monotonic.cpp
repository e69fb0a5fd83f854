#include "common/monotonic.h"

#include <time.h>

namespace {

timespec now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

}  // namespace

int64_t monotonic_ns() {
    const timespec time = now();
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

int64_t monotonic_ms() {
    const timespec time = now();
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}
