// The lines of system calls that reach the limits of their buffers, and of a process whose registers cannot
// be read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/trace/tracees.h"

namespace {

// Bypasses the C library's write, which a sanitizer may wrap with calls of its own.
long raw_write(int fd, const std::string& bytes) {
    return syscall(SYS_write, fd, bytes.data(), bytes.size());
}

// Traces the calls of a busy process, and kills it right before the tracer examines its stop number `stop`.
// Stop 1 is the entry of a call.
struct killed_at_a_stop {
    tracee busy{call_for_ever};
    traced_text trace{{busy.pid()}, strace_calls};
    std::string said;  // on standard error

    explicit killed_at_a_stop(int stop) {
        pid_t pid = busy.pid();
        trace.goes_on = [pid, stop](const traced_text& now) {
            if (now.polls == stop && state_of(pid) == 't') {
                kill(pid, SIGKILL);
                EXPECT_TRUE(eventually([pid] { return state_of(pid) == 'Z'; })) << state_of(pid);
            }
            return true;
        };
        said = capture_stderr([this] { capture_stdout([this] { trace.run(); }); });
        busy.was_reaped();
    }
};

}  // namespace

TEST(do_strace, too_long_line_is_reported_at_the_exit_of_the_call_only) {
    unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    int fd = null.get();
    traced_child child(
        [fd] {
            raw_write(fd, std::string(64, 'q'));
            return static_cast<int>(syscall(SYS_exit_group, 0));
        },
        strace_calls);
    child.trace.ctx.buf = static_cast<char*>(malloc(100));
    child.trace.ctx.bufsize = 100;
    const std::string message = "strace_dec_syscall: Unexpected length: ";
    std::string said = capture_stderr([&child] { child.run(); });
    EXPECT_TRUE(said.starts_with(message)) << said;
    EXPECT_EQ(said.find(message, 1), std::string::npos) << said;
    EXPECT_TRUE(child.trace.has("exit_group(0)\n")) << child.trace.text;
    child.child.end_if_left();
}

TEST(do_strace, description_of_a_descriptor_is_cut_at_127_bytes) {
    temp_dir folder;
    unique_fd file(open(folder.write_file(std::string(200, 'f'), "").c_str(), O_WRONLY | O_CLOEXEC));
    int fd = file.get();
    traced_child child(
        [fd] {
            raw_write(fd, "q");
            return 0;
        },
        strace_calls);
    child.run();
    std::string shown = folder.path(std::string(200, 'f')).substr(0, 127);
    EXPECT_TRUE(child.trace.has("write(" + std::to_string(fd) + " " + shown + ", \"q\", 1) = 1\n"))
        << child.trace.text;
    child.child.end_if_left();
}

TEST(do_strace, entry_without_registers_is_reported_and_has_no_line) {
    // Stop 3 is the entry of the second call. The registers of the first must not be used for it.
    killed_at_a_stop third(3);
    EXPECT_EQ(third.said, "strace_dec_syscall: Unexpected length: -1\n");
    EXPECT_EQ(third.trace.count("\n"), 2u) << third.trace.text;
    EXPECT_FALSE(third.trace.has(" = -1\n")) << third.trace.text;
    EXPECT_EQ(third.trace.pids[0], -1);
}

TEST(do_strace, exit_without_registers_has_the_result_minus_one) {
    killed_at_a_stop second(2);
    EXPECT_EQ(second.said, "");
    EXPECT_EQ(second.trace.count("\n"), 2u) << second.trace.text;
    EXPECT_TRUE(second.trace.text.ends_with(") = -1\n")) << second.trace.text;
    EXPECT_EQ(second.trace.pids[0], -1);
}
