#include "monitor/monitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/monitor/monitor_round.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/effort.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using names = std::vector<std::string>;
using monitor_status = monitor_round;
using monitor_end = monitor_round;

// The state letter of a process.
char state_of(pid_t process) {
    std::string path = "/proc/" + std::to_string(process) + "/stat";
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text = content_of(file.get());
    size_t mark = text.rfind(") ");
    return mark == std::string::npos || mark + 2 >= text.size() ? '?' : text[mark + 2];
}

}  // namespace

TEST_F(monitor_status, begins_with_the_round_in_hexadecimal) {
    round();
    EXPECT_EQ(status(), "Debug monitor status round=1\n\n");
    rounds(30);
    EXPECT_EQ(status(), "Debug monitor status round=1f\n\n");
}

TEST_F(monitor_status, keeps_history_and_children_when_the_round_wraps) {
    m->round = UINT32_MAX - 1;
    tree.add(pid, "parent");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "parent", 34, "+34", 0));
    EXPECT_EQ(status().substr(0, 38), "Debug monitor status round=fffffffe\n\nf");
    set_children(pid, 16);
    EXPECT_EQ(round(), fork_line(pid, "parent", 16, "+16"));
    EXPECT_EQ(status().substr(0, 38), "Debug monitor status round=ffffffff\n\nf");
    EXPECT_EQ(round(), "");  // 0, which shifts the averages
    EXPECT_EQ(status(), "Debug monitor status round=0\n\nfdstats for pid=7000000 score=34:\n" +
                            history_lines({1100, 1100, 1100, 0, 825, 550, 0, 0}) + fork_stats(pid, 16));
    set_children(pid, 17);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status(), "Debug monitor status round=1\n\nfdstats for pid=7000000 score=34:\n" +
                            history_lines({1100, 1100, 1100, 1100, 1100, 550, 0, 0}) + fork_stats(pid, 17));
    tree.remove(pid);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(known(), 17U);
}

TEST_F(monitor_status, has_descriptors_before_children_of_one_process) {
    tree.add(pid, "both");
    round();
    set_children(pid, 16);
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "both", 34, "+34", 0) + fork_line(pid, "both", 16, "+16"));
    EXPECT_EQ(status_body(), "fdstats for pid=7000000 score=34:\n" +
                                 history_lines({1100, 0, 0, 0, 275, 0, 0, 0}) + fork_stats(pid, 16));
}

TEST_F(monitor_status, is_the_only_file) {
    rounds(5);
    EXPECT_EQ(names_in(status_folder().path()), names{"status.txt"});
}

TEST_F(monitor_status, is_missing_without_a_path) {
    temp_dir dir;
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    monitor* silent = monitor_create_at(tree.root(), nullptr);
    EXPECT_EQ(capture_stderr([&] { monitor_run(silent); }), fd_line(pid, "holder", 34, "+34", 0));
    EXPECT_EQ(silent->round, 2U);
    monitor_destroy(silent);
    EXPECT_EQ(names_in(status_folder().path()), names{});
}

TEST_F(monitor_status, in_a_missing_folder_is_skipped) {
    temp_dir dir;
    std::string path = dir.path("gone/status");
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    monitor* lost = monitor_create_at(tree.root(), path.c_str());
    EXPECT_EQ(capture_stderr([&] { monitor_run(lost); }), fd_line(pid, "holder", 34, "+34", 0));
    EXPECT_EQ(names_in(dir.path()), names{});
    dir.make_folder("gone");  // the next round tries again
    EXPECT_EQ(capture_stderr([&] { monitor_run(lost); }), "");
    EXPECT_EQ(names_in(dir.path("gone")), names{"status"});
    monitor_destroy(lost);
}

TEST_F(monitor_status, is_always_complete_for_a_concurrent_reader) {
    for (int i = 0; i < 60; i++) {
        tree.add(pid + i, "holder");
        tree.set_fds(pid + i, {.sockets = 40 * 8});
    }
    round();
    // Each file has 60 blocks; only the heading and three numbers of each block change.
    const std::string last = "103h nr_fd=0 nr_sock=0 nr_pipe=0\n";
    std::atomic<bool> done{false};
    std::atomic<int> whole{0};
    std::atomic<int> broken{0};
    std::thread reader([&] {
        while (!done) {
            std::string seen = status();
            size_t blocks = 0;
            for (size_t at = 0; (at = seen.find("fdstats", at)) != std::string::npos; at++) {
                blocks++;
            }
            bool is_whole = seen.starts_with("Debug monitor status round=") && seen.ends_with(last);
            (is_whole && blocks == 60 ? whole : broken)++;
        }
    });
    for (int i = 0; i < effort(25, 8); i++) {
        monitor_run(m);
    }
    EXPECT_TRUE(eventually([&] { return whole > 100; }, std::chrono::seconds(60)));
    done = true;
    reader.join();
    EXPECT_EQ(broken, 0);
}

TEST_F(monitor_status, stays_the_earlier_file_if_the_round_is_killed) {
    tree.add(pid, "holder");
    round();
    const std::string earlier = status();
    // The stat line of the last process cannot be opened until the pipe has a writer.
    tree.add(other, "slow");
    tree.erase(other, "stat");
    std::string gate = tree.path(std::to_string(other) + "/stat");
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    pid_t child = fork_child([&] {
        monitor_run(m);
        return 0;
    });
    // Nothing else in a round sleeps interruptibly.
    EXPECT_TRUE(eventually([&] { return state_of(child) == 'S'; }));
    kill(child, SIGKILL);
    EXPECT_TRUE(killed_by(wait_status(child), SIGKILL));
    EXPECT_EQ(status(), earlier);
    EXPECT_EQ(names_in(status_folder().path()), names{"status.txt"});
}

TEST_F(monitor_end, destroy_frees_all_records_and_accepts_null) {
    monitor_destroy(nullptr);
    for (int i = 0; i < 50; i++) {
        tree.add(pid + i, "many");
    }
    size_t before = mallinfo2().uordblks;
    monitor* brief = monitor_create_at(tree.root(), nullptr);
    monitor_run(brief);
    EXPECT_EQ(brief->table->count, 50U);
    monitor_destroy(brief);
    EXPECT_LE(mallinfo2().uordblks, before + 4096);
}

TEST(monitor_thread, ends_with_a_message_if_it_may_not_become_idle) {
    int status = 0;
    std::string said = capture_stderr([&] {
        status = run_in_child([] {
            if (!fail_calls({{SYS_sched_setscheduler, EPERM}})) {
                return 77;
            }
            return monitor_thread_run(nullptr) == nullptr ? 0 : 1;
        });
    });
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "needs seccomp";
    }
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(said, "setschedparam: Operation not permitted\n");
}
