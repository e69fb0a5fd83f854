#include "archive/time_stamp.h"

#include <stdio.h>
#include <time.h>

time_stamp time_stamp_now() {
    time_t now = time(nullptr);
    tm local = {};
    tzset();  // localtime_r looks at the zone only once in a process' life
    localtime_r(&now, &local);
    time_stamp stamp;
    snprintf(stamp.text, sizeof stamp.text, "%4.4d%2.2d%2.2d-%2.2d%2.2d%2.2d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return stamp;
}
