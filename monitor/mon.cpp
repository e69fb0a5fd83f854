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

volatile sig_atomic_t stop_requested = 0;

void request_stop(int /*sig*/) {
    stop_requested = 1;
}

// Blocks SIGINT except while the monitor sleeps: one that arrived between the check of stop_requested and the
// sleep would not end the sleep. Returns the signal mask for the sleep.
sigset_t block_interrupt() {
    struct sigaction action = {};
    action.sa_handler = request_stop;
    sigaction(SIGINT, &action, nullptr);

    sigset_t blocked = {};
    sigset_t before;
    sigaddset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    sigdelset(&before, SIGINT);
    return before;
}

// Sleeps until SIGINT, or for the interval. If ppoll fails for another reason, waits for the signal with
// sigtimedwait instead, so that there is always a pause between rounds.
void sleep_interval(const timespec& interval, const sigset_t& sleep_mask) {
    if (ppoll(nullptr, 0, &interval, &sleep_mask) == 0 || errno == EINTR) {
        return;
    }
    sigset_t interrupt = {};
    sigaddset(&interrupt, SIGINT);
    if (sigtimedwait(&interrupt, nullptr, &interval) == SIGINT) {
        stop_requested = 1;
    }
}

timespec timespec_of(unsigned long us) {
    constexpr unsigned long us_per_s = 1000000;
    timespec time = {};
    time.tv_sec = static_cast<time_t>(us / us_per_s);
    time.tv_nsec = static_cast<long>(us % us_per_s * 1000);
    return time;
}

}  // namespace

int mon_watch(const char* root, const char* path, unsigned long interval_us) {
    const sigset_t sleep_mask = block_interrupt();
    const timespec interval = timespec_of(interval_us);
    monitor* m = monitor_create_at(root, path);
    if (!m) {
        perror("monitor_create");
        return 1;
    }
    while (!stop_requested) {
        monitor_run(m);
        sleep_interval(interval, sleep_mask);
    }
    fputs("\nCleanup and exit.\n", stderr);
    monitor_destroy(m);
    return 0;
}

int run_mon(int argc, char** argv) {
    return mon_watch(proc_root, status_path, argc > 1 ? strtoul(argv[1], nullptr, 0) : default_interval_us);
}
