// The local time as the names of an archive carry it.
#pragma once

struct time_stamp {
    char text[64];  // "YYYYMMDD-HHMMSS"
};

// The present, in the time zone that the system has now: a daemon outlives a change of it.
time_stamp time_stamp_now();
