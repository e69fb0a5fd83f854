#include "dump/dumper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/resource.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "common/safe_io.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/fake_dumper.h"
#include "tests/unit/support/pipes.h"

namespace {

constexpr int some_pid = 4711;

// Every test ends without a child and with the descriptors that it began with.
class coredump_of : public testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        fake_dumper::use("/nonexistent/dumper");
        before_ = open_fds();
    }
    void TearDown() override {
        EXPECT_EQ(open_fds(), before_);
        EXPECT_TRUE(has_no_children());
    }

    // The core; what is said meanwhile goes to `said`.
    std::string core_of(int pid = some_pid) {
        unique_fd file = memory_file();
        said = capture_stderr([&] { coredump(file.get(), pid); });
        return content_of(file.get());
    }
    std::string said;

private:
    std::set<int> before_;
};

std::string error_line(int pid = some_pid) {
    return "dump error for pid " + std::to_string(pid) + "\n";
}

std::string killed_line(int pid = some_pid) {
    return "dump: gave up on the dumper of pid " + std::to_string(pid) + "\n";
}

// Commands that never end, in the script's own process.
const std::string hang = "exec sleep 1000\n";

}  // namespace

TEST_F(coredump_of, streams_what_the_dumper_writes) {
    fake_dumper dumper(announce(4) + "printf core");
    EXPECT_EQ(core_of(), "core");
    EXPECT_EQ(said, "");
}

TEST_F(coredump_of, gives_the_dumper_its_fixed_arguments_and_the_pid) {
    fake_dumper dumper("printf '%s|' \"$#\" \"$@\"");
    EXPECT_EQ(core_of(12345), "3|-c|/dev/stdout|12345|");
    EXPECT_EQ(core_of(1), "3|-c|/dev/stdout|1|");
}

TEST_F(coredump_of, gives_the_dumper_an_empty_environment) {
    ASSERT_EQ(setenv("ZARVO_TEST_MARK", "1", 1), 0);
    fake_dumper dumper("printf '%s' \"${ZARVO_TEST_MARK-none}\"");
    EXPECT_EQ(core_of(), "none");
    unsetenv("ZARVO_TEST_MARK");
}

TEST_F(coredump_of, gives_the_dumper_two_pipe_ends_and_no_more) {
    fake_dumper dumper("exec ls -l /proc/self/fd");
    std::string seen = core_of();
    size_t pipes = 0;
    for (size_t at = 0; (at = seen.find(" -> pipe:", at)) != std::string::npos; at++) {
        pipes++;
    }
    EXPECT_NE(seen.find(" 1 -> pipe:"), std::string::npos) << seen;
    EXPECT_NE(seen.find(" 2 -> pipe:"), std::string::npos) << seen;
    // What the test itself was started with may be a pipe as well.
    size_t inherited = 0;
    for (int fd : open_fds()) {
        char target[64] = {};
        ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
        inherited += length > 0 && fd != 1 && fd != 2 && !is_cloexec(fd) &&
                     std::string(target).compare(0, 5, "pipe:") == 0;
    }
    EXPECT_EQ(pipes, 2 + inherited) << seen;
}

TEST_F(coredump_of, needs_no_control_line) {
    fake_dumper dumper("printf core");
    EXPECT_EQ(core_of(), "core");
    EXPECT_EQ(said, "");
}

TEST_F(coredump_of, goes_by_what_comes_not_by_what_is_announced) {
    fake_dumper dumper(announce(2) + "head -c 300000 /dev/zero");
    EXPECT_EQ(core_of(), std::string(300000, '\0'));
    EXPECT_EQ(said, "");
}

TEST_F(coredump_of, drops_what_the_dumper_says) {
    fake_dumper dumper(say("one\ntwo\n") + "printf core\n" + say("three"));
    EXPECT_EQ(core_of(), "core");
    EXPECT_EQ(said, "");
}

TEST_F(coredump_of, is_not_held_by_a_mebibyte_of_messages) {
    for (const char* order : {"head -c 1000000 /dev/zero >&2\nhead -c 1000000 /dev/zero",
                              "head -c 1000000 /dev/zero\nhead -c 3000000 /dev/zero >&2"}) {
        fake_dumper dumper(order);
        EXPECT_EQ(core_of().size(), 1000000u);
        EXPECT_EQ(said, "");
    }
}

TEST_F(coredump_of, reports_a_dumper_that_fails) {
    fake_dumper dumper("printf part; exit 3");
    EXPECT_EQ(core_of(), "part");
    EXPECT_EQ(said, error_line());
}

TEST_F(coredump_of, reports_a_dumper_that_is_killed) {
    fake_dumper dumper("printf part; kill -9 $$");
    EXPECT_EQ(core_of(), "part");
    EXPECT_EQ(said, error_line());
}

TEST_F(coredump_of, reports_a_dumper_that_is_missing) {
    EXPECT_EQ(core_of(), "");
    EXPECT_EQ(said, error_line());
}

TEST_F(coredump_of, kills_a_dumper_that_writes_nothing) {
    fake_dumper dumper(hang, 200);
    EXPECT_EQ(core_of(), "");
    EXPECT_EQ(said, killed_line() + error_line());
}

TEST_F(coredump_of, kills_a_dumper_that_stops_writing) {
    fake_dumper dumper("printf part\n" + hang, 200);
    EXPECT_EQ(core_of(), "part");
    EXPECT_EQ(said, killed_line() + error_line());
}

TEST_F(coredump_of, kills_a_dumper_that_only_talks) {
    fake_dumper dumper("exec yes >&2", 200);
    EXPECT_EQ(core_of(), "");
    EXPECT_EQ(said, killed_line() + error_line());
}

TEST_F(coredump_of, kills_a_dumper_that_does_not_end_after_its_core) {
    for (const char* closed : {">&-", ">&- 2>&-"}) {
        fake_dumper dumper(std::string("printf core; exec sleep 1000 ") + closed, 200);
        EXPECT_EQ(core_of(), "core");
        EXPECT_EQ(said, killed_line() + error_line());
    }
}

TEST_F(coredump_of, is_not_held_by_what_a_dumper_leaves_running) {
    // What it started holds on to both pipes; the dumper itself has ended well.
    fake_dumper dumper("cat <\"${0%/*}/fifo\" >/dev/null &\n", 200);
    ASSERT_EQ(mkfifo(dumper.path("fifo").c_str(), 0600), 0);
    unique_fd end(open(dumper.path("fifo").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(core_of(), "");
    end.reset();
}

TEST_F(coredump_of, waits_for_a_slow_reader) {
    fake_dumper dumper("head -c 1000000 /dev/zero", 300);
    test_pipe browser;
    std::string got;
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        got = read_all(browser.out.get());
    });
    said = capture_stderr([&] { coredump(browser.in.get(), some_pid); });
    browser.in.reset();
    reader.join();
    EXPECT_EQ(got.size(), 1000000u);
    EXPECT_EQ(said, "");
}

TEST_F(coredump_of, lets_the_dumper_finish_when_the_reader_has_gone) {
    fake_dumper dumper("head -c 3000000 /dev/zero && : >\"${0%/*}/finished\"");
    test_pipe browser;
    browser.out.reset();
    said = capture_stderr([&] { coredump(browser.in.get(), some_pid); });
    EXPECT_EQ(access(dumper.path("finished").c_str(), F_OK), 0);
    EXPECT_EQ(said, "");
}

TEST_F(coredump_of, kills_an_endless_dumper_when_the_reader_has_gone) {
    fake_dumper dumper("exec cat /dev/zero", 200);
    test_pipe browser;
    browser.out.reset();
    said = capture_stderr([&] { coredump(browser.in.get(), some_pid); });
    EXPECT_EQ(said, killed_line() + error_line());
}

TEST_F(coredump_of, drops_blocks_that_cannot_be_written) {
    fake_dumper dumper("head -c 100000 /dev/zero");
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    said = capture_stderr([&] { coredump(full.get(), some_pid); });
    EXPECT_EQ(said, "");
}

TEST_F(coredump_of, two_at_once_get_their_own_pids) {
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

TEST_F(coredump_of, works_for_the_caller_itself_that_is_stopped_meanwhile) {
    // The caller can't be stopped and watch its own descriptors, so another process is the one.
    fake_dumper dumper("kill -STOP \"$3\"\nhead -c 1000000 /dev/zero\nkill -CONT \"$3\"");
    EXPECT_TRUE(exited_with(run_in_child([&] {
                                std::set<int> before = open_fds();
                                EXPECT_EQ(core_of(getpid()).size(), 1000000u);
                                EXPECT_EQ(said, "");
                                EXPECT_EQ(open_fds(), before);
                                return HasFailure() || !has_no_children() ? 1 : 0;
                            }),
                            0));
}

TEST_F(coredump_of, without_free_descriptors_reports_the_pipes) {
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
        coredump(out.get(), some_pid);  // not one pipe
        close(last);
        close(last - 1);
        coredump(out.get(), some_pid);  // one of the two
        bool both_closed = fcntl(last, F_GETFD) < 0 && fcntl(last - 1, F_GETFD) < 0;
        return both_closed && content_of(out.get()).empty() && has_no_children() &&
                       content_of(err.get()) == "pipes: Too many open files\npipes: Too many open files\n"
                   ? 0
                   : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

namespace {

// Where a test has the core go.
struct test_sink {
    unique_fd file = memory_file();
    int blocks = 0;

    core_sink up_to(int64_t limit) { return {write, this, limit}; }
    core_sink all() { return {write, this}; }

private:
    static bool write(void* cookie, const void* data, size_t length) {
        test_sink* sink = static_cast<test_sink*>(cookie);
        sink->blocks++;
        return safe_write(sink->file.get(), data, static_cast<unsigned>(length)) >= 0;
    }
};

}  // namespace

using dump_copy = coredump_of;

TEST_F(dump_copy, hands_the_core_over_in_blocks) {
    fake_dumper dumper("head -c 100000 /dev/zero");
    test_sink sink;
    dump_run run;
    ASSERT_TRUE(dump_start(some_pid, &run));
    EXPECT_EQ(dump_copy_core(&run, sink.all()), 100000);
    EXPECT_GE(sink.blocks, 100000 / 16384);
    EXPECT_EQ(content_of(sink.file.get()).size(), 100000u);
    dump_discard(&run);
    EXPECT_TRUE(dump_end(&run));
}

TEST_F(dump_copy, counts_what_comes_after_the_limit_and_drops_it) {
    for (size_t limit : {0, 1, 16384, 40000, 99999, 100000}) {
        fake_dumper dumper("head -c 100000 /dev/zero");
        test_sink sink;
        dump_run run;
        ASSERT_TRUE(dump_start(some_pid, &run));
        EXPECT_EQ(dump_copy_core(&run, sink.up_to(static_cast<int64_t>(limit))), 100000);
        EXPECT_EQ(content_of(sink.file.get()).size(), limit);
        dump_discard(&run);
        EXPECT_TRUE(dump_end(&run));
    }
}

TEST_F(dump_copy, kills_a_dumper_that_goes_on_for_ever_after_the_limit) {
    fake_dumper dumper("while :; do printf rest; sleep 0.01; done", 300);
    test_sink sink;
    dump_run run;
    ASSERT_TRUE(dump_start(some_pid, &run));
    EXPECT_EQ(capture_stderr([&] { EXPECT_GE(dump_copy_core(&run, sink.up_to(4)), 4); }), killed_line());
    EXPECT_EQ(content_of(sink.file.get()), "rest");
    dump_discard(&run);
    EXPECT_FALSE(dump_end(&run));
}

TEST_F(dump_copy, keeps_what_was_said_meanwhile_in_its_order) {
    fake_dumper dumper(say("one\ntwo\n") + "head -c 100000 /dev/zero\n" + say("three\n") + "exec >&-\n" +
                       say("four\n"));
    test_sink sink;
    dump_run run;
    ASSERT_TRUE(dump_start(some_pid, &run));
    control_text text;
    ASSERT_TRUE(dump_read_control(&run, &text));
    EXPECT_EQ(text.line(), "one\n");
    EXPECT_EQ(dump_copy_core(&run, sink.all()), 100000);
    EXPECT_EQ(capture_stderr([&] { dump_show(&run); }), "two\nthree\nfour\n");
    EXPECT_TRUE(dump_end(&run));
}

TEST_F(dump_copy, shows_all_of_a_mebibyte_of_messages) {
    fake_dumper dumper(say("line\n") + "head -c 1000000 /dev/zero >&2\nprintf core\n");
    test_sink sink;
    dump_run run;
    ASSERT_TRUE(dump_start(some_pid, &run));
    control_text text;
    ASSERT_TRUE(dump_read_control(&run, &text));
    EXPECT_EQ(dump_copy_core(&run, sink.all()), 4);
    EXPECT_EQ(capture_stderr([&] { dump_show(&run); }).size(), 1000000u);
    EXPECT_TRUE(dump_end(&run));
}

TEST_F(dump_copy, fails_at_the_control_line_when_there_is_no_process_to_run_it) {
    unique_fd limit_keeper;
    int status = run_in_child([&] {
        // Root's processes are not limited, so the fork is made to fail another way: as another user.
        rlimit none = {0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(65534) != 0) {
            return 77;
        }
        dump_run run;
        control_text text;
        bool started = dump_start(some_pid, &run);
        bool failed = run.child == -1 && !dump_read_control(&run, &text);
        dump_discard(&run);
        return started && failed && !dump_end(&run) ? 0 : 1;
    });
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "needs root to become another user";
    }
    EXPECT_TRUE(exited_with(status, 0));
}
