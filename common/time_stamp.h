// The local time as it appears in names.
#pragma once

#include <time.h>

struct time_stamp {
    char text[64];  // "YYYYMMDD-HHMMSS"
};

// The current time, in the system's current time zone, which may change while the daemon runs.
time_stamp time_stamp_now();

// localtime(3) in the system's current time zone. Safe to call in several threads.
tm local_time(time_t time);
