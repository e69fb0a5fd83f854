// The local time as it appears in an archive's names.
#pragma once

struct time_stamp {
    char text[64];  // "YYYYMMDD-HHMMSS"
};

// The current time, in the system's current time zone, which may change while the daemon runs.
time_stamp time_stamp_now();
