#include "common/ending.h"

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>

namespace {

constexpr int signal_exit_base = 128;

// The handler reads these. They are set before the first signal can arrive.
std::atomic<pid_t> owner{0};
std::atomic<int> first_signal{0};
sem_t end_is_due;

timer_t limit_timer;
itimerspec limit = {};

pthread_mutex_t works_lock = PTHREAD_MUTEX_INITIALIZER;
void (*works[4])() = {};

pthread_mutex_t holds_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t holds_changed = PTHREAD_COND_INITIALIZER;
int holds = 0;
bool closing = false;

void unblock(int sig) {
    sigset_t one = {};
    sigaddset(&one, sig);
    pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
}

// Async-signal-safe.
[[noreturn]] void die_by(int sig) {
    signal(sig, SIG_DFL);
    unblock(sig);
    pthread_kill(pthread_self(), sig);
    _exit(signal_exit_base + sig);  // the first process of a PID namespace survives its own signals
}

void on_signal(int sig, siginfo_t* info, void* /*context*/) {
    int saved = errno;
    if (getpid() != owner) {
        die_by(sig);  // a forked child, which has no thread to end it in order
    }
    if (info->si_code == SI_TIMER) {
        die_by(first_signal);
    }
    int none = 0;
    if (first_signal.compare_exchange_strong(none, sig)) {
        sem_post(&end_is_due);
    }
    errno = saved;
}

// Keeps the lock: no more work can be added.
void do_works() {
    pthread_mutex_lock(&works_lock);
    for (auto* work : works) {
        if (work) {
            work();
        }
    }
}

// Keeps the lock: no more holds can begin.
void wait_for_holds() {
    pthread_mutex_lock(&holds_lock);
    closing = true;
    while (holds > 0) {
        pthread_cond_wait(&holds_changed, &holds_lock);
    }
}

void* end_in_order(void* /*unused*/) {
    while (sem_wait(&end_is_due) != 0) {
    }
    timer_settime(limit_timer, 0, &limit, nullptr);
    do_works();
    wait_for_holds();
    die_by(first_signal);
}

bool is_ignored(int sig) {
    struct sigaction action = {};
    return sigaction(sig, nullptr, &action) != 0 || action.sa_handler == SIG_IGN;
}

bool start_limit_timer(int sig) {
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = sig;
    return timer_create(CLOCK_MONOTONIC, &event, &limit_timer) == 0;
}

bool start_thread() {
    pthread_t thread;
    sem_init(&end_is_due, 0, 0);
    int failed = pthread_create(&thread, nullptr, end_in_order, nullptr);
    if (failed) {
        timer_delete(limit_timer);
        errno = failed;
        return false;
    }
    pthread_detach(thread);
    return true;
}

void catch_signal(int sig) {
    struct sigaction action = {};
    action.sa_sigaction = on_signal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(sig, &action, nullptr);
    unblock(sig);
}

void replace_work(void (*old)(), void (*wanted)()) {
    pthread_mutex_lock(&works_lock);
    auto* entry = std::find(std::begin(works), std::end(works), old);
    if (entry != std::end(works)) {
        *entry = wanted;
    }
    pthread_mutex_unlock(&works_lock);
}

}  // namespace

bool ending_catch(std::span<const int> signals, int limit_ms) {
    const auto timed = std::find_if_not(signals.begin(), signals.end(), is_ignored);
    if (timed == signals.end()) {
        return true;
    }
    limit.it_value = {limit_ms / 1000, limit_ms % 1000 * 1000000L};
    if (!start_limit_timer(*timed) || !start_thread()) {
        return false;
    }
    owner = getpid();
    for (int sig : signals) {
        if (!is_ignored(sig)) {
            catch_signal(sig);
        }
    }
    return true;
}

void ending_hold() {
    pthread_mutex_lock(&holds_lock);
    while (closing && holds == 0) {
        pthread_cond_wait(&holds_changed, &holds_lock);
    }
    holds++;
    pthread_mutex_unlock(&holds_lock);
}

void ending_release() {
    pthread_mutex_lock(&holds_lock);
    if (--holds == 0) {
        pthread_cond_broadcast(&holds_changed);
    }
    pthread_mutex_unlock(&holds_lock);
}

void ending_add(void (*work)()) {
    replace_work(nullptr, work);
}

void ending_remove(void (*work)()) {
    replace_work(work, nullptr);
}
