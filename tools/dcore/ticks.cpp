#include "tools/dcore/ticks.h"

#include <signal.h>
#include <sys/time.h>

void ticks_handle(int number, void (*handler)(int), int flags, int how) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(number, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    sigprocmask(how, &set, nullptr);
}

void ticks_set(long interval_us) {
    itimerval interval = {{0, interval_us}, {0, interval_us}};
    setitimer(ITIMER_REAL, &interval, nullptr);
}
