#include "monitor/mon.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "common/proc_path.h"
#include "monitor/monitor.h"

namespace {

constexpr const char* status_path = "/tmp/dbg-report.txt";
constexpr unsigned long default_interval_us = 1000;

volatile sig_atomic_t stop_wanted = 0;

void want_stop(int /*sig*/) {
    stop_wanted = 1;
}

// Lets SIGINT in only while the monitor sleeps, so that none comes too late to end the sleep, however long
// that is. Returns the signals to let in.
sigset_t hold_interrupt() {
    struct sigaction action = {};
    action.sa_handler = want_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);

    sigset_t held;
    sigset_t before;
    sigemptyset(&held);
    sigaddset(&held, SIGINT);
    sigprocmask(SIG_BLOCK, &held, &before);
    sigdelset(&before, SIGINT);
    return before;
}

// Sleeps until SIGINT, or for the interval. Where ppoll fails for good it waits for the signal itself, so
// that rounds do not follow each other without a pause.
void pause_for(const timespec& interval, const sigset_t& while_asleep) {
    if (ppoll(nullptr, 0, &interval, &while_asleep) == 0 || errno == EINTR) {
        return;
    }
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    if (sigtimedwait(&interrupt, nullptr, &interval) == SIGINT) {
        stop_wanted = 1;
    }
}

timespec from_microseconds(unsigned long us) {
    constexpr unsigned long us_per_s = 1000000;
    timespec time = {};
    time.tv_sec = static_cast<time_t>(us / us_per_s);
    time.tv_nsec = static_cast<long>(us % us_per_s * 1000);
    return time;
}

}  // namespace

int mon_watch(const char* root, const char* path, unsigned long interval_us) {
    const sigset_t while_asleep = hold_interrupt();
    const timespec interval = from_microseconds(interval_us);
    monitor* m = monitor_create_at(root, path);
    if (!m) {
        perror("monitor_create");
        return 1;
    }
    while (!stop_wanted) {
        monitor_run(m);
        pause_for(interval, while_asleep);
    }
    fputs("\nCleanup and exit.\n", stderr);
    monitor_destroy(m);
    return 0;
}

int run_mon(int argc, char** argv) {
    return mon_watch(proc_root, status_path, argc > 1 ? strtoul(argv[1], nullptr, 0) : default_interval_us);
}
