// The time zone of a test.
#pragma once

#include <stdlib.h>
#include <time.h>

#include <string>

// Sets the time zone of this program for the length of a block, as TZ has it: "TST-1" is an hour ahead of
// UTC.
class scoped_zone {
public:
    explicit scoped_zone(const std::string& zone) { setenv("TZ", zone.c_str(), 1); }
    scoped_zone(const scoped_zone&) = delete;
    scoped_zone& operator=(const scoped_zone&) = delete;
    ~scoped_zone() { unsetenv("TZ"); }
};

// The zone in which it is between 12:00 and 13:00 now: no midnight comes during a test.
inline std::string noon_zone() {
    const long hour = time(nullptr) / 3600 % 24;
    return "TST" + std::to_string(hour - 12);
}
