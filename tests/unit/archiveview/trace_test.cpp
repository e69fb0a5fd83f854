#include "tools/archiveview/facts/trace.h"

#include <gtest/gtest.h>

#include "archive/member_trace.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

trace_facts parsed(std::string_view text) {
    trace_facts facts;
    trace_parse(&facts, text);
    return facts;
}

// As the device fills the member up.
std::string padded(std::string text) {
    for (size_t column = 1; text.size() < strace_budget; column++) {
        text += column % 80 == 0 ? '\n' : ' ';
    }
    return text;
}

std::string repeated(std::string_view text, int count) {
    std::string all;
    for (int i = 0; i < count; i++) {
        all += text;
    }
    return all;
}

}  // namespace

TEST(archiveview_trace, counts_calls_and_errors_by_process_call_and_errno) {
    const trace_facts facts = parsed(
        "[5 logger] [7fa5dfe4d230 0] stat(\"/a\", 0x10)\n"
        "[6 sh] [7fa5dfe4d230 0] wait4(4294967295, 1, 0, 0, 1, 8)\n"
        "[5 logger] [7fa5dfe4d230 0] stat(\"/a\", 0x10) = -2\n"
        "[5 logger] [7fa5dfe4d230 0] read(3 /a, 0x10, 4)\n"
        "[5 logger] [7fa5dfe4d230 0] read(3 /a, \"abcd\", 4) = 4\n"
        "[6 sh] [7fa5dfe4d230 0] wait4(4294967295, 1, 0, 0, 1, 8) = -10\n");
    EXPECT_TRUE(facts.is_present);
    EXPECT_FALSE(facts.is_timed);
    EXPECT_EQ(facts.seconds, -1);
    EXPECT_EQ(facts.calls, 3u);
    EXPECT_EQ(facts.errors, 2u);
    ASSERT_EQ(facts.by_pid.size(), 2u);
    const traced_process& logger = facts.by_pid.at(5);
    EXPECT_EQ(logger.name, "logger");
    EXPECT_EQ(logger.calls, 2u);
    EXPECT_EQ(logger.errors, 1u);
    EXPECT_EQ(logger.by_errno, (std::map<std::string, uint64_t>{{"ENOENT", 1}}));
    EXPECT_EQ(logger.by_call.at("stat").errors, 1u);
    EXPECT_EQ(logger.by_call.at("read").calls, 1u);
    EXPECT_EQ(logger.waits_in, "");
    EXPECT_EQ(facts.by_pid.at(6).by_errno, (std::map<std::string, uint64_t>{{"ECHILD", 1}}));
}

TEST(archiveview_trace, counts_a_call_that_begins_again_after_a_signal_as_no_error) {
    const trace_facts facts =
        parsed("[5 x] [1 0] poll(0x1, 1, 1000)\n[5 x] [1 0] poll(0x1, 1, 1000) = -516\n");
    EXPECT_EQ(facts.calls, 1u);
    EXPECT_EQ(facts.errors, 0u);
}

TEST(archiveview_trace, reads_errors_of_calls_that_return_addresses) {
    const trace_facts facts = parsed(
        "[5 x] [1 0] mmap2(0x0, 1, 0x1, 0x2, 4, 0) = 0xfffffff4\n"
        "[5 x] [1 0] mmap2(0x0, 1, 0x1, 0x2, 4, 0) = 0xfffffffffffffff4\n"
        "[5 x] [1 0] mmap2(0x0, 1, 0x1, 0x2, 4, 0) = 0x7f44630ed000\n");
    EXPECT_EQ(facts.by_pid.at(5).by_errno, (std::map<std::string, uint64_t>{{"ENOMEM", 2}}));
    EXPECT_EQ(facts.calls, 3u);
}

TEST(archiveview_trace, knows_errors_of_mips_only_where_the_call_cannot_have_returned_that_number) {
    const trace_facts facts = parsed(
        "[5 x] [77e0 77e4] connect(3 socket:[9], 0x10, 16) = 146\n"
        "[5 x] [77e0 77e4] read(3 socket:[9], \"ab\", 2) = 145\n"
        "[5 x] [77e0 77e4] read(3 socket:[9], \"0123456789a\", 100) = 11\n"
        "[5 x] [77e0 77e4] open(4000, 0, 0, 0, 0, 0) = 2\n"
        "[5 x] [77e0 77e4] open(4000, 0, 0, 0, 0, 0) = 4\n"
        "[5 x] [77e0 77e4] waitpid(0x-1, 0x0, 1) = 10\n");
    EXPECT_EQ(facts.by_pid.at(5).by_errno,
              (std::map<std::string, uint64_t>{
                  {"ECHILD", 1}, {"ECONNREFUSED", 1}, {"ENOENT", 1}, {"ETIMEDOUT", 1}}));
    EXPECT_EQ(facts.by_pid.at(5).descriptors.at(3).read_bytes, 11u);
}

TEST(archiveview_trace, sums_transfers_by_descriptor_with_its_text) {
    const trace_facts facts = parsed(
        "[5 x] [1 0] write(4 socket:[4711][127.0.0.1:80 -> 127.0.0.1:9][TCP_ESTABLISHED], \"a, 1\", 4) = 4\n"
        "[5 x] [1 0] writev(4, 140, 2, 0, 0, 0) = 100\n"
        "[5 x] [1 0] read(3 /tmp/a, b, \"\", 100) = -11\n"
        "[5 x] [1 0] recvfrom(7, \"abc\", 0x0, 0x0, 0x0) = 3\n");
    const auto& descriptors = facts.by_pid.at(5).descriptors;
    EXPECT_EQ(descriptors.at(4).text, "socket:[4711][127.0.0.1:80 -> 127.0.0.1:9][TCP_ESTABLISHED]");
    EXPECT_EQ(descriptors.at(4).writes, 2u);
    EXPECT_EQ(descriptors.at(4).written_bytes, 104u);
    EXPECT_EQ(descriptors.at(3).text, "/tmp/a, b");
    EXPECT_EQ(descriptors.at(3).reads, 1u);
    EXPECT_EQ(descriptors.at(3).read_bytes, 0u);
    EXPECT_EQ(descriptors.at(7).text, "");
    EXPECT_EQ(descriptors.at(7).read_bytes, 3u);
}

TEST(archiveview_trace, takes_texts_of_descriptors_from_lists) {
    const trace_facts facts = parsed(
        "[5 x] [1 0] recv(7, 1, 2, 0, 0, 0) = 2\n\n"
        "[5 x] 3 open fds:\n0\t/dev/null\n7\tsocket:[12]\n9\t/tmp/x\ny\n"
        "[6 y] [1 0] getpid(0, 0, 0, 0, 0, 0)\n8\tnot in the list\n");
    const traced_process& process = facts.by_pid.at(5);
    EXPECT_EQ(process.open_descriptors, 3);
    EXPECT_EQ(process.descriptors.size(), 3u);
    EXPECT_EQ(process.descriptors.at(7).text, "socket:[12]");
    EXPECT_EQ(process.descriptors.at(7).read_bytes, 2u);
    EXPECT_EQ(process.descriptors.at(0).text, "/dev/null");
}

TEST(archiveview_trace, tells_which_call_had_not_returned) {
    const trace_facts facts = parsed(
        "16:11:32.000000 [5 x] [1 0] wait4(1, 2, 0, 0, 1, 8)\n"
        "16:11:32.500000 [6 y] [1 0] write(1 /dev/null, \"a\", 1)\n"
        "16:11:33.500000 [6 y] [1 0] write(1 /dev/null, \"a\", 1) = 1 <1.000000>\n"
        "16:11:34.000000 [6 y] [1 0] futex(1, 128, 2, 0, 0, 0)\n"
        "16:11:36.500000 [7 z] [1 0] getpid(0, 0, 0, 0, 0, 0) = 7 <0.000001>\n");
    EXPECT_EQ(facts.by_pid.at(5).waits_in, "wait4");
    EXPECT_TRUE(facts.by_pid.at(5).waits_throughout);
    EXPECT_DOUBLE_EQ(facts.by_pid.at(5).waits_seconds, 4.5);
    EXPECT_EQ(facts.by_pid.at(6).waits_in, "futex");
    EXPECT_EQ(facts.by_pid.at(6).waits_in_line, "[6 y] [1 0] futex(1, 128, 2, 0, 0, 0)");
    EXPECT_FALSE(facts.by_pid.at(6).waits_throughout);
    EXPECT_DOUBLE_EQ(facts.by_pid.at(6).waits_seconds, 2.5);
    EXPECT_EQ(facts.by_pid.at(7).waits_in, "");
}

TEST(archiveview_trace, knows_processes_that_ended) {
    const trace_facts facts = parsed(
        "[5 x] [1 0] exit_group(0)\n\n[5 x] 0 open fds:\n"
        "[6 killed] [1 0] poll(0x1, 1, 1000)\n\n[6 killed] 1 open fds:\n0\t/dev/null\n"
        "[7 z] [1 0] pause(0, 0, 0, 0, 0, 0)\n\n[7 z] 0 open fds:\n");
    EXPECT_TRUE(facts.by_pid.at(5).has_ended);
    EXPECT_EQ(facts.by_pid.at(5).waits_in, "");
    EXPECT_TRUE(facts.by_pid.at(6).has_ended);
    EXPECT_EQ(facts.by_pid.at(6).waits_in, "");
    EXPECT_FALSE(facts.by_pid.at(7).has_ended);
    EXPECT_EQ(facts.by_pid.at(7).waits_in, "pause");
}

TEST(archiveview_trace, finds_the_slowest_call_that_does_not_wait_by_design) {
    const trace_facts facts = parsed(
        "16:11:32.000000 [5 x] [1 0] poll(0x1, 1, 9) = 0 <3.000000>\n"
        "16:11:33.000000 [5 x] [1 0] fsync(4, 0, 0, 0, 0, 0) = 0 <0.250000>\n"
        "16:11:34.000000 [5 x] [1 0] write(4 /a, \" <9.000000>\", 11) = 11 <0.000100>\n");
    const traced_process& process = facts.by_pid.at(5);
    EXPECT_TRUE(facts.is_timed);
    EXPECT_DOUBLE_EQ(process.slowest_seconds, 0.25);
    EXPECT_EQ(process.slowest_line, "[5 x] [1 0] fsync(4, 0, 0, 0, 0, 0) = 0 <0.250000>");
    EXPECT_DOUBLE_EQ(process.by_call.at("poll").seconds, 3);
    EXPECT_DOUBLE_EQ(facts.seconds, 2);
}

TEST(archiveview_trace, counts_time_across_midnight_but_not_across_a_change_of_the_clock) {
    const trace_facts facts = parsed(
        "23:59:59.500000 [5 x] [1 0] getpid(0, 0, 0, 0, 0, 0)\n"
        "00:00:00.250000 [5 x] [1 0] getpid(0, 0, 0, 0, 0, 0) = 5 <0.000001>\n"
        "00:00:00.200000 [5 x] [1 0] getpid(0, 0, 0, 0, 0, 0)\n"
        "05:00:00.000000 [5 x] [1 0] getpid(0, 0, 0, 0, 0, 0) = 5 <0.000001>\n"
        "05:00:00.500000 [5 x] [1 0] getpid(0, 0, 0, 0, 0, 0)\n");
    EXPECT_DOUBLE_EQ(facts.seconds, 1.25);
}

TEST(archiveview_trace, lists_signals) {
    const trace_facts facts =
        parsed("\n[5 x] ---  SIGNAL 17 SIGCHLD ---\n\n\n[5 x] ---  SIGNAL 11 SIGSEGV ---\n\n");
    EXPECT_EQ(facts.by_pid.at(5).signals, (std::vector<std::string>{"SIGCHLD", "SIGSEGV"}));
    EXPECT_EQ(facts.calls, 0u);
}

TEST(archiveview_trace, is_not_misled_by_data_that_looks_like_a_line) {
    const trace_facts facts = parsed(
        "[5 x] [1 0] write(1 /a, \"] [1 0] read(0, ) = -5\", 20)\n"
        "[5 x] [1 0] write(1 /a, \"] [1 0] read(0, ) = -5\", 20) = 20\n"
        "[5 x] [1 0] close(3 /tmp/b) = 5)\n"
        "[5 x] [1 0] close(3) = 0\n");
    EXPECT_EQ(facts.calls, 2u);
    EXPECT_EQ(facts.errors, 0u);
    ASSERT_EQ(facts.by_pid.size(), 1u);
    EXPECT_EQ(facts.by_pid.at(5).by_call.size(), 2u);
    EXPECT_EQ(facts.by_pid.at(5).descriptors.at(1).written_bytes, 20u);
}

TEST(archiveview_trace, reads_names_with_brackets_and_files_with_newlines) {
    const trace_facts facts = parsed(
        "[5 a] [b] [1 0] read(3 /tmp/x\n5\ty, \"abc\", 3) = 3\n"
        "[6 z] [1 0] getpid(0, 0, 0, 0, 0, 0) = 6\n");
    EXPECT_EQ(facts.by_pid.at(5).name, "a] [b");
    EXPECT_EQ(facts.by_pid.at(5).descriptors.at(3).text, "/tmp/x\n5\ty");
    EXPECT_EQ(facts.calls, 2u);
}

TEST(archiveview_trace, ignores_lines_without_a_time_in_a_timed_trace) {
    const trace_facts facts = parsed(
        "16:11:32.000000 [5 x] [1 0] close(3 /tmp/a)\n"
        "[1 init] [1 0] open(1, 2, 3, 0, 0, 0) = -5\n"
        "16:11:32.000000 [5 x] [1 0] close(3) = 0 <0.000001>\n");
    EXPECT_EQ(facts.calls, 1u);
    EXPECT_FALSE(facts.by_pid.contains(1));
}

TEST(archiveview_trace, is_full_only_if_its_size_was_reached_without_filler) {
    const std::string line = "[5 x] [1 0] getpid(0, 0, 0, 0, 0, 0) = 5\n";
    std::string all = repeated(line, strace_budget / static_cast<int>(line.size()) + 1);
    all.resize(strace_budget);
    EXPECT_TRUE(parsed(all).is_full);
    EXPECT_EQ(parsed(all).bytes, size_t{strace_budget});
    EXPECT_FALSE(parsed(all.substr(1)).is_full) << "an archive that was cut";
    const trace_facts short_trace = parsed(padded(line));
    EXPECT_FALSE(short_trace.is_full);
    EXPECT_EQ(short_trace.bytes, line.size());
    EXPECT_EQ(parsed(padded(all.substr(0, strace_budget / line.size() * line.size()))).is_full, false);
    EXPECT_EQ(parsed(padded("")).bytes, 0u);
    all.replace(all.size() - 2, 2, "  ");
    EXPECT_TRUE(parsed(all).is_full) << "cut between blanks";
}

TEST(archiveview_trace, says_nothing_of_a_call_whose_line_is_cut) {
    const trace_facts facts =
        parsed("[5 x] [1 0] poll(0x1, 1, 100)\n[6 y] [1 0] poll(0x1, 1, 1)\n[5 x] [1 0] poll(0x1, 1, 10");
    EXPECT_EQ(facts.by_pid.at(5).waits_in, "");
    EXPECT_EQ(facts.by_pid.at(6).waits_in, "poll");
}

TEST(archiveview_trace, finds_loops_that_look_for_something_again_and_again) {
    const std::string_view loops[] = {
        "[5 x] [1 0] poll(0x1, 1, 0) = 0\n",
        "[5 x] [1 0] recvfrom(3, \"\", 0x0, 0x0, 0x0) = -11\n",
        "[5 x] [1 0] futex(1, 2, 3, 4, 5, 6) = -110\n",
        "[5 x] [1 0] wait4(1, 2, 3, 4, 5, 6) = 0\n[5 x] [1 0] nanosleep({ 0, 1000000 }, { 0, 0 }) = 0\n",
        "[5 x] [1 0] read(3 /proc/meminfo, \"Mem\", 3) = 3\n"
        "[5 x] [1 0] clock_nanosleep(1, 2, 3, 4, 5, 6) = 0\n",
    };
    const std::string_view calls[] = {"poll", "recvfrom", "futex", "wait4", "clock_nanosleep"};
    for (size_t i = 0; i < std::size(loops); i++) {
        const trace_facts facts = parsed(repeated(loops[i], 1000));
        EXPECT_EQ(facts.by_pid.at(5).polling_call, calls[i]);
        EXPECT_NEAR(facts.by_pid.at(5).polling_per_second, 200, 1) << loops[i];
        EXPECT_EQ(parsed(repeated(loops[i], 50)).by_pid.at(5).polling_call, "") << loops[i];
    }
}

TEST(archiveview_trace, takes_loops_that_get_something_done_for_no_polling) {
    const std::string_view loops[] = {
        "[5 x] [1 0] nanosleep({ 0, 1 }, { 0, 0 }) = 0\n[5 x] [1 0] sendto(3, \"a\", 1, 0x0, 0x0, 0) = 1\n",
        "[5 x] [1 0] epoll_wait(3, 1, 2, 3, 4, 5) = 1\n[5 x] [1 0] read(3, \"a\", 10) = 1\n"
        "[5 x] [1 0] read(3, \"\", 10) = -11\n",
        "[5 x] [1 0] getpid(0, 0, 0, 0, 0, 0) = 5\n",
        "[5 x] [1 0] stat(\"/a\", 0x1) = -2\n",
    };
    for (const std::string_view loop : loops) {
        EXPECT_EQ(parsed(repeated(loop, 1000)).by_pid.at(5).polling_call, "") << loop;
    }
}

TEST(archiveview_trace, judges_polling_by_the_times_of_a_timed_trace) {
    std::string text;
    for (int i = 0; i < 200; i++) {
        char line[100];
        snprintf(line, sizeof line, "16:11:%02d.%06d [5 x] [1 0] poll(0x1, 1, 10) = 0 <0.010000>\n", i / 100,
                 i % 100 * 10000);
        text += line;
    }
    const trace_facts facts = parsed(text);
    EXPECT_EQ(facts.by_pid.at(5).polling_call, "poll");
    EXPECT_NEAR(facts.by_pid.at(5).polling_per_second, 100, 1);
}

TEST(archiveview_trace, holds_no_more_than_its_bounds) {
    std::string text;
    for (int pid = 1; pid <= 5000; pid++) {
        text += "[" + std::to_string(pid) + " x] [1 0] call" + std::to_string(pid) + "() = -9\n";
        text += "[1 x] [1 0] call" + std::to_string(pid) + "() = -9\n\n[1 x] ---  SIGNAL 9 SIGKILL ---\n";
    }
    const trace_facts facts = parsed(text);
    EXPECT_LE(facts.by_pid.size(), process_limit);
    EXPECT_GT(facts.left_out, 0u);
    EXPECT_LE(facts.by_pid.at(1).by_call.size(), call_limit);
    EXPECT_EQ(facts.by_pid.at(1).calls, 5001u);
    EXPECT_LE(facts.by_pid.at(1).signals.size(), signal_limit);
}
