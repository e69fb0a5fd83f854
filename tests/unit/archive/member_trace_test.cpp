#include "archive/member_trace.h"

#include <ctype.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"

namespace {

// Lines of 79 blanks as far as `size` bytes go.
std::string filler(size_t size) {
    std::string lines;
    while (lines.size() < size) {
        lines += std::string(79, ' ') + "\n";
    }
    lines.resize(size);
    return lines;
}

// A child that does nothing until its parent lets go of it.
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

TEST(stream_strace_log, removed_pids_are_passed_over) {
    test_archive archive;
    const int pids[] = {-1, -1, -1};
    EXPECT_EQ(stream_strace_log(archive.handle(), pids, 3), 0);
    tar_listing listing = archive.finish();
    ASSERT_EQ(listing.entries.size(), 1u);
    EXPECT_TRUE(listing.entries[0].data == filler(204800));
}

TEST(stream_strace_log, list_of_pids_is_not_changed) {
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

TEST(stream_strace_log, broken_output_without_a_trace_is_left_to_the_next_member) {
    ignore_broken_pipes();
    test_pipe broken;
    broken.out.reset();
    tar_handle* t = tar_new(broken.in.get(), nullptr);
    int result = -1;
    EXPECT_EQ(capture_stderr([&] { result = stream_strace_log(t, nullptr, 0); }), "");
    EXPECT_EQ(result, 0);
    tar_abandon(t);
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
