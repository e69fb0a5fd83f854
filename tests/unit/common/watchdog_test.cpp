#include "common/watchdog.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "common/ending.h"
#include "platform/hollisk.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

namespace {

// Answers instead of the platform library, unless it is null. Set only in children of the test.
int (*platform_answer)(int state, hollisk_error** error) = nullptr;

// The error message of the stand-in library.
const std::string refusal = "failure requested by HOLLISK_FAIL_COUNT";

std::string state_line(const std::string& word) {
    return "Set service watchdogs state: " + word + "\n";
}

std::string error_line(const std::string& word, const std::string& message) {
    return "Error setting service watchdogs state '" + word + "': " + message + "\n";
}

struct run_result {
    int32_t result = 0;
    std::string out;
    std::string err;
    std::string both;  // standard output and error on one descriptor, which shows their order
};

// Runs `work` as the first user of the library in a child process that exits without flushing. Returns the
// wait status; the exit code is 1 for the result 1, 2 for -1 and 3 for any other.
int run_apart(const std::function<int32_t()>& work, const char* fail_count, int out, int err) {
    return run_in_child([&] {
        unsetenv("HOLLISK_FAIL_COUNT");
        if (fail_count != nullptr) {
            setenv("HOLLISK_FAIL_COUNT", fail_count, 1);
        }
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        int32_t result = work();
        _exit(result == 1 ? 1 : result == -1 ? 2 : 3);
        return 0;
    });
}

run_result run_watchdog(const std::function<int32_t()>& work, const char* fail_count = nullptr) {
    test_pipe out;
    test_pipe err;
    test_pipe both;
    int status = run_apart(work, fail_count, out.in.get(), err.in.get());
    int again = run_apart(work, fail_count, both.in.get(), both.in.get());
    EXPECT_EQ(status, again);
    EXPECT_TRUE(exited_with(status, 1) || exited_with(status, 2)) << status;
    return {WEXITSTATUS(status) == 1 ? 1 : -1, out.finish(), err.finish(), both.finish()};
}

}  // namespace

// Replaces the library's function, and calls it unless a test has set its own answer.
extern "C" int hollisk_set_service_watchdogs(int state, hollisk_error** error) {
    if (platform_answer != nullptr) {
        return platform_answer(state, error);
    }
    using call = int (*)(int, hollisk_error**);
    static call library = [] {
        void* handle = dlopen("libhollisk.so.7", RTLD_NOW);
        return reinterpret_cast<call>(handle != nullptr ? dlsym(handle, "hollisk_set_service_watchdogs")
                                                        : nullptr);
    }();
    if (library == nullptr) {
        (void)!write(STDERR_FILENO, "no platform library\n", 20);
        abort();
    }
    return library(state, error);
}

TEST(set_service_watchdogs, prints_its_action_and_succeeds) {
    run_result on = run_watchdog([] { return set_service_watchdogs(1); });
    EXPECT_EQ(on.result, 1);
    EXPECT_EQ(on.out, state_line("yes"));
    EXPECT_EQ(on.err, "");
    run_result off = run_watchdog([] { return set_service_watchdogs(0); });
    EXPECT_EQ(off.result, 1);
    EXPECT_EQ(off.out, state_line("no"));
    EXPECT_EQ(off.err, "");
}

TEST(set_service_watchdogs, any_number_but_0_is_yes) {
    EXPECT_EQ(run_watchdog([] { return set_service_watchdogs(-7); }).out, state_line("yes"));
}

TEST(set_service_watchdogs, reports_a_failure_after_the_state) {
    run_result on = run_watchdog([] { return set_service_watchdogs(1); }, "1");
    EXPECT_EQ(on.result, -1);
    EXPECT_EQ(on.out, state_line("yes"));
    EXPECT_EQ(on.err, error_line("yes", refusal));
    EXPECT_EQ(on.both, state_line("yes") + error_line("yes", refusal));
    run_result off = run_watchdog([] { return set_service_watchdogs(0); }, "1");
    EXPECT_EQ(off.both, state_line("no") + error_line("no", refusal));
}

TEST(set_service_watchdogs, makes_one_attempt) {
    run_result both = run_watchdog(
        [] {
            set_service_watchdogs(1);
            return set_service_watchdogs(1);
        },
        "1");
    EXPECT_EQ(both.result, 1);
    EXPECT_EQ(both.both, state_line("yes") + error_line("yes", refusal) + state_line("yes"));
}

TEST(set_service_watchdogs, passes_the_state_to_the_platform) {
    auto expect_state = [](int32_t (*work)()) {
        run_result run = run_watchdog([work] {
            platform_answer = [](int state, hollisk_error** error) {
                dprintf(STDERR_FILENO, "%d %d\n", state, *error == nullptr);
                return 0;
            };
            return work();
        });
        return run.err;
    };
    EXPECT_EQ(expect_state([] { return set_service_watchdogs(1); }), "1 1\n");
    EXPECT_EQ(expect_state([] { return set_service_watchdogs(0); }), "0 1\n");
    EXPECT_EQ(expect_state(disable_watchdogs), "0 1\n");
    EXPECT_EQ(expect_state(enable_watchdogs), "1 1\n");
}

TEST(set_service_watchdogs, state_is_printed_before_the_platform_is_called) {
    run_result run = run_watchdog([] {
        platform_answer = [](int, hollisk_error**) {
            (void)!write(STDERR_FILENO, "asked\n", 6);
            return 0;
        };
        return set_service_watchdogs(0);
    });
    EXPECT_EQ(run.both, state_line("no") + "asked\n");
}

TEST(set_service_watchdogs, only_the_error_record_means_a_failure) {
    run_result success = run_watchdog([] {
        platform_answer = [](int, hollisk_error**) { return -1; };
        return set_service_watchdogs(1);
    });
    EXPECT_EQ(success.result, 1);
    EXPECT_EQ(success.err, "");
    run_result failure = run_watchdog([] {
        platform_answer = [](int, hollisk_error** error) {
            static hollisk_error record = {0, 0, "100% of %s busy"};
            *error = &record;
            return 1;
        };
        return set_service_watchdogs(1);
    });
    EXPECT_EQ(failure.result, -1);
    EXPECT_EQ(failure.err, error_line("yes", "100% of %s busy"));
}

TEST(disable_watchdogs, makes_one_attempt) {
    run_result success = run_watchdog(disable_watchdogs);
    EXPECT_EQ(success.result, 1);
    EXPECT_EQ(success.both, state_line("no"));
    run_result failure = run_watchdog(disable_watchdogs, "5");
    EXPECT_EQ(failure.result, -1);
    EXPECT_EQ(failure.both, state_line("no") + error_line("no", refusal));
}

TEST(enable_watchdogs, succeeds_at_once_if_nothing_fails) {
    run_result run = run_watchdog(enable_watchdogs);
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.both, state_line("yes"));
}

TEST(enable_watchdogs, tries_until_it_succeeds_and_reports_every_attempt) {
    run_result run = run_watchdog(enable_watchdogs, "3");
    EXPECT_EQ(run.result, 1);
    std::string failed = state_line("yes") + error_line("yes", refusal);
    EXPECT_EQ(run.both, failed + failed + failed + state_line("yes"));
}

TEST(enable_watchdogs, does_not_limit_its_attempts) {
    test_pipe both;
    pid_t child = fork_child([&both] {
        setenv("HOLLISK_FAIL_COUNT", "1000000000", 1);
        dup2(both.in.get(), STDOUT_FILENO);
        dup2(both.in.get(), STDERR_FILENO);
        enable_watchdogs();
        return 0;
    });
    both.in.reset();
    const std::string failed = state_line("yes") + error_line("yes", refusal);
    std::string wanted;
    for (int i = 0; i < 5000; i++) {
        wanted += failed;
    }
    std::string seen;
    char block[4096];
    ssize_t got;
    while (seen.size() < wanted.size() && (got = read(both.out.get(), block, sizeof block)) > 0) {
        seen.append(block, static_cast<size_t>(got));
    }
    ASSERT_EQ(kill(child, SIGKILL), 0);
    EXPECT_TRUE(killed_by(wait_status(child), SIGKILL)) << "ended by itself";
    EXPECT_TRUE(seen.compare(0, wanted.size(), wanted) == 0) << seen.substr(0, 500);
}

// The end of a process that is signalled while its watchdogs are off, and what it printed.
struct ended_run {
    int status = -1;
    std::string said;
};

ended_run end_while_off(int sig, const std::function<void()>& before_the_signal, int limit_ms = 600000) {
    constexpr int caught[] = {SIGALRM, SIGTERM};
    test_pipe said;
    ended_run run;
    run.status = run_in_child([&] {
        dup2(said.in.get(), STDOUT_FILENO);
        dup2(said.in.get(), STDERR_FILENO);
        if (!ending_catch(caught, limit_ms)) {
            return 1;
        }
        disable_watchdogs();
        before_the_signal();
        kill(getpid(), sig);
        for (;;) {
            pause();
        }
        return 0;
    });
    run.said = said.finish();
    return run;
}

TEST(watchdogs_at_the_end, are_switched_on_if_they_were_off) {
    for (int sig : {SIGTERM, SIGALRM}) {
        ended_run run = end_while_off(sig, [] {});
        EXPECT_TRUE(killed_by(run.status, sig)) << run.status;
        EXPECT_EQ(run.said, state_line("no") + state_line("yes"));
    }
}

TEST(watchdogs_at_the_end, are_left_alone_if_they_are_on_again) {
    ended_run run = end_while_off(SIGTERM, [] { enable_watchdogs(); });
    EXPECT_TRUE(killed_by(run.status, SIGTERM)) << run.status;
    EXPECT_EQ(run.said, state_line("no") + state_line("yes"));
}

TEST(watchdogs_at_the_end, are_tried_until_the_switch_succeeds) {
    ended_run run = end_while_off(SIGTERM, [] { setenv("HOLLISK_FAIL_COUNT", "3", 1); });
    EXPECT_TRUE(killed_by(run.status, SIGTERM)) << run.status;
    // The stand-in also counts the attempt that switched them off.
    const std::string failed = state_line("yes") + error_line("yes", refusal);
    EXPECT_EQ(run.said, state_line("no") + failed + failed + state_line("yes"));
}

TEST(watchdogs_at_the_end, do_not_delay_the_end_for_ever_if_the_platform_fails) {
    ended_run run = end_while_off(
        SIGTERM, [] { setenv("HOLLISK_FAIL_COUNT", "1000000000", 1); }, 300);
    EXPECT_TRUE(killed_by(run.status, SIGTERM)) << run.status;
}

TEST(watchdogs_at_the_end, do_not_delay_the_end_for_ever_if_the_platform_hangs) {
    auto hang = [] {
        platform_answer = [](int, hollisk_error**) -> int {
            for (;;) {
                pause();
            }
        };
    };
    for (int sig : {SIGTERM, SIGALRM}) {
        ended_run run = end_while_off(sig, hang, 300);
        EXPECT_TRUE(killed_by(run.status, sig)) << run.status;
    }
}

// The switch comes first, because a report to an output that is blocked would never return.
TEST(watchdogs_at_the_end, do_not_wait_for_the_output) {
    test_pipe asked;
    static int asked_fd;
    asked_fd = asked.in.get();
    ended_run run = end_while_off(
        SIGTERM,
        [] {
            platform_answer = [](int state, hollisk_error**) {
                dprintf(asked_fd, "%d\n", state);
                return 0;
            };
            flockfile(stdout);
        },
        300);
    EXPECT_TRUE(killed_by(run.status, SIGTERM)) << run.status;
    EXPECT_EQ(asked.finish(), "1\n");
}

// An attempt to switch them off is under way when the signal comes.
TEST(watchdogs_at_the_end, are_switched_on_after_an_attempt_to_switch_them_off) {
    test_pipe asked;
    static int asked_fd;
    asked_fd = asked.in.get();
    ended_run run = end_while_off(SIGTERM, [] {
        enable_watchdogs();
        platform_answer = [](int state, hollisk_error**) {
            if (state == 0) {
                kill(getpid(), SIGTERM);
                poll(nullptr, 0, 100);
            }
            dprintf(asked_fd, "%d\n", state);
            return 0;
        };
        disable_watchdogs();
    });
    EXPECT_TRUE(killed_by(run.status, SIGTERM)) << run.status;
    EXPECT_EQ(asked.finish(), "0\n1\n");
}
