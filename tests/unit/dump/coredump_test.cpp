#include "dump/coredump.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "tests/unit/dump/dumper_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/fake_dumper.h"
#include "tests/unit/support/pipes.h"

namespace {

class coredump_test : public dumper_fixture {
protected:
    // Returns the core; `messages` becomes the text on standard error.
    std::string core_of(int pid = some_pid) {
        unique_fd file = memory_file();
        messages = capture_stderr([&] { coredump(file.get(), pid); });
        return content_of(file.get());
    }
    std::string messages;
};

std::string error_line(int pid = some_pid) {
    return "dump error for pid " + std::to_string(pid) + "\n";
}

// Never ends, in the script's own process.
const std::string hang = "exec sleep 1000\n";

}  // namespace

TEST_F(coredump_test, streams_the_standard_output_of_the_dumper) {
    fake_dumper dumper(announce(4) + "printf core");
    EXPECT_EQ(core_of(), "core");
    EXPECT_EQ(messages, "");
}

TEST_F(coredump_test, dumper_gets_its_fixed_arguments_and_the_pid) {
    fake_dumper dumper("printf '%s|' \"$#\" \"$@\"");
    EXPECT_EQ(core_of(12345), "3|-c|/dev/stdout|12345|");
    EXPECT_EQ(core_of(1), "3|-c|/dev/stdout|1|");
}

TEST_F(coredump_test, dumper_gets_an_empty_environment) {
    ASSERT_EQ(setenv("ZARVO_TEST_MARK", "1", 1), 0);
    fake_dumper dumper("printf '%s' \"${ZARVO_TEST_MARK-none}\"");
    EXPECT_EQ(core_of(), "none");
    unsetenv("ZARVO_TEST_MARK");
}

TEST_F(coredump_test, dumper_inherits_only_two_pipe_ends) {
    fake_dumper dumper("exec ls -l /proc/self/fd");
    std::string seen = core_of();
    size_t pipes = 0;
    for (size_t at = 0; (at = seen.find(" -> pipe:", at)) != std::string::npos; at++) {
        pipes++;
    }
    EXPECT_NE(seen.find(" 1 -> pipe:"), std::string::npos) << seen;
    EXPECT_NE(seen.find(" 2 -> pipe:"), std::string::npos) << seen;
    // The test itself may have been started with pipes.
    size_t inherited = 0;
    for (int fd : open_fds()) {
        char target[64] = {};
        ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
        inherited += length > 0 && fd != 1 && fd != 2 && !is_cloexec(fd) &&
                     std::string(target).compare(0, 5, "pipe:") == 0;
    }
    EXPECT_EQ(pipes, 2 + inherited) << seen;
}

TEST_F(coredump_test, needs_no_control_line) {
    fake_dumper dumper("printf core");
    EXPECT_EQ(core_of(), "core");
    EXPECT_EQ(messages, "");
}

TEST_F(coredump_test, announced_length_does_not_limit_the_core) {
    fake_dumper dumper(announce(2) + "head -c 300000 /dev/zero");
    EXPECT_EQ(core_of(), std::string(300000, '\0'));
    EXPECT_EQ(messages, "");
}

TEST_F(coredump_test, drops_the_messages_of_the_dumper) {
    fake_dumper dumper(say("one\ntwo\n") + "printf core\n" + say("three"));
    EXPECT_EQ(core_of(), "core");
    EXPECT_EQ(messages, "");
}

TEST_F(coredump_test, long_messages_do_not_block_the_dumper) {
    for (const char* order : {"head -c 1000000 /dev/zero >&2\nhead -c 1000000 /dev/zero",
                              "head -c 1000000 /dev/zero\nhead -c 3000000 /dev/zero >&2"}) {
        fake_dumper dumper(order);
        EXPECT_EQ(core_of().size(), 1000000u);
        EXPECT_EQ(messages, "");
    }
}

TEST_F(coredump_test, reports_a_dumper_that_fails) {
    fake_dumper dumper("printf part; exit 3");
    EXPECT_EQ(core_of(), "part");
    EXPECT_EQ(messages, error_line());
}

TEST_F(coredump_test, reports_a_dumper_that_is_killed) {
    fake_dumper dumper("printf part; kill -9 $$");
    EXPECT_EQ(core_of(), "part");
    EXPECT_EQ(messages, error_line());
}

TEST_F(coredump_test, reports_a_missing_dumper) {
    EXPECT_EQ(core_of(), "");
    EXPECT_EQ(messages, error_line());
}

TEST_F(coredump_test, kills_a_dumper_that_writes_nothing) {
    fake_dumper dumper(hang, 200);
    EXPECT_EQ(core_of(), "");
    EXPECT_EQ(messages, killed_line() + error_line());
}

TEST_F(coredump_test, kills_a_dumper_that_stops_writing) {
    fake_dumper dumper("printf part\n" + hang, 1000);
    EXPECT_EQ(core_of(), "part");
    EXPECT_EQ(messages, killed_line() + error_line());
}

TEST_F(coredump_test, kills_a_dumper_that_writes_only_messages) {
    fake_dumper dumper("exec yes >&2", 200);
    EXPECT_EQ(core_of(), "");
    EXPECT_EQ(messages, killed_line() + error_line());
}

TEST_F(coredump_test, kills_a_dumper_that_does_not_exit_after_its_core) {
    for (const char* closed : {">&-", ">&- 2>&-"}) {
        fake_dumper dumper(std::string("printf core; exec sleep 1000 ") + closed, 200);
        EXPECT_EQ(core_of(), "core");
        EXPECT_EQ(messages, killed_line() + error_line());
    }
}

TEST_F(coredump_test, does_not_wait_for_processes_that_the_dumper_leaves_running) {
    // The child of the dumper holds both pipes after the dumper has exited with 0.
    fake_dumper dumper("cat <\"${0%/*}/fifo\" >/dev/null &\n", 200);
    ASSERT_EQ(mkfifo(dumper.path("fifo").c_str(), 0600), 0);
    unique_fd end(open(dumper.path("fifo").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(core_of(), "");
    end.reset();
}

TEST_F(coredump_test, waits_for_a_slow_reader) {
    fake_dumper dumper("head -c 1000000 /dev/zero", 300);
    test_pipe browser;
    std::string got;
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        got = read_all(browser.out.get());
    });
    messages = capture_stderr([&] { coredump(browser.in.get(), some_pid); });
    browser.in.reset();
    reader.join();
    EXPECT_EQ(got.size(), 1000000u);
    EXPECT_EQ(messages, "");
}

TEST_F(coredump_test, lets_the_dumper_finish_when_the_reader_has_gone) {
    fake_dumper dumper("head -c 3000000 /dev/zero && : >\"${0%/*}/finished\"");
    test_pipe browser;
    browser.out.reset();
    messages = capture_stderr([&] { coredump(browser.in.get(), some_pid); });
    EXPECT_EQ(access(dumper.path("finished").c_str(), F_OK), 0);
    EXPECT_EQ(messages, "");
}

TEST_F(coredump_test, kills_an_endless_dumper_when_the_reader_has_gone) {
    fake_dumper dumper("exec cat /dev/zero", 200);
    test_pipe browser;
    browser.out.reset();
    messages = capture_stderr([&] { coredump(browser.in.get(), some_pid); });
    EXPECT_EQ(messages, killed_line() + error_line());
}

TEST_F(coredump_test, drops_blocks_that_cannot_be_written) {
    fake_dumper dumper("head -c 100000 /dev/zero");
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    messages = capture_stderr([&] { coredump(full.get(), some_pid); });
    EXPECT_EQ(messages, "");
}

TEST_F(coredump_test, two_at_once_get_their_own_pids) {
    fake_dumper dumper("sleep 0.05\nprintf '%s' \"$3\"");
    unique_fd one = memory_file();
    unique_fd other = memory_file();
    for (int round = 0; round < 5; round++) {
        std::thread first([&] { coredump(one.get(), 111); });
        coredump(other.get(), 222);
        first.join();
    }
    EXPECT_EQ(content_of(one.get()), "111111111111111");
    EXPECT_EQ(content_of(other.get()), "222222222222222");
}

TEST_F(coredump_test, dumps_its_own_process_although_the_dumper_stops_it) {
    // In a child: a process that is stopped cannot check its own descriptors.
    fake_dumper dumper("kill -STOP \"$3\"\nhead -c 1000000 /dev/zero\nkill -CONT \"$3\"");
    EXPECT_TRUE(exited_with(run_in_child([&] {
                                std::set<int> before = open_fds();
                                EXPECT_EQ(core_of(getpid()).size(), 1000000u);
                                EXPECT_EQ(messages, "");
                                EXPECT_EQ(open_fds(), before);
                                return HasFailure() || !has_no_children() ? 1 : 0;
                            }),
                            0));
}

TEST_F(coredump_test, reports_pipes_that_cannot_be_opened) {
    fake_dumper dumper(announce(4) + "printf core");
    int status = run_in_child([&] {
        unique_fd out = memory_file();
        unique_fd err = memory_file();
        dup2(err.get(), STDERR_FILENO);
        rlimit limit = {64, 64};
        setrlimit(RLIMIT_NOFILE, &limit);
        int last = 0;
        for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
            last = fd;
        }
        coredump(out.get(), some_pid);  // no pipe
        close(last);
        close(last - 1);
        coredump(out.get(), some_pid);  // only one of the two
        bool both_closed = fcntl(last, F_GETFD) < 0 && fcntl(last - 1, F_GETFD) < 0;
        return both_closed && content_of(out.get()).empty() && has_no_children() &&
                       content_of(err.get()) == "pipes: Too many open files\npipes: Too many open files\n"
                   ? 0
                   : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}
