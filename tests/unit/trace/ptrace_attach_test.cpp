// Attaches whose wait for the stop fails, and detaches with a stop signal.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/trace/tracees.h"
#include "trace/ptrace_ops.h"

namespace {

constexpr int a_wait = 0;
constexpr int always = 1000;

// The steps of an attach whose first waits for the stop fail.
struct attach_log {
    int failures;            // the number of waits that fail
    int error;               // their errno
    std::vector<int> steps;  // a_wait, or the microseconds of a pause

    int waits() const { return static_cast<int>(std::ranges::count(steps, a_wait)); }
    // The pauses before the last wait; the detach has pauses of its own.
    std::vector<int> pauses() const {
        auto last = std::ranges::find(steps.rbegin(), steps.rend(), a_wait);
        std::vector<int> all(steps.begin(), last.base());
        std::erase(all, a_wait);
        return all;
    }
};
attach_log* log_in_use = nullptr;
bool detach_fails = false;  // once

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These replace the C library's in the whole test program: nothing else makes the calls fail.
extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
    static auto* next = real<pid_t(pid_t, int*, int)>("waitpid");
    if (log_in_use && (options & WUNTRACED) != 0) {
        log_in_use->steps.push_back(a_wait);
        if (log_in_use->failures-- > 0) {
            errno = log_in_use->error;
            return -1;
        }
    }
    return next(pid, status, options);
}

extern "C" int usleep(useconds_t microseconds) {
    static auto* next = real<int(useconds_t)>("usleep");
    if (log_in_use) {
        log_in_use->steps.push_back(static_cast<int>(microseconds));
    }
    return next(microseconds);
}

extern "C" long ptrace(__ptrace_request request, ...) noexcept {
    static auto* next = real<long(__ptrace_request, ...)>("ptrace");
    va_list args;
    va_start(args, request);
    pid_t pid = va_arg(args, pid_t);
    void* address = va_arg(args, void*);
    void* data = va_arg(args, void*);
    va_end(args);
    if (request == PTRACE_DETACH && std::exchange(detach_fails, false)) {
        errno = ESRCH;
        return -1;
    }
    return next(request, pid, address, data);
}

namespace {

// Attaches to `pid` while the first waits for its stop fail.
template <typename Attach>
attach_log logged(Attach attach, int failures, int error = ECHILD) {
    attach_log log = {failures, error, {}};
    log_in_use = &log;
    attach();
    log_in_use = nullptr;
    return log;
}

}  // namespace

TEST(trace_attach, waits_five_times_with_four_pauses_if_waitpid_fails_with_echild) {
    stranger sleeper(sleep_for_ever);
    attach_log log = logged([&sleeper] { EXPECT_EQ(trace_attach(sleeper.pid()), -1); }, always);
    EXPECT_EQ(log.waits(), 5);
    EXPECT_EQ(log.pauses(), (std::vector<int>{10, 10, 10, 10}));
    expect_free(sleeper.pid());
}

TEST(trace_attach, fifth_wait_may_succeed) {
    stranger sleeper(sleep_for_ever);
    attach_log log = logged([&sleeper] { EXPECT_EQ(trace_attach(sleeper.pid()), sleeper.pid()); }, 4);
    EXPECT_EQ(log.waits(), 5);
    EXPECT_EQ(state_of(sleeper.pid()), 't');
    trace_detach(sleeper.pid());
    expect_free(sleeper.pid());
}

TEST(trace_attach, other_failure_of_the_wait_ends_the_attach) {
    stranger sleeper(sleep_for_ever);
    attach_log log = logged([&sleeper] { EXPECT_EQ(trace_attach(sleeper.pid()), -1); }, 1, EINTR);
    EXPECT_EQ(log.waits(), 1);
    expect_free(sleeper.pid());
}

TEST(trace_attach_within, gives_up_after_the_fifth_failed_wait) {
    stranger sleeper(sleep_for_ever);
    int status = 0;
    auto attach = [&] { return trace_attach_within(sleeper.pid(), 20000, &status); };
    attach_log log = logged([&] { EXPECT_EQ(attach(), -1); }, always);
    EXPECT_EQ(log.waits(), 5);
    EXPECT_EQ(log.pauses().size(), 4u);
    expect_free(sleeper.pid());
    logged([&] { EXPECT_EQ(attach(), sleeper.pid()); }, 4);
    trace_detach(sleeper.pid());
    expect_free(sleeper.pid());
    log = logged([&] { EXPECT_EQ(attach(), -1); }, 1, EINVAL);
    EXPECT_EQ(log.waits(), 1);
    expect_free(sleeper.pid());
}

TEST(trace_detach_sig, leaves_a_process_stopped_if_asked_to) {
    for (bool is_running : {false, true}) {
        stranger sleeper(sleep_for_ever);
        ASSERT_EQ(trace_attach(sleeper.pid()), sleeper.pid());
        if (is_running) {
            ASSERT_EQ(trace_cont(sleeper.pid(), 0), 0);
        }
        trace_detach_sig(sleeper.pid(), SIGSTOP);
        EXPECT_TRUE(eventually([&sleeper] { return state_of(sleeper.pid()) == 'T'; }))
            << state_of(sleeper.pid());
        EXPECT_FALSE(is_traced(sleeper.pid()));
        kill(sleeper.pid(), SIGCONT);
        expect_free(sleeper.pid());
    }
}

TEST(trace_detach_sig, does_not_resume_a_process_at_other_stops_if_it_is_to_stay_stopped) {
    stranger sleeper(sleep_for_ever);
    pid_t pid = sleeper.pid();
    ASSERT_EQ(trace_attach(pid), pid);
    ASSERT_EQ(trace_cont(pid, 0), 0);
    kill(pid, SIGUSR1);
    ASSERT_TRUE(eventually([pid] { return state_of(pid) == 't'; }));
    detach_fails = true;  // as if it were still running
    std::atomic<bool> begun{false};
    std::thread killer([pid, &begun] {
        EXPECT_TRUE(eventually([&begun] { return begun.load(); }));
        // If it were resumed, SIGSTOP would stop it next, and it would be detached.
        EXPECT_FALSE(eventually([pid] { return state_of(pid) != 't'; }, std::chrono::milliseconds(300)))
            << state_of(pid);
        kill(pid, SIGKILL);
    });
    begun = true;
    trace_detach_sig(pid, SIGSTOP);
    EXPECT_FALSE(detach_fails);
    killer.join();
    EXPECT_TRUE(eventually([pid] { return state_of(pid) == '-' || state_of(pid) == 'Z'; }));
}
