#include "common/uptime.h"

#include <sys/sysinfo.h>

uint32_t ptime() {
    struct sysinfo info = {};
    sysinfo(&info);
    return static_cast<uint32_t>(info.uptime);
}
