// File names that tell what a download holds. The usual requests have fixed names instead.
#pragma once

#include <sys/types.h>

struct download_name {
    char text[128];
};

// "KIND-SUBJECT-YYYYMMDD-HHMMSS.SUFFIX" with the local time. Other characters in the subject than letters,
// digits, '.', '-' and '_' become '_'; a long one is cut.
download_name download_name_now(const char* kind, const char* subject, const char* suffix);

// The same with the name of this host as the subject.
download_name download_name_of_host(const char* kind, const char* suffix);
