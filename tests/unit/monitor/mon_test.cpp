#include "monitor/mon.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <string>

#include "proc/proc_list.h"
#include "tests/unit/monitor/fixture_tree.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr int pid = 7000000;

bool refuse_poll() {
#ifdef SYS_ppoll_time64
    return fail_calls({{SYS_ppoll, ENOMEM}, {SYS_ppoll_time64, ENOMEM}});
#else
    return fail_calls({{SYS_ppoll, ENOMEM}});
#endif
}

// `mon` on a fixture tree, in a child whose standard error is kept in memory.
class mon_child : public testing::Test {
protected:
    void SetUp() override {
        tree_.add(pid, "holder");
        tree_.set_fds(pid, {.plain = 1100});
    }
    void TearDown() override {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            wait_status(child_);
        }
    }
    void start(unsigned long interval_us, bool (*prepare)() = nullptr) {
        child_ = fork_child([&] {
            dup2(said_.get(), STDERR_FILENO);
            if (prepare && !prepare()) {
                return 1;
            }
            return mon_watch(tree_.root(), status_path_.c_str(), interval_us);
        });
    }
    int end(int sig) {
        kill(child_, sig);
        int status = wait_status(child_);
        child_ = -1;
        return status;
    }
    std::string status() const {
        unique_fd file(open(status_path_.c_str(), O_RDONLY | O_CLOEXEC));
        return file ? content_of(file.get()) : "";
    }
    bool reaches_round(const std::string& hex) const {
        return eventually([&] { return status().starts_with("Debug monitor status round=" + hex + "\n"); });
    }
    bool is_past_first_round() const {
        return eventually([&] {
            std::string now = status();
            return !now.empty() && !now.starts_with("Debug monitor status round=1\n");
        });
    }
    std::string said() const { return content_of(said_.get()); }

    temp_dir dir_;
    fixture_tree tree_;
    std::string status_path_ = dir_.path("report");
    unique_fd said_ = memory_file();
    pid_t child_ = -1;
};

}  // namespace

TEST_F(mon_child, runs_rounds_until_it_is_interrupted) {
    start(1000);
    EXPECT_TRUE(is_past_first_round());
    EXPECT_TRUE(exited_with(end(SIGINT), 0));
    EXPECT_EQ(said(), "pid 7000000 name holder fd_score 34 [+34] sk=0\n\nCleanup and exit.\n");
    EXPECT_EQ(names_in(dir_.path()), std::vector<std::string>{"report"});
}

TEST_F(mon_child, an_interrupt_ends_the_longest_sleep) {
    start(ULONG_MAX);
    EXPECT_TRUE(reaches_round("1"));
    EXPECT_TRUE(exited_with(end(SIGINT), 0));
    EXPECT_TRUE(said().ends_with("\nCleanup and exit.\n"));
    EXPECT_TRUE(status().starts_with("Debug monitor status round=1\n"));
}

TEST_F(mon_child, an_interrupt_at_any_moment_is_never_lost) {
    for (int turn = 0; turn < 30; turn++) {
        unlink(status_path_.c_str());
        start(ULONG_MAX);
        EXPECT_TRUE(reaches_round("1"));  // it is about to sleep or sleeps
        EXPECT_TRUE(exited_with(end(SIGINT), 0));
    }
}

TEST_F(mon_child, does_not_pause_at_an_interval_of_0) {
    start(0);
    EXPECT_TRUE(is_past_first_round());
    EXPECT_TRUE(exited_with(end(SIGINT), 0));
}

TEST_F(mon_child, sleeps_between_rounds) {
    start(20'000'000);
    EXPECT_TRUE(reaches_round("1"));
    usleep(50000);
    EXPECT_TRUE(status().starts_with("Debug monitor status round=1\n"));
    EXPECT_TRUE(exited_with(end(SIGINT), 0));
}

TEST_F(mon_child, can_be_interrupted_in_the_pause_after_a_failed_poll) {
    if (!exited_with(run_in_child([] { return refuse_poll() ? 0 : 1; }), 0)) {
        GTEST_SKIP() << "needs seccomp";
    }
    start(ULONG_MAX, refuse_poll);
    EXPECT_TRUE(reaches_round("1"));
    EXPECT_TRUE(eventually([this] { return proc_state(child_) == 'S'; }));
    ASSERT_TRUE(status().starts_with("Debug monitor status round=1\n"));
    EXPECT_TRUE(exited_with(end(SIGINT), 0));
    EXPECT_TRUE(said().ends_with("\nCleanup and exit.\n"));
}

TEST_F(mon_child, sigterm_kills_it_and_leaves_no_temporary_file) {
    for (int turn = 0; turn < 20; turn++) {
        start(0);
        EXPECT_TRUE(is_past_first_round());
        EXPECT_TRUE(killed_by(end(SIGTERM), SIGTERM));
        EXPECT_EQ(names_in(dir_.path()), std::vector<std::string>{"report"});
        unlink(status_path_.c_str());
    }
}
