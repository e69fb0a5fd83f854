#include "monitor/rtrace.h"

#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <memory>
#include <thread>

#include "monitor/rtrace_apps.h"
#include "tests/unit/monitor/rtrace_records.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/few_fds.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto patience = 20s;  // enough for a busy machine, but far shorter than the intervals under test

struct destroyer {
    void operator()(rtrace_context* trace) const { rtrace_destroy(trace); }
};
using unique_trace = std::unique_ptr<rtrace_context, destroyer>;

// A fixture tree with one process, and a client. Traces run in a thread.
class rtrace : public testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        root_.write_file("proc/7/smaps", "maps\n");
        root_.write_file("proc/7/status", "state\n");
        root_.write_file("proc/smapstot", "total\n");
        root_.write_file("proc/sys/fs/file-nr", "1\t0\t9\n");
        root_.write_file("proc/meminfo", "mem\n");
        root_.write_file("proc/pagetypeinfo", "pages\n");
        root_.write_file("proc/mounts", "");
    }

    unique_trace create(int interval, unsigned mask) {
        unique_trace trace(rtrace_create(client_.b.get(), interval, mask));
        trace->root = root_.path().c_str();
        return trace;
    }

    // Runs a trace until its client has received `count` bytes, which it returns, and closed its side.
    std::string run_until(int interval, unsigned mask, size_t count) {
        unique_trace trace = create(interval, mask);
        std::thread runner([&trace] { EXPECT_EQ(rtrace_run(trace.get()), 0); });
        std::string stream(count, '\0');
        EXPECT_EQ(recv(client_.a.get(), stream.data(), count, MSG_WAITALL), static_cast<ssize_t>(count));
        leave(runner);
        return stream;
    }
    void leave(std::thread& runner) {
        auto left = clock_type::now();
        client_.a.reset();
        runner.join();
        EXPECT_LT(clock_type::now() - left, patience);
    }

    temp_dir root_;
    test_socketpair client_;
};

const std::string disks_heading = "Filesystem          \tUsed\tAvail\tMounted on\n";

}  // namespace

TEST(rtrace_context, begins_with_interval_descriptor_and_mask) {
    static_assert(offsetof(rtrace_context, interval) == 0);
    static_assert(offsetof(rtrace_context, fd) == 4);
    static_assert(offsetof(rtrace_context, mask) == 8);
    unique_trace trace(rtrace_create(5, -3, 0x67c));
    ASSERT_TRUE(trace);
    EXPECT_EQ(trace->interval, -3);
    EXPECT_EQ(trace->fd, 5);
    EXPECT_EQ(trace->mask, 0x67cu);
    EXPECT_STREQ(trace->root, "");
}

TEST(rtrace_context, is_small) {
    EXPECT_LT(sizeof(rtrace_context), 210000u);
}

TEST(rtrace_context, may_be_null_when_destroyed) {
    rtrace_destroy(nullptr);
}

TEST(rtrace_context, is_null_without_memory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer ends a program that runs out of memory";
#endif
    int status = run_in_child([] {
        rlimit none = {0, 0};
        setrlimit(RLIMIT_AS, &none);
        while (malloc(sizeof(rtrace_context) / 2)) {
        }
        return rtrace_create(1, 1, 1) == nullptr ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

TEST_F(rtrace, samples_all_files_in_order) {
    std::vector<trace_record> sample = {record_of(4, "", 1),
                                        record_of(2, bytes_of(int32_t{7}) + "maps\n", 1),
                                        record_of(2, "", 0),
                                        record_of(3, bytes_of(int32_t{7}) + "state\n", 1),
                                        record_of(3, "", 0),
                                        record_of(4, "", 0),
                                        record_of(6, "total\n", 1),
                                        record_of(6, "", 0),
                                        record_of(7, "1\t0\t9\n", 1),
                                        record_of(7, "", 0),
                                        record_of(8, "mem\n", 1),
                                        record_of(8, "", 0),
                                        record_of(9, disks_heading, 0),
                                        record_of(10, "pages\n", 1),
                                        record_of(10, "", 0)};
    size_t size = 0;
    for (const trace_record& record : sample) {
        size += 20 + record.data.size();
    }
    unsigned files = rtrace_smaps | rtrace_status | rtrace_smapstot | rtrace_filenr | rtrace_meminfo |
                     rtrace_diskinfo | rtrace_pagetypeinfo;
    expect_records(run_until(1000, files, size), sample);
}

TEST_F(rtrace, marks_a_group_for_smaps_or_status_alone) {
    EXPECT_EQ(outline_of(run_until(1000, rtrace_smaps, 20 + 29 + 20 + 20)),
              (outline{"4:0:1", "2:9:1", "2:0:0", "4:0:0"}));
}

TEST_F(rtrace, of_status_alone_has_no_smaps) {
    EXPECT_EQ(outline_of(run_until(1000, rtrace_status, 20 + 30 + 20 + 20)),
              (outline{"4:0:1", "3:10:1", "3:0:0", "4:0:0"}));
}

TEST_F(rtrace, samples_a_file_again_after_each_interval) {
    auto begun = clock_type::now();
    std::string stream = run_until(1, rtrace_smapstot, 2 * (26 + 20));
    EXPECT_EQ(outline_of(stream), (outline{"6:6:1", "6:0:0", "6:6:1", "6:0:0"}));
    EXPECT_GE(clock_type::now() - begun, 1s);
    std::vector<trace_record> records = records_of(stream);
    EXPECT_GE(records[2].time_ms - records[0].time_ms, 990);
}

TEST_F(rtrace, with_an_interval_of_0_does_not_pause) {
    EXPECT_EQ(outline_of(run_until(0, rtrace_smapstot, 1000 * 46)).size(), 2000u);
}

TEST_F(rtrace, without_sources_writes_nothing_and_ends_with_its_client) {
    for (int interval : {0, 1, 1000, 2147483647, -1, INT32_MIN}) {
        test_socketpair client;
        std::swap(client, client_);
        unique_trace trace = create(interval, 0);
        std::thread runner([&trace] { EXPECT_EQ(rtrace_run(trace.get()), 0); });
        std::this_thread::sleep_for(20ms);
        char byte;
        EXPECT_EQ(recv(client_.a.get(), &byte, 1, MSG_DONTWAIT), -1) << interval;
        leave(runner);
    }
}

TEST_F(rtrace, of_a_missing_file_writes_nothing) {
    ASSERT_EQ(unlink(root_.path("proc/smapstot").c_str()), 0);
    EXPECT_EQ(outline_of(run_until(1000, rtrace_smapstot | rtrace_meminfo, 24 + 20)),
              (outline{"8:4:1", "8:0:0"}));
}

TEST_F(rtrace, with_programs_ends_them_with_its_client) {
    put_script(root_, "usr/bin/pidstat", "echo $$\nexec sleep 1000\n");
    unique_trace trace = create(1, rtrace_pidstat);
    std::thread runner([&trace] { EXPECT_EQ(rtrace_run(trace.get()), 0); });
    std::string header(20, '\0');
    ASSERT_EQ(recv(client_.a.get(), header.data(), 20, MSG_WAITALL), 20);
    EXPECT_EQ(number_at<uint32_t>(header, 0), 13u);
    std::string line(number_at<uint32_t>(header, 4), '\0');
    ASSERT_EQ(recv(client_.a.get(), line.data(), line.size(), MSG_WAITALL),
              static_cast<ssize_t>(line.size()));
    pid_t pid = std::stoi(line);
    EXPECT_EQ(kill(pid, 0), 0);
    leave(runner);
    EXPECT_NE(kill(pid, 0), 0);
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace, with_programs_and_a_negative_interval_ends_after_one_sample) {
    put_script(root_, "usr/bin/pidstat", "exec sleep 1000\n");
    unique_trace trace = create(-1, rtrace_pidstat | rtrace_meminfo);
    EXPECT_EQ(rtrace_run(trace.get()), 0);
    trace.reset();
    client_.b.reset();
    EXPECT_EQ(outline_of(read_all(client_.a.get())), (outline{"8:4:1", "8:0:0"}));
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace, whose_client_leaves_during_a_sample_ends_its_programs) {
    put_script(root_, "usr/bin/pidstat", "exec sleep 1000\n");
    root_.write_file("proc/meminfo", std::string(5000000, 'm'));
    unique_trace trace = create(1, rtrace_pidstat | rtrace_meminfo);
    std::thread runner([&trace] { EXPECT_EQ(rtrace_run(trace.get()), 0); });
    std::string some(100000, '\0');
    ASSERT_EQ(recv(client_.a.get(), some.data(), some.size(), MSG_WAITALL), 100000);
    leave(runner);
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace, without_descriptors_for_all_pipes_continues_and_ends_the_started_programs) {
    put_script(root_, "usr/bin/iostat", "echo x\nexec sleep 1000\n");
    put_script(root_, "usr/bin/pidstat", "echo x\nexec sleep 1000\n");
    int status = run_in_child([this] {
        unique_trace trace = create(1000, rtrace_iostat | rtrace_pidstat | rtrace_meminfo);
        // The client closes its sending side, so the trace ends after its first sample.
        shutdown(client_.a.get(), SHUT_WR);
        {
            few_fds_left for_the_first_pipe_and_a_file(3);
            rtrace_run(trace.get());
        }
        std::string sample(44, '\0');
        if (recv(client_.a.get(), sample.data(), sample.size(), MSG_DONTWAIT) != 44) {
            return 2;
        }
        return trace->unread == nullptr && has_no_children() ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

TEST_F(rtrace, loses_no_data_if_the_client_reads_slowly) {
    int small = 4096;
    setsockopt(client_.b.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string text;
    for (int i = 0; text.size() < 300000; i++) {
        text += std::to_string(i) + " ";
    }
    root_.write_file("proc/meminfo", text);
    unique_trace trace = create(1000, rtrace_meminfo);
    std::thread runner([&trace] { rtrace_run(trace.get()); });
    std::string stream;
    while (stream.size() < text.size() + 60) {
        char block[997];
        ssize_t got = read(client_.a.get(), block, sizeof block);
        ASSERT_GT(got, 0);
        stream.append(block, static_cast<size_t>(got));
    }
    leave(runner);
    expect_records(stream, {record_of(8, text.substr(0, 204800), 1), record_of(8, text.substr(204800), 1),
                            record_of(8, "", 0)});
}

TEST_F(rtrace, follows_one_file) {
    unique_trace trace = create(1, 0);
    std::string path = root_.write_file("followed", "one\n");
    std::thread runner([&] { EXPECT_EQ(rtrace_follow(trace.get(), path.c_str()), 0); });
    std::string stream(24 + 20, '\0');
    ASSERT_EQ(recv(client_.a.get(), stream.data(), 44, MSG_WAITALL), 44);
    expect_records(stream, {record_of(5, "one\n", 1), record_of(5, "", 0)});
    root_.write_file("followed", "two\n");
    ASSERT_EQ(recv(client_.a.get(), stream.data(), 44, MSG_WAITALL), 44);
    expect_records(stream, {record_of(5, "two\n", 1), record_of(5, "", 0)});
    leave(runner);
}
