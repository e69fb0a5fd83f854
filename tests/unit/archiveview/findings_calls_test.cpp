#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

archive_facts with_failing_calls(uint64_t calls, uint64_t errors, const char* error) {
    archive_facts facts = healthy_archive();
    traced_process* traced = trace_of(&facts);
    traced->calls = calls;
    traced->errors = errors;
    traced->by_call["openat"] = {.calls = calls, .errors = errors};
    traced->by_errno[error] = errors;
    return facts;
}

TEST(findings_error_storm, a_call_that_fails_again_and_again_is_one) {
    const archive_facts facts = with_failing_calls(500, 500, "ENOENT");
    EXPECT_EQ(verdict(facts, "error-storm"), "412 warning");
    EXPECT_EQ(found(facts, "error-storm").proof[0].text,
              "500 of 500 calls of openat failed, most often with ENOENT");
}

TEST(findings_error_storm, a_program_that_looks_for_its_files_is_none) {
    EXPECT_EQ(verdict(with_failing_calls(500, 350, "ENOENT"), "error-storm"), "nothing");
    EXPECT_EQ(verdict(with_failing_calls(70, 70, "ENOENT"), "error-storm"), "nothing");
}

TEST(findings_error_storm, try_again_is_no_error) {
    EXPECT_EQ(verdict(with_failing_calls(500, 500, "EAGAIN"), "error-storm"), "nothing");
}

TEST(findings_error_storm, a_small_part_of_all_calls_is_none) {
    archive_facts facts = with_failing_calls(500, 500, "ENOENT");
    trace_of(&facts)->calls = 5000;
    EXPECT_EQ(verdict(facts, "error-storm"), "nothing");
}

archive_facts with_polls(double per_second) {
    archive_facts facts = healthy_archive();
    trace_of(&facts)->polling_call = "poll";
    trace_of(&facts)->polling_per_second = per_second;
    return facts;
}

TEST(findings_polling_loop, many_questions_without_a_result_are_one) {
    EXPECT_EQ(verdict(with_polls(50), "polling-loop"), "412 warning");
    EXPECT_EQ(verdict(with_polls(20), "polling-loop"), "412 note");
    EXPECT_EQ(verdict(with_polls(10), "polling-loop"), "nothing");
}

TEST(findings_polling_loop, a_call_with_results_is_none) {
    archive_facts facts = with_polls(50);
    trace_of(&facts)->polling_call.clear();
    EXPECT_EQ(verdict(facts, "polling-loop"), "nothing");
}

TEST(findings_polling_loop, of_failing_calls_is_an_error_storm) {
    archive_facts facts = with_failing_calls(500, 500, "ENOENT");
    trace_of(&facts)->polling_call = "openat";
    trace_of(&facts)->polling_per_second = 100;
    EXPECT_EQ(ids(facts), "error-storm ");
}

archive_facts waiting_in(const char* call, double seconds) {
    archive_facts facts = healthy_archive();
    trace_of(&facts)->waits_in = call;
    trace_of(&facts)->waits_seconds = seconds;
    return facts;
}

TEST(findings_call_stuck, a_call_on_a_file_that_does_not_return_is_one) {
    EXPECT_EQ(verdict(waiting_in("openat", 4.5), "call-stuck"), "412 warning");
    EXPECT_EQ(verdict(waiting_in("openat", 3), "call-stuck"), "nothing");
    EXPECT_EQ(verdict(waiting_in("openat", -1), "call-stuck"), "nothing");
}

TEST(findings_call_stuck, a_call_that_may_last_on_a_busy_disk_is_a_note) {
    EXPECT_EQ(verdict(waiting_in("fsync", 4.5), "call-stuck"), "412 note");
}

TEST(findings_call_stuck, a_call_that_waits_for_others_is_none) {
    for (const char* call : {"poll", "read", "accept4", "futex", "wait4", "nanosleep", "recvfrom"}) {
        EXPECT_EQ(verdict(waiting_in(call, 5), "call-stuck"), "nothing") << call;
    }
}

}  // namespace
}  // namespace archiveview
