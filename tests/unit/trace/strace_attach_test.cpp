// Attaching where the wait for the stop fails, letting go with a stop signal, and the name that is kept.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <sys/mman.h>
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

// What an attach does when waiting for the stop fails.
struct attach_log {
    int failures;            // so many waits fail
    int error;               // with this
    std::vector<int> steps;  // a_wait, or the microseconds of a pause

    int waits() const { return static_cast<int>(std::ranges::count(steps, a_wait)); }
    // The pauses before the last wait: letting go has pauses of its own.
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

// In the place of the C library's, for the whole of this program: nothing else makes these calls fail.
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

// Makes the memory of its command line unreadable, tells of it and goes on for ever.
[[gnu::noinline]] int hide_words_and_call(int report_fd) {
    const auto size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    auto* page = program_invocation_name - reinterpret_cast<uintptr_t>(program_invocation_name) % size;
    const bool hidden = mprotect(page, size, PROT_NONE) == 0;
    (void)!write(report_fd, hidden ? "1" : "0", 1);
    return call_for_ever();
}

// The name under which the one process of `trace` is traced, up to its first stop.
std::string name_in(traced_text& trace) {
    const std::string head = "\n[" + std::to_string(trace.pids[0]) + " ";
    trace.goes_on = [](const traced_text&) { return false; };
    trace.run();
    EXPECT_TRUE(trace.text.starts_with(head)) << trace.text;
    return trace.text.substr(head.size(), trace.text.find("] ") - head.size());
}

// The same of a program with this command line.
std::string name_of(const std::vector<std::string>& command_line) {
    traced_text trace({start_traced(command_line, "/bin/sh")}, strace_fds);
    trace.ctx.attached = 1;
    return name_in(trace);
}

}  // namespace

TEST(trace_attach, waits_five_times_with_four_pauses_between_when_it_has_no_such_child) {
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

TEST(trace_attach, other_failure_of_the_wait_ends_it_at_once) {
    stranger sleeper(sleep_for_ever);
    attach_log log = logged([&sleeper] { EXPECT_EQ(trace_attach(sleeper.pid()), -1); }, 1, EINTR);
    EXPECT_EQ(log.waits(), 1);
    expect_free(sleeper.pid());
}

TEST(trace_attach_within, gives_up_after_the_fifth_wait_that_has_no_such_child) {
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

TEST(trace_detach_sig, leaves_a_process_stopped_that_gets_a_stop_signal) {
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

TEST(trace_detach_sig, process_that_is_to_be_stopped_is_not_resumed_at_another_signal) {
    stranger sleeper(sleep_for_ever);
    pid_t pid = sleeper.pid();
    ASSERT_EQ(trace_attach(pid), pid);
    ASSERT_EQ(trace_cont(pid, 0), 0);
    kill(pid, SIGUSR1);
    ASSERT_TRUE(eventually([pid] { return state_of(pid) == 't'; }));
    detach_fails = true;  // as if it were running still
    std::atomic<bool> begun{false};
    std::thread killer([pid, &begun] {
        EXPECT_TRUE(eventually([&begun] { return begun.load(); }));
        // Resumed, it would be stopped by SIGSTOP next and let go.
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

TEST(do_strace, name_of_a_process_is_from_the_first_31_bytes_of_its_command_line) {
    EXPECT_EQ(name_of({std::string(31, 'n')}), std::string(31, 'n'));
    EXPECT_EQ(name_of({std::string(32, 'n')}), std::string(31, 'n'));
    EXPECT_EQ(name_of({"/usr/bin/" + std::string(40, 'n')}), std::string(22, 'n'));
    EXPECT_EQ(name_of({std::string(30, 'n') + "/x"}), "");
    EXPECT_EQ(name_of({std::string(29, 'n') + "/xy"}), "x");
}

TEST(do_strace, name_of_a_process_is_the_last_part_of_its_first_argument) {
    EXPECT_EQ(name_of({"sh"}), "sh");
    EXPECT_EQ(name_of({"a/b", "c/d"}), "b");
    EXPECT_EQ(name_of({"two words"}), "two words");
    EXPECT_EQ(name_of({""}), "");
}

TEST(do_strace, process_whose_command_line_cannot_be_read_has_no_name) {
    test_pipe report;
    tracee nameless([&report] {
        [[maybe_unused]] volatile char
            apart[1 << 16];  // from the page of the words, on which nothing may stand that is used
        apart[0] = '\0';
        return hide_words_and_call(report.in.get());
    });
    report.in.reset();
    char hidden = '0';
    ASSERT_EQ(read(report.out.get(), &hidden, 1), 1);
    ASSERT_EQ(hidden, '1');
    traced_text trace({nameless.pid()}, strace_fds);
    EXPECT_EQ(name_in(trace), "");
    expect_free(nameless.pid());
}
