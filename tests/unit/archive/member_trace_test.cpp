#include "archive/member_trace.h"

#include <ctype.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"
#include "tests/unit/trace/timed_text.h"

namespace {

// A child that sleeps until its parent closes the pipe.
class idle_child {
public:
    idle_child() {
        pid_ = fork_child([this] {
            gate_.in.reset();
            char nothing;
            (void)!read(gate_.out.get(), &nothing, 1);
            return 0;
        });
    }
    idle_child(const idle_child&) = delete;
    idle_child& operator=(const idle_child&) = delete;
    ~idle_child() { EXPECT_TRUE(exited_with(end(), 0)); }

    pid_t pid() const { return pid_; }

private:
    int end() {
        gate_.in.reset();
        return wait_status(pid_);
    }
    test_pipe gate_;
    pid_t pid_ = -1;
};

// A child that makes system calls without end.
class busy_child {
public:
    busy_child()
        : pid_(fork_child([] {
              for (;;) {
                  getppid();
              }
              return 0;
          })) {}
    busy_child(const busy_child&) = delete;
    busy_child& operator=(const busy_child&) = delete;
    ~busy_child() {
        kill(pid_, SIGKILL);
        EXPECT_TRUE(killed_by(wait_status(pid_), SIGKILL));
    }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

using clock_type = std::chrono::steady_clock;

// Expects that the trace ended well before its time limit.
void expect_early(clock_type::time_point begun) {
    EXPECT_LT(clock_type::now() - begun, std::chrono::seconds(strace_seconds - 1));
}

// Traces a busy child into `fd`, to which writes fail. Returns the messages.
std::string report_of_broken_output(int fd) {
    busy_child child;
    const int pids[] = {child.pid()};
    tar_handle* t = tar_new(fd, nullptr);
    int result = -1;
    clock_type::time_point begun = clock_type::now();
    std::string messages = capture_stderr([&] { result = stream_strace_log(t, pids, 1); });
    expect_early(begun);
    EXPECT_EQ(result, 1);
    tar_abandon(t);
    return messages;
}

// The member with the trace of a child that calls getppid and ends with status 5. Its read of the gate may
// end while the trace attaches, and is then not traced.
std::string trace_of_a_short_life(bool timed) {
    test_pipe gate;
    pid_t pid = fork_child([&gate] {
        gate.in.reset();
        char nothing;
        (void)!read(gate.out.get(), &nothing, 1);
        (void)getppid();
        return 5;
    });
    std::thread opener([&gate, pid] {
        const std::string traced_by = "\nTracerPid:\t";
        EXPECT_TRUE(eventually([&] {
            std::ifstream file("/proc/" + std::to_string(pid) + "/status");
            std::string status(std::istreambuf_iterator<char>(file), {});
            size_t at = status.find(traced_by);
            return at != std::string::npos && status[at + traced_by.size()] != '0';
        }));
        gate.in.reset();
    });
    const int pids[] = {pid};
    test_archive archive;
    EXPECT_EQ(stream_strace_log(archive.handle(), pids, 1, timed), 0);
    opener.join();
    EXPECT_TRUE(exited_with(wait_status(pid), 5));
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.entries.size(), 1u);
    return listing.entries.at(0).data;
}

}  // namespace

TEST(stream_strace_log, budget_is_204800_bytes_and_5_seconds) {
    EXPECT_EQ(strace_budget, 204800);
    EXPECT_EQ(strace_seconds, 5);
}

TEST(stream_strace_log, trace_of_no_process_is_filler_lines) {
    test_archive archive("top/");
    EXPECT_EQ(stream_strace_log(archive.handle(), nullptr, 0), 0);
    EXPECT_EQ(archive.bytes().size(), 512u + 204800u);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), std::vector<std::string>{"top/strace.log"});
    EXPECT_EQ(listing.entries[0].size, 204800u);
    EXPECT_TRUE(listing.entries[0].data == filler(204800));
}

TEST(stream_strace_log, skips_removed_pids) {
    test_archive archive;
    const int pids[] = {-1, -1, -1};
    EXPECT_EQ(stream_strace_log(archive.handle(), pids, 3), 0);
    tar_listing listing = archive.finish();
    ASSERT_EQ(listing.entries.size(), 1u);
    EXPECT_TRUE(listing.entries[0].data == filler(204800));
}

TEST(stream_strace_log, does_not_change_the_list_of_pids) {
    idle_child child;
    pid_t ended = fork_child([] { return 0; });
    EXPECT_TRUE(exited_with(wait_status(ended), 0));
    std::vector<int> pids = {-1, child.pid(), ended, -1};
    const std::vector<int> before = pids;
    test_archive archive;
    EXPECT_EQ(stream_strace_log(archive.handle(), pids.data(), static_cast<int>(pids.size())), 0);
    EXPECT_EQ(pids, before);
}

TEST(stream_strace_log, member_is_text_of_exactly_the_promised_size) {
    idle_child child;
    const int pids[] = {child.pid()};
    test_archive archive;
    EXPECT_EQ(stream_strace_log(archive.handle(), pids, 1), 0);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.entries.size(), 1u);
    const std::string& text = listing.entries[0].data;
    EXPECT_EQ(text.size(), 204800u);
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) {
        return c == '\n' || c == '\t' || isprint(static_cast<unsigned char>(c));
    }));
}

TEST(stream_strace_log, next_member_follows_directly) {
    test_archive archive;
    EXPECT_EQ(stream_strace_log(archive.handle(), nullptr, 0), 0);
    tar_addfile(archive.handle(), "next", 0);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    EXPECT_EQ(listing.names(), (std::vector<std::string>{"strace.log", "next"}));
}

TEST(stream_strace_log, skips_the_member_if_memory_runs_out) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    test_archive archive;
    int status = run_in_child([&] {
        constexpr size_t less_than_a_log = 65536;
        scoped_memory_shortage shortage(less_than_a_log);
        return stream_strace_log(archive.handle(), nullptr, 0);
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(archive.bytes(), "");
}

TEST(stream_strace_log, does_not_report_broken_output_without_a_trace) {
    ignore_broken_pipes();
    test_pipe broken;
    broken.out.reset();
    tar_handle* t = tar_new(broken.in.get(), nullptr);
    int result = -1;
    EXPECT_EQ(capture_stderr([&] { result = stream_strace_log(t, nullptr, 0); }), "");
    EXPECT_EQ(result, 0);
    tar_abandon(t);
}

TEST(stream_strace_log, broken_output_ends_the_trace_and_is_reported) {
    ignore_broken_pipes();
    test_pipe broken;
    broken.out.reset();
    EXPECT_EQ(report_of_broken_output(broken.in.get()), "stream_strace_log: write failed: Broken pipe\n");
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(report_of_broken_output(full.get()),
              "stream_strace_log: write failed: No space left on device\n");
}

TEST(stream_strace_log, ends_and_cuts_a_trace_at_the_budget) {
    test_archive archive;
    {
        busy_child child;
        const int pids[] = {child.pid()};
        clock_type::time_point begun = clock_type::now();
        EXPECT_EQ(stream_strace_log(archive.handle(), pids, 1), 0);
        expect_early(begun);
    }
    tar_addfile(archive.handle(), "next", 0);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), (std::vector<std::string>{"strace.log", "next"}));
    const std::string& text = listing.entries[0].data;
    EXPECT_EQ(text.size(), 204800u);
    EXPECT_NE(text.find("getppid("), std::string::npos);
    EXPECT_EQ(text.find(filler(80)), std::string::npos);
}

TEST(stream_strace_log, pads_a_shorter_trace_with_filler_lines) {
    for (bool timed : {false, true}) {
        const std::string text = trace_of_a_short_life(timed);
        size_t end = text.find("\n" + filler(80));
        ASSERT_NE(end, std::string::npos);
        EXPECT_NE(text.find("exit_group(5)\n"), std::string::npos);
        EXPECT_LT(text.find("exit_group(5)\n"), end);
        EXPECT_TRUE(text.substr(end + 1) == filler(204800 - end - 1));
    }
}

TEST(stream_strace_log, lines_have_times_on_request_and_filler_lines_never) {
    const std::string timed = trace_of_a_short_life(true);
    expect_timed(timed.substr(0, timed.find(filler(80))));
    EXPECT_GE(duration_of(line_with(timed, ") = ")), 0);
    const std::string usual = trace_of_a_short_life(false);
    EXPECT_FALSE(has_time(line_with(usual, ") = ")));
    EXPECT_EQ(duration_of(line_with(usual, ") = ")), -1);
}

TEST(stream_strace_log, leaves_no_children_and_no_descriptors) {
    EXPECT_TRUE(exited_with(run_in_child([] {
                                test_archive archive;
                                std::set<int> before = open_fds();
                                int result = stream_strace_log(archive.handle(), nullptr, 0);
                                return result == 0 && open_fds() == before && has_no_children() ? 0 : 1;
                            }),
                            0));
}
