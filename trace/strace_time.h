// The times in a timed trace.
#pragma once

#include <time.h>

// When a process stopped.
struct strace_time {
    timespec wall;       // CLOCK_REALTIME
    timespec monotonic;  // CLOCK_MONOTONIC
};

// The minute that was printed last, which most lines share. Spares them the conversion to local time.
struct strace_minute {
    time_t begin = -60;  // its first second; no clock shows the initial minute, which is before 1970
    int hour = 0;        // local
    int minute = 0;
};

struct strace_time_text {
    char text[32];
    int length;
};

// The local time of day, "HH:MM:SS.uuuuuu ". Changes `*minute` if `wall` is outside of it.
strace_time_text strace_time_of_day(strace_minute* minute, const timespec& wall);

// The end of a line, " <S.uuuuuu>" and a newline: the time from `begin` to `end`.
strace_time_text strace_duration(const timespec& begin, const timespec& end);
