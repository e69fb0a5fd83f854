#include "common/uptime.h"

#include <sys/sysinfo.h>
#include <time.h>

uint32_t ptime() {
    struct sysinfo info = {};
    sysinfo(&info);
    return static_cast<uint32_t>(info.uptime);
}

int64_t monotonic_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}
