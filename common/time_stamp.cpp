#include "common/time_stamp.h"

#include <pthread.h>
#include <stdio.h>

namespace {

pthread_mutex_t zone_lock = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

// localtime_r alone would use the time zone that the process started with.
tm local_time(time_t time) {
    tm local = {};
    pthread_mutex_lock(&zone_lock);
    tzset();
    localtime_r(&time, &local);
    pthread_mutex_unlock(&zone_lock);
    return local;
}

time_stamp time_stamp_now() {
    tm local = local_time(time(nullptr));
    time_stamp stamp;
    snprintf(stamp.text, sizeof stamp.text, "%4.4d%2.2d%2.2d-%2.2d%2.2d%2.2d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return stamp;
}
