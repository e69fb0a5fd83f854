#include "trace/strace_time.h"

#include <stdio.h>

#include "common/time_stamp.h"

namespace {

constexpr int minute_s = 60;
constexpr long second_ns = 1000000000;

int microseconds(long ns) {
    return static_cast<int>(ns) / 1000;
}

}  // namespace

strace_time_text strace_time_of_day(strace_minute* minute, const timespec& wall) {
    if (wall.tv_sec < minute->begin || wall.tv_sec >= minute->begin + minute_s) {
        const tm local = local_time(wall.tv_sec);
        *minute = {wall.tv_sec - local.tm_sec, local.tm_hour, local.tm_min};
    }
    strace_time_text time;
    time.length = snprintf(time.text, sizeof time.text, "%02d:%02d:%02d.%06d ", minute->hour, minute->minute,
                           static_cast<int>(wall.tv_sec - minute->begin), microseconds(wall.tv_nsec));
    return time;
}

strace_time_text strace_duration(const timespec& begin, const timespec& end) {
    int seconds = static_cast<int>(end.tv_sec - begin.tv_sec);
    long ns = end.tv_nsec - begin.tv_nsec;
    if (ns < 0) {
        seconds--;
        ns += second_ns;
    }
    strace_time_text duration;
    duration.length =
        snprintf(duration.text, sizeof duration.text, " <%d.%06d>\n", seconds, microseconds(ns));
    return duration;
}
