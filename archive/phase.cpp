#include "archive/phase.h"

#include <unistd.h>

void phase_begin() {
    alarm(phase_seconds);
}

void phase_progress() {
    if (alarm(phase_seconds) == 0) {
        alarm(0);  // no phase was running
    }
}

void phase_end() {
    alarm(0);
}
