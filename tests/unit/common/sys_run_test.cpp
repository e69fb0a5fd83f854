#include "common/sys_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/command_line.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/signals.h"

namespace {

constexpr const char* shell = "/bin/sh";

command_line script(const std::string& text) {
    return command_line({"sh", "-c", text});
}

// Runs a shell script with output to `out`. Its standard input and error are the test's own.
int run_script(const std::string& text, int out) {
    return sys_run(shell, script(text).argv(), STDIN_FILENO, out, STDERR_FILENO, 0);
}

struct run_output {
    int result = 0;
    std::string out;
    std::string err;
};

run_output run_program(const char* path, std::vector<std::string> words) {
    command_line line(std::move(words));
    test_pipe out;
    test_pipe err;
    run_output run;
    run.result = sys_run(path, line.argv(), STDIN_FILENO, out.in.get(), err.in.get(), 0);
    run.out = out.finish();
    run.err = err.finish();
    return run;
}

std::string perror_line(const std::string& call, int error) {
    return call + ": " + strerror(error) + "\n";
}

// Runs `work` in a child in which fork fails. `prepare` runs there first, while fork still works. Returns the
// child's exit status.
template <typename Prepare, typename Work>
int run_without_forks(Prepare prepare, Work work) {
    return run_in_child([&] {
        prepare();
        rlimit none = {0, 0};
        // The limit does not bind root.
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0)) {
            return 100;
        }
        return work();
    });
}

}  // namespace

TEST(sys_run, returns_the_exit_code) {
    EXPECT_EQ(run_script("exit 3", STDOUT_FILENO), 3);
    EXPECT_EQ(run_script("exit 0", STDOUT_FILENO), 0);
    EXPECT_EQ(run_script("exit 255", STDOUT_FILENO), 255);
}

TEST(sys_run, returns_0_for_a_death_by_a_signal) {
    EXPECT_EQ(run_script("kill -9 $$", STDOUT_FILENO), 0);
}

TEST(sys_run, missing_program_gives_1_and_is_reported_on_the_given_descriptor) {
    run_output run = run_program("/nowhere/to/be/found", {"found"});
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, perror_line("execve", ENOENT));
}

TEST(sys_run, file_that_is_not_a_program_gives_1_and_is_reported_on_the_given_descriptor) {
    run_output run = run_program("/", {"/"});
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.err, perror_line("execve", EACCES));
}

TEST(sys_run, path_is_not_searched_for) {
    run_output run = run_program("sh", {"sh", "-c", "exit 0"});
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.err, perror_line("execve", ENOENT));
}

TEST(sys_run, arguments_arrive_as_given) {
    run_output run =
        run_program(shell, {"sh", "-c", "for a; do echo \"<$a>\"; done", "name", "a b", "", "*"});
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.out, "<a b>\n<>\n<*>\n");
}

TEST(sys_run, environment_is_empty) {
    setenv("ZARVO_TEST_LEAK", "seen", 1);
    run_output run = run_program("/bin/cat", {"cat", "/proc/self/environ"});
    unsetenv("ZARVO_TEST_LEAK");
    EXPECT_EQ(run.result, 0) << run.err;
    EXPECT_EQ(run.out, "");
}

TEST(sys_run, env_prints_nothing) {
    if (access("/usr/bin/env", X_OK) != 0) {
        GTEST_SKIP() << "needs /usr/bin/env";
    }
    run_output run = run_program("/usr/bin/env", {"env"});
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
}

TEST(sys_run, program_gets_the_three_descriptors) {
    test_pipe in;
    test_pipe out;
    test_pipe err;
    ASSERT_EQ(write(in.in.get(), "line\n", 5), 5);
    EXPECT_EQ(sys_run(shell, script("read x; echo \"out $x\"; echo \"err $x\" >&2").argv(), in.out.get(),
                      out.in.get(), err.in.get(), 0),
              0);
    EXPECT_EQ(out.finish(), "out line\n");
    EXPECT_EQ(err.finish(), "err line\n");
}

TEST(sys_run, one_descriptor_may_serve_for_all_three) {
    test_socketpair pair;
    ASSERT_EQ(send(pair.a.get(), "line\n", 5, MSG_NOSIGNAL), 5);
    int fd = pair.b.get();
    EXPECT_EQ(sys_run(shell, script("read x; echo \"out $x\"; echo \"err $x\" >&2").argv(), fd, fd, fd, 0),
              0);
    pair.b.reset();
    EXPECT_EQ(read_all(pair.a.get()), "out line\nerr line\n");
}

TEST(sys_run, standard_descriptors_may_be_passed_as_themselves) {
    std::string out = capture_stdout([] {
        EXPECT_EQ(sys_run(shell, script("echo plain").argv(), STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 0),
                  0);
    });
    EXPECT_EQ(out, "plain\n");
}

TEST(sys_run, standard_descriptors_may_be_passed_as_each_other) {
    command_line both = script("echo out; echo err >&2");
    std::string out = capture_stdout(
        [&] { EXPECT_EQ(sys_run(shell, both.argv(), STDIN_FILENO, STDOUT_FILENO, STDOUT_FILENO, 0), 0); });
    EXPECT_EQ(out, "out\nerr\n");
    std::string err = capture_stderr(
        [&] { EXPECT_EQ(sys_run(shell, both.argv(), STDIN_FILENO, STDERR_FILENO, STDERR_FILENO, 0), 0); });
    EXPECT_EQ(err, "out\nerr\n");
}

TEST(sys_run, replaced_standard_descriptor_cannot_serve_as_an_earlier_one) {
    // All descriptors to be replaced are closed before the first one is set. This is deliberate.
    test_pipe out;
    EXPECT_EQ(sys_run(shell, script("test -e /proc/self/fd/0").argv(), STDOUT_FILENO, out.in.get(),
                      STDERR_FILENO, 0),
              1);
    EXPECT_EQ(sys_run(shell, script("test -e /proc/self/fd/0").argv(), STDOUT_FILENO, STDOUT_FILENO,
                      STDERR_FILENO, 0),
              0);
}

TEST(sys_run, caller_keeps_its_descriptors) {
    std::set<int> before = open_fds();
    test_pipe out;
    int kept = out.in.get();
    EXPECT_EQ(run_script("echo x", kept), 0);
    EXPECT_EQ(write(kept, "y", 1), 1);
    EXPECT_EQ(out.finish(), "x\ny");
    out.out.reset();
    EXPECT_EQ(open_fds(), before);
}

TEST(sys_run, given_descriptor_itself_stays_open_for_the_program) {
    test_pipe out(0);
    EXPECT_EQ(run_script("test -e /proc/self/fd/" + std::to_string(out.in.get()), out.in.get()), 0);
}

TEST(sys_run, close_on_exec_descriptors_do_not_reach_the_program) {
    test_pipe out;
    unique_fd other(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(run_script("test -e /proc/self/fd/" + std::to_string(out.in.get()), out.in.get()), 1);
    EXPECT_EQ(run_script("test -e /proc/self/fd/" + std::to_string(other.get()), out.in.get()), 1);
}

TEST(sys_run, output_ends_with_the_program) {
    test_pipe out;
    EXPECT_EQ(run_script("echo done", out.in.get()), 0);
    EXPECT_EQ(out.finish(), "done\n");  // waits for ever if a copy of the write end is still open
}

TEST(sys_run, waits_only_for_its_own_child) {
    pid_t other = fork_child([] { return 9; });
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(other), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(run_script("exit 3", STDOUT_FILENO), 3);
    EXPECT_TRUE(exited_with(wait_status(other), 9));
}

TEST(sys_run, leaves_no_child_behind) {
    EXPECT_EQ(run_script("exit 3", STDOUT_FILENO), 3);
    EXPECT_EQ(run_program("/nowhere/to/be/found", {"found"}).result, 1);
    EXPECT_TRUE(has_no_children());
}

TEST(sys_run, signal_does_not_end_the_wait) {
    scoped_signal handled(SIGUSR1, count_signal);
    test_pipe in;
    std::atomic<pid_t> tid{0};
    int result = -1;
    std::thread runner([&] {
        tid = thread_id();
        result =
            sys_run(shell, script("read x; exit 3").argv(), in.out.get(), STDOUT_FILENO, STDERR_FILENO, 0);
    });
    EXPECT_TRUE(eventually([&tid] { return tid != 0; }));
    interrupt_asleep(tid, SIGUSR1);
    interrupt_asleep(tid, SIGUSR1);
    in.in.reset();
    runner.join();
    EXPECT_EQ(result, 3);
}

TEST(sys_run, buffered_line_is_written_once_and_first) {
    test_pipe out;
    int status = run_in_child([&out] {
        dup2(out.in.get(), STDOUT_FILENO);
        printf("before\n");
        sys_run(shell, script("echo program").argv(), STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 0);
        printf("behind\n");
        return 0;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(out.finish(), "before\nprogram\nbehind\n");
}

TEST(sys_run, buffered_line_is_written_once_if_the_program_cannot_be_started) {
    test_pipe out;
    int status = run_in_child([&out] {
        dup2(out.in.get(), STDOUT_FILENO);
        dup2(out.in.get(), STDERR_FILENO);
        printf("before\n");
        return sys_run("/nowhere/to/be/found", command_line({"found"}).argv(), STDIN_FILENO, STDOUT_FILENO,
                       STDERR_FILENO, 0);
    });
    EXPECT_TRUE(exited_with(status, 1));
    EXPECT_EQ(out.finish(), "before\n" + perror_line("execve", ENOENT));
}

TEST(sys_run, exit_handlers_of_the_caller_do_not_run_in_the_child) {
    test_pipe out;
    int status = run_in_child([&out] {
        static int handler_fd;
        handler_fd = out.in.get();
        atexit([] { (void)!write(handler_fd, "handler", 7); });
        return sys_run("/nowhere/to/be/found", command_line({"found"}).argv(), STDIN_FILENO, STDOUT_FILENO,
                       handler_fd, 0);
    });
    EXPECT_TRUE(exited_with(status, 1));
    EXPECT_EQ(out.finish(), perror_line("execve", ENOENT));
}

TEST(sys_run, waits_for_a_traced_program_until_its_first_stop) {
    // The stop's signal is in the place of an exit code. The program is resumed when its tracer ends.
    int status = run_in_child([] {
        return sys_run(shell, script("exit 3").argv(), STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 1);
    });
    EXPECT_TRUE(exited_with(status, SIGTRAP)) << status;
}

TEST(sys_run, failed_fork_without_a_child_returns_0) {
    test_pipe err;
    int status = run_without_forks([] {},
                                   [&err] {
                                       dup2(err.in.get(), STDERR_FILENO);
                                       return run_script("exit 3", STDOUT_FILENO);
                                   });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(err.finish(), perror_line("fork", EAGAIN));
}

TEST(sys_run, failed_fork_waits_for_any_child_of_the_caller) {
    test_pipe err;
    int status = run_without_forks([] { fork_child([] { return 7; }); },
                                   [&err] {
                                       dup2(err.in.get(), STDERR_FILENO);
                                       return run_script("exit 3", STDOUT_FILENO);
                                   });
    EXPECT_TRUE(exited_with(status, 7)) << status;
    EXPECT_EQ(err.finish(), perror_line("fork", EAGAIN));
}

TEST(sys_run_nowait, returns_while_the_program_still_runs) {
    test_pipe in;
    pid_t pid =
        sys_run_nowait(shell, script("read x; exit 4").argv(), in.out.get(), STDOUT_FILENO, STDERR_FILENO, 0);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
    in.in.reset();
    EXPECT_TRUE(exited_with(wait_status(pid), 4));
}

TEST(sys_run_nowait, environment_is_empty) {
    test_pipe out;
    pid_t pid = sys_run_nowait("/bin/cat", command_line({"cat", "/proc/self/environ"}).argv(), STDIN_FILENO,
                               out.in.get(), STDERR_FILENO, 0);
    EXPECT_TRUE(exited_with(wait_status(pid), 0));
    EXPECT_EQ(out.finish(), "");
}

TEST(sys_run_nowait, program_that_cannot_be_started_still_has_a_pid) {
    test_pipe err;
    pid_t pid = sys_run_nowait("/nowhere/to/be/found", command_line({"found"}).argv(), STDIN_FILENO,
                               STDOUT_FILENO, err.in.get(), 0);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(exited_with(wait_status(pid), 1));
    EXPECT_EQ(err.finish(), perror_line("execve", ENOENT));
}

TEST(sys_run_nowait, returns_minus_1_if_fork_fails) {
    test_pipe err;
    int status = run_without_forks([] {},
                                   [&err] {
                                       dup2(err.in.get(), STDERR_FILENO);
                                       pid_t pid =
                                           sys_run_nowait(shell, script("exit 3").argv(), STDIN_FILENO,
                                                          STDOUT_FILENO, STDERR_FILENO, 0);
                                       return pid == -1 ? 0 : 1;
                                   });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(err.finish(), perror_line("fork", EAGAIN));
}

TEST(sys_run_nowait, traced_program_stops_at_its_execve) {
    test_pipe out;
    pid_t pid = sys_run_nowait(shell, script("echo ran; exit 5").argv(), STDIN_FILENO, out.in.get(),
                               STDERR_FILENO, 1);
    ASSERT_GT(pid, 0);
    int status = wait_status(pid);
    ASSERT_TRUE(WIFSTOPPED(status)) << status;
    EXPECT_EQ(WSTOPSIG(status), SIGTRAP);
    set_nonblocking(out.out.get());
    char byte;
    EXPECT_EQ(read(out.out.get(), &byte, 1), -1) << "the program ran before its tracer resumed it";
    ASSERT_EQ(ptrace(PTRACE_CONT, pid, nullptr, nullptr), 0);
    EXPECT_TRUE(exited_with(wait_status(pid), 5));
    EXPECT_EQ(out.finish(), "ran\n");
}

TEST(sys_run_nowait, traced_child_is_not_left_stopped_if_its_parent_dies_first) {
    // The process that adopts the orphan would be its tracer: here, this one.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    int stopped = 0;
    for (int i = 0; i < 50; i++) {
        test_pipe report;
        run_in_child([&report] {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
            sched_setaffinity(0, sizeof one, &one);  // the parent ends before the child has begun
            char program[] = "/bin/true";
            char* argv[] = {program, nullptr};
            pid_t pid = sys_run_nowait(program, argv, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 1);
            (void)!write(report.in.get(), &pid, sizeof pid);
            _exit(0);
            return 0;
        });
        pid_t orphan = -1;
        ASSERT_EQ(read(report.out.get(), &orphan, sizeof orphan), static_cast<ssize_t>(sizeof orphan));
        int status = 0;
        ASSERT_EQ(waitpid(orphan, &status, WUNTRACED), orphan);
        if (WIFSTOPPED(status)) {
            stopped++;
            kill(orphan, SIGKILL);
            waitpid(orphan, &status, 0);
        }
    }
    EXPECT_EQ(stopped, 0);
    EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
}

TEST(sys_run_nowait, program_without_a_tracer_does_not_stop) {
    pid_t pid = sys_run_nowait(shell, script("exit 5").argv(), STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 0);
    EXPECT_TRUE(exited_with(wait_status(pid), 5));
}

TEST(sys_run_envp_nowait, program_gets_the_given_environment) {
    test_pipe out;
    pid_t pid = sys_run_envp_nowait("/bin/cat", command_line({"cat", "/proc/self/environ"}).argv(),
                                    command_line({"A=1", "LONG=two words"}).argv(), STDIN_FILENO,
                                    out.in.get(), STDERR_FILENO, 0);
    EXPECT_TRUE(exited_with(wait_status(pid), 0));
    EXPECT_EQ(out.finish(), std::string("A=1\0LONG=two words\0", 19));
}

TEST(sys_run_envp_nowait, traced_program_stops_at_its_execve) {
    pid_t pid = sys_run_envp_nowait(shell, script("exit 6").argv(), command_line({}).argv(), STDIN_FILENO,
                                    STDOUT_FILENO, STDERR_FILENO, 1);
    int status = wait_status(pid);
    ASSERT_TRUE(WIFSTOPPED(status)) << status;
    ASSERT_EQ(ptrace(PTRACE_CONT, pid, nullptr, nullptr), 0);
    EXPECT_TRUE(exited_with(wait_status(pid), 6));
}

TEST(sys_run_envp_nowait, returns_minus_1_if_fork_fails) {
    test_pipe err;
    int status = run_without_forks([] {},
                                   [&err] {
                                       dup2(err.in.get(), STDERR_FILENO);
                                       pid_t pid = sys_run_envp_nowait(
                                           shell, script("exit 3").argv(), command_line({"A=1"}).argv(),
                                           STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 0);
                                       return pid == -1 ? 0 : 1;
                                   });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(err.finish(), perror_line("fork", EAGAIN));
}

TEST(sys_wait_end, gives_the_wait_status_of_the_end) {
    int status = -1;
    pid_t exits = fork_child([] { return 7; });
    EXPECT_EQ(sys_wait_end(exits, &status, 0), exits);
    EXPECT_TRUE(exited_with(status, 7));
    pid_t dies = fork_child([] {
        forbid_core_files();
        raise(SIGABRT);
        return 0;
    });
    EXPECT_EQ(sys_wait_end(dies, &status, 0), dies);
    EXPECT_TRUE(killed_by(status, SIGABRT));
    EXPECT_TRUE(has_no_children());
}

TEST(sys_wait_end, with_wnohang_returns_0_for_a_running_child) {
    test_pipe gate;
    pid_t pid = fork_child([&gate] {
        gate.in.reset();
        char byte;
        (void)!read(gate.out.get(), &byte, 1);
        return 7;
    });
    int status = -1;
    EXPECT_EQ(sys_wait_end(pid, &status, WNOHANG), 0);
    gate.in.reset();
    pid_t got = 0;
    EXPECT_TRUE(eventually([&] { return (got = sys_wait_end(pid, &status, WNOHANG)) != 0; }));
    EXPECT_EQ(got, pid);
    EXPECT_TRUE(exited_with(status, 7));
}

TEST(sys_wait_end, returns_minus_1_without_such_a_child) {
    pid_t gone = fork_child([] { return 0; });
    wait_status(gone);
    for (int flags : {0, WNOHANG}) {
        int status = -1;
        for (pid_t pid : {gone, getpid(), getppid()}) {
            EXPECT_EQ(sys_wait_end(pid, &status, flags), -1);
            EXPECT_EQ(errno, ECHILD);
        }
    }
}

TEST(sys_wait_end, signal_does_not_end_the_wait) {
    scoped_signal handled(SIGUSR1, count_signal);
    test_pipe gate;
    std::atomic<pid_t> tid{0};
    std::atomic<pid_t> child{0};
    pid_t got = 0;
    int status = -1;
    std::thread waiter([&] {
        child = fork_child([&gate] {
            gate.in.reset();
            char byte;
            (void)!read(gate.out.get(), &byte, 1);
            return 7;
        });
        tid = thread_id();
        got = sys_wait_end(child, &status, 0);
    });
    EXPECT_TRUE(eventually([&tid] { return tid != 0; }));
    interrupt_asleep(tid, SIGUSR1);
    interrupt_asleep(tid, SIGUSR1);
    gate.in.reset();
    waiter.join();
    EXPECT_EQ(got, child);
    EXPECT_TRUE(exited_with(status, 7));
}

namespace {

constexpr int tracer_wait_flags = __WALL | __WNOTHREAD;

// Waits for the next stop of this thread's tracee. Returns its signal, or 0 if it does not stop.
int next_stop(pid_t pid) {
    int status = 0;
    bool came = eventually([&] { return waitpid(pid, &status, WNOHANG | tracer_wait_flags) == pid; });
    return came && WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
}

// Traces a child of another thread through `stops` stops by SIGUSR1, which is not delivered to it, and
// resumes it. Calls `begun` when the child is traced. Returns the number of stops seen.
template <typename Begun>
int trace_stops(pid_t pid, int stops, Begun begun) {
    EXPECT_EQ(ptrace(PTRACE_ATTACH, pid, nullptr, nullptr), 0);
    EXPECT_EQ(next_stop(pid), SIGSTOP);
    begun();
    int seen = 0;
    while (ptrace(PTRACE_CONT, pid, nullptr, nullptr) == 0 && seen < stops && next_stop(pid) == SIGUSR1) {
        seen++;
    }
    if (seen < stops) {
        kill(pid, SIGKILL);
    }
    return seen;
}

}  // namespace

TEST(sys_wait_end, leaves_stops_to_another_thread_that_traces_the_child) {
    constexpr int stops = 30;
    test_pipe gate;
    pid_t pid = fork_child([&gate] {
        gate.in.reset();
        char byte;
        (void)!read(gate.out.get(), &byte, 1);
        for (int i = 0; i < stops; i++) {
            raise(SIGUSR1);
        }
        return 7;
    });
    int seen = -1;
    std::thread tracer([&] { seen = trace_stops(pid, stops, [&gate] { gate.in.reset(); }); });
    int status = -1;
    EXPECT_EQ(sys_wait_end(pid, &status, 0), pid);
    tracer.join();
    EXPECT_EQ(seen, stops);
    EXPECT_TRUE(exited_with(status, 7)) << status;
}

TEST(sys_wait_end, with_wnohang_returns_0_for_a_child_stopped_for_its_tracer) {
    pid_t pid = fork_child([] {
        for (;;) {
            pause();
        }
        return 0;
    });
    std::atomic<bool> stopped{false};
    test_pipe looked;
    std::thread tracer([&] {
        EXPECT_EQ(ptrace(PTRACE_ATTACH, pid, nullptr, nullptr), 0);
        siginfo_t info = {};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT | tracer_wait_flags), 0);
        stopped = true;
        char byte;
        (void)!read(looked.out.get(), &byte, 1);
        EXPECT_EQ(next_stop(pid), SIGSTOP);
    });
    EXPECT_TRUE(eventually([&stopped] { return stopped.load(); }));
    int status = -1;
    EXPECT_EQ(sys_wait_end(pid, &status, WNOHANG), 0);
    looked.in.reset();
    tracer.join();
    kill(pid, SIGKILL);
    EXPECT_TRUE(killed_by(wait_status(pid), SIGKILL));
}
