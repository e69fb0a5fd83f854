#include "common/proc_path.h"

#include <stdio.h>

proc_path::proc_path(pid_t pid, const char* name, const char* root) {
    const int length = snprintf(text, sizeof text, "%s/%ld/%s", root, static_cast<long>(pid), name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof text) {
        text[0] = '\0';
    }
}
