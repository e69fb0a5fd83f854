#include "app/test_applets.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/children.h"
#include "tests/unit/support/command_line.h"
#include "tests/unit/support/pipes.h"

namespace {

using applet = int (*)(int argc, char** argv);
using words = std::vector<std::string>;

struct applet_run {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs an applet in a child whose output is captured. `prepare` runs in the child first.
template <typename Prepare>
applet_run run_applet(applet run, const words& argv, Prepare prepare) {
    test_pipe out;
    test_pipe err;
    applet_run result;
    result.status = run_in_child([&] {
        dup2(out.in.get(), STDOUT_FILENO);
        dup2(err.in.get(), STDERR_FILENO);
        prepare();
        return call_applet(run, argv);
    });
    result.out = out.finish();
    result.err = err.finish();
    return result;
}

}  // namespace

TEST(ctest_applet, writes_its_line_and_exits_with_zero) {
    applet_run got = run_applet(run_ctest, {"ctest", "ignored"}, [] {});
    EXPECT_TRUE(exited_with(got.status, 0)) << got.status;
    EXPECT_EQ(got.out, "call exit\n");
    EXPECT_EQ(got.err, "");
}

TEST(ctest_applet, exit_handlers_run) {
    applet_run got =
        run_applet(run_ctest, {"ctest"}, [] { atexit([] { (void)!write(STDERR_FILENO, "handler", 7); }); });
    EXPECT_TRUE(exited_with(got.status, 0)) << got.status;
    EXPECT_EQ(got.out, "call exit\n");
    EXPECT_EQ(got.err, "handler");
}

TEST(segfault_applet, dies_by_sigsegv) {
    applet_run got = run_applet(run_segfault, {"segfault"}, [] {
        forbid_core_files();
        signal(SIGSEGV, SIG_DFL);
    });
    EXPECT_TRUE(killed_by(got.status, SIGSEGV)) << got.status;
    EXPECT_EQ(got.out, "");
}

namespace {

// Closes all descriptors but 0 to 2, and allows `room` descriptors in all.
void limit_descriptors(unsigned room) {
    closefrom(3);
    rlimit limit = {room, room};
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Runs fdleak to its end with at most `room` descriptors. An exit handler then writes the kinds of the open
// descriptors to standard error, in the order of their numbers: "s" for a socket, "n" for /dev/null.
applet_run run_fdleak_to_its_end(unsigned room, const words& argv) {
    return run_applet(run_fdleak, argv, [room] {
        limit_descriptors(room);
        atexit([] {
            std::string kinds = "left ";
            for (int fd = 3; fd < 1000; fd++) {
                char link[64] = "";
                std::string path = "/proc/self/fd/" + std::to_string(fd);
                if (readlink(path.c_str(), link, sizeof link - 1) > 0) {
                    kinds += strncmp(link, "socket:", 7) == 0 ? 's'
                             : strcmp(link, "/dev/null") == 0 ? 'n'
                                                              : '?';
                }
            }
            (void)!write(STDERR_FILENO, kinds.data(), kinds.size());
            closefrom(3);  // code that runs later at the exit needs descriptors
        });
    });
}

std::string repeated(const std::string& text, int times) {
    std::string all;
    for (int i = 0; i < times; i++) {
        all += text;
    }
    return all;
}

const std::string out_of_descriptors = std::string("open: ") + strerror(EMFILE) + "\n";

}  // namespace

TEST(fdleak_applet, leaks_until_descriptors_run_out) {
    applet_run got = run_fdleak_to_its_end(64, {"fdleak"});
    EXPECT_TRUE(exited_with(got.status, 0)) << got.status;
    EXPECT_EQ(got.out, "leaked 16\nleaked 32\nleaked 48\n");
    // 61 were free. Sockets and /dev/null were opened in turn, and none was closed.
    EXPECT_EQ(got.err, out_of_descriptors + "left " + repeated("sn", 30) + "s");
}

TEST(fdleak_applet, reports_the_same_error_if_a_socket_fails) {
    applet_run got = run_fdleak_to_its_end(23, {"fdleak"});
    EXPECT_TRUE(exited_with(got.status, 0)) << got.status;
    EXPECT_EQ(got.out, "leaked 16\n");
    EXPECT_EQ(got.err, out_of_descriptors + "left " + repeated("sn", 10));
}

TEST(fdleak_applet, counts_a_multiple_of_16_just_before_the_end) {
    EXPECT_EQ(run_fdleak_to_its_end(3 + 15, {"fdleak"}).out, "");
    EXPECT_EQ(run_fdleak_to_its_end(3 + 16, {"fdleak"}).out, "leaked 16\n");
}

TEST(fdleak_applet, pauses_for_the_interval_in_any_base) {
    // 20 pauses of 8 ms each, in three notations. Text that is not a number means no pause.
    for (const char* interval : {"8000", "0x1f40", "017500"}) {
        auto start = std::chrono::steady_clock::now();
        applet_run got = run_fdleak_to_its_end(23, {"fdleak", interval});
        auto took = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(exited_with(got.status, 0)) << got.status;
        EXPECT_EQ(got.out, "leaked 16\n");
        EXPECT_GE(took, std::chrono::milliseconds(160)) << interval;
    }
    EXPECT_EQ(run_fdleak_to_its_end(23, {"fdleak", "soon"}).out, "leaked 16\n");
}

namespace {

// A fork bomb in a process group of its own, kept within bounds: its output is a pipe that nobody empties and
// that has space for `lines_room` lines with a one-digit number. Each process blocks when it prints into the
// full pipe. The destructor kills and reaps the whole group.
class bomb {
public:
    bomb(const words& argv, int lines_room) {
        // The orphans of the bomb's first process become our children, so that we can reap them.
        EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
        leave_room_for(lines_room);
        pid_ = fork_child([&] {
            setpgid(0, 0);
            // If the test dies, its pipe has no reader, and the next write kills the process.
            signal(SIGPIPE, SIG_DFL);
            dup2(out_.in.get(), STDOUT_FILENO);
            out_.in.reset();
            out_.out.reset();
            return call_applet(run_forkbomb, argv);
        });
        setpgid(pid_, pid_);  // also set by the child; either may be first
        out_.in.reset();
        guard();
    }
    bomb(const bomb&) = delete;
    bomb& operator=(const bomb&) = delete;
    ~bomb() {
        stop();
        EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0), 0);
    }

    // Waits until `line` has been printed `times` times.
    bool prints(const std::string& line, int times) {
        return eventually([&] { return count(lines_so_far(), line) >= times; });
    }
    // Waits until the pipe is full.
    bool fills_its_room() {
        return eventually([&] {
            int waiting = 0;
            EXPECT_EQ(ioctl(out_.out.get(), FIONREAD, &waiting), 0);
            return waiting == pipe_size;
        });
    }
    // Kills and reaps the group; returns how many processes it had.
    int stop() {
        if (pid_ <= 0) {
            return reaped_;
        }
        EXPECT_EQ(killpg(pid_, SIGKILL), 0);
        life_line_.reset();
        wait_status(guardian_);
        int status;
        pid_t got;
        while ((got = waitpid(-pid_, &status, 0)) > 0 || errno == EINTR) {
            if (got > 0) {
                reaped_++;
                EXPECT_TRUE(killed_by(status, SIGKILL)) << "a process ended by itself: " << status;
            }
        }
        pid_ = 0;
        return reaped_;
    }
    // The lines printed so far, in order. They stay in the pipe, so they still use up its space.
    words lines_so_far() const {
        test_pipe copy;
        EXPECT_GE(tee(out_.out.get(), copy.in.get(), pipe_size, SPLICE_F_NONBLOCK), 0);
        std::istringstream text(copy.finish().substr(filler_));
        words all;
        for (std::string line; std::getline(text, line);) {
            all.push_back(line);
        }
        return all;
    }
    static int count(const words& lines, const std::string& line) {
        return static_cast<int>(std::count(lines.begin(), lines.end(), line));
    }

private:
    // Starts a process that kills the bomb if the test itself is killed.
    void guard() {
        test_pipe line;
        guardian_ = fork_child([&] {
            line.in.reset();
            out_.out.reset();
            read_all(line.out.get());
            killpg(pid_, SIGKILL);
            return 0;
        });
        life_line_ = std::move(line.in);
    }
    void leave_room_for(int lines_room) {
        ASSERT_EQ(fcntl(out_.in.get(), F_SETPIPE_SZ, pipe_size), pipe_size);
        filler_ = pipe_size - static_cast<size_t>(lines_room) * strlen("forks 1\n");
        std::string filler(filler_, '.');
        ASSERT_EQ(write(out_.in.get(), filler.data(), filler.size()), static_cast<ssize_t>(filler.size()));
    }

    static constexpr int pipe_size = 4096;
    test_pipe out_;
    size_t filler_ = 0;
    pid_t pid_ = 0;
    pid_t guardian_ = 0;
    unique_fd life_line_;
    int reaped_ = 0;
};

}  // namespace

TEST(forkbomb_applet, forks_as_fast_as_it_can_while_every_child_sleeps) {
    bomb storm({"forkbomb"}, 9);
    EXPECT_TRUE(storm.fills_its_room());
    int processes = storm.stop();
    EXPECT_EQ(storm.lines_so_far(), (words{"forks 1", "forks 2", "forks 3", "forks 4", "forks 5", "forks 6",
                                           "forks 7", "forks 8", "forks 9"}));
    // The first process, nine children, and perhaps a tenth, forked before the kill.
    EXPECT_GE(processes, 10);
    EXPECT_LE(processes, 11);
}

TEST(forkbomb_applet, text_that_is_not_a_number_means_zero) {
    // No pause, and a depth of 0, with which all children sleep too.
    bomb storm({"forkbomb", "fast", "deep"}, 9);
    EXPECT_TRUE(storm.fills_its_room());
    int processes = storm.stop();
    EXPECT_EQ(storm.lines_so_far().size(), 9u);
    EXPECT_EQ(bomb::count(storm.lines_so_far(), "forks 9"), 1);
    EXPECT_GE(processes, 10);
    EXPECT_LE(processes, 11);
}

TEST(forkbomb_applet, pauses_for_the_interval_in_any_base) {
    for (const char* interval : {"30000", "0x7530", "072460"}) {
        auto start = std::chrono::steady_clock::now();
        bomb storm({"forkbomb", interval}, 9);
        EXPECT_TRUE(storm.prints("forks 4", 1));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90)) << interval;
    }
}

// In round k, each process that keeps forking prints "forks k" once: the first process, its children if they
// keep forking, and so on down the generations.

TEST(forkbomb_applet, with_depth_2_the_first_children_fork_too) {
    bomb storm({"forkbomb", "100000", "2"}, 60);
    EXPECT_TRUE(storm.prints("forks 3", 4));
    storm.stop();
    words lines = storm.lines_so_far();
    EXPECT_EQ(bomb::count(lines, "forks 1"), 2);
    EXPECT_EQ(bomb::count(lines, "forks 2"), 3);
    EXPECT_EQ(bomb::count(lines, "forks 3"), 4);
}

TEST(forkbomb_applet, with_depth_3_one_more_generation_forks) {
    bomb storm({"forkbomb", "100000", "0x3"}, 60);
    EXPECT_TRUE(storm.prints("forks 4", 11));
    storm.stop();
    words lines = storm.lines_so_far();
    EXPECT_EQ(bomb::count(lines, "forks 1"), 2);
    EXPECT_EQ(bomb::count(lines, "forks 2"), 4);
    EXPECT_EQ(bomb::count(lines, "forks 3"), 7);
    EXPECT_EQ(bomb::count(lines, "forks 4"), 11);
}
