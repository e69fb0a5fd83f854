#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

void set_busy(archive_facts* facts, uint64_t percent) {
    facts->looks[0].processors = {cpu_ticks{.user = 1000, .idle = 1000}};
    facts->looks[1].processors = {cpu_ticks{.user = 1000 + percent * 10, .idle = 2000 - percent * 10}};
}

// The first thread computes, as far as looks, trace and core tell.
archive_facts spinning_archive() {
    archive_facts facts = healthy_archive();
    facts.trace.by_pid.clear();
    suspect_of(&facts)->cpu_percent = 99;
    suspect_of(&facts)->threads[0].ticks_between = 990;
    suspect_of(&facts)->threads[0].state = 'R';
    facts.cores[0].threads[0] = {.tid = suspect, .state = 'R', .place = "encoderd+0x1234"};
    return facts;
}

TEST(findings_cpu_busy, busy_processors_are_a_note) {
    archive_facts facts = healthy_archive();
    set_busy(&facts, 95);
    EXPECT_EQ(verdict(facts, "cpu-busy"), "0 note");
    set_busy(&facts, 85);
    EXPECT_EQ(verdict(facts, "cpu-busy"), "nothing");
}

TEST(findings_cpu_busy, the_busiest_process_is_named) {
    archive_facts facts = healthy_archive();
    set_busy(&facts, 95);
    suspect_of(&facts)->cpu_percent = 90;
    EXPECT_EQ(verdict(facts, "cpu-busy"), "412 note");
}

TEST(findings_spinning_thread, one_that_computes_without_a_call_spins) {
    const archive_facts facts = spinning_archive();
    EXPECT_EQ(verdict(facts, "spinning-thread"), "412 warning");
    EXPECT_EQ(found(facts, "spinning-thread").proof.back().text,
              "it was running when its core was written, in encoderd+0x1234");
}

TEST(findings_spinning_thread, one_that_computes_between_calls_works) {
    archive_facts facts = spinning_archive();
    trace_of(&facts)->calls = 30;
    EXPECT_EQ(verdict(facts, "spinning-thread"), "nothing");
}

TEST(findings_spinning_thread, one_that_waits_in_a_call_does_not_spin) {
    archive_facts facts = spinning_archive();
    trace_of(&facts)->waits_in = "read";
    EXPECT_EQ(verdict(facts, "spinning-thread"), "nothing");
    facts = spinning_archive();
    facts.cores[0].threads[0].waits_in = "read";
    EXPECT_EQ(verdict(facts, "spinning-thread"), "nothing");
}

TEST(findings_spinning_thread, one_with_half_a_processor_does_not_spin) {
    archive_facts facts = spinning_archive();
    suspect_of(&facts)->threads[0].ticks_between = 500;
    EXPECT_EQ(verdict(facts, "spinning-thread"), "nothing");
}

TEST(findings_spinning_thread, one_on_a_full_machine_gets_what_is_left) {
    archive_facts facts = spinning_archive();
    suspect_of(&facts)->threads[0].ticks_between = 100;
    set_busy(&facts, 85);
    EXPECT_EQ(verdict(facts, "spinning-thread"), "412 warning");
}

TEST(findings_spinning_thread, nothing_is_said_of_a_first_thread_without_a_trace) {
    archive_facts facts = spinning_archive();
    facts.trace.is_present = false;
    EXPECT_EQ(verdict(facts, "spinning-thread"), "nothing");
}

TEST(findings_spinning_thread, another_thread_than_the_first_may_spin_too) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->threads.push_back({413, "worker", 'R', "", 0, 990});
    facts.cores[0].threads.push_back({.tid = 413, .state = 'R'});
    EXPECT_EQ(verdict(facts, "spinning-thread"), "412 warning");
    EXPECT_EQ(found(facts, "spinning-thread").text, "Thread 413 of encoderd (412) computes without end.");
    facts.cores[0].threads[1].call = 0;
    EXPECT_EQ(verdict(facts, "spinning-thread"), "nothing");
}

TEST(findings_spinning_thread, core_and_trace_tell_it_without_looks_at_processes) {
    archive_facts facts = spinning_archive();
    suspect_of(&facts)->threads.clear();
    suspect_of(&facts)->cpu_percent = -1;
    EXPECT_EQ(verdict(facts, "spinning-thread"), "412 warning");
    facts.cores[0].threads[0].state = 'S';
    EXPECT_EQ(verdict(facts, "spinning-thread"), "nothing");
}

void set_interrupts(archive_facts* facts, const char* name, uint64_t growth) {
    facts->looks[0].interrupts = {{name, "eth0", 1000}};
    facts->looks[1].interrupts = {{name, "eth0", 1000 + growth}};
}

TEST(findings_interrupt_storm, a_device_with_many_interrupts_is_a_note) {
    archive_facts facts = healthy_archive();
    set_interrupts(&facts, "14", 210000);
    EXPECT_EQ(verdict(facts, "interrupt-storm"), "0 note");
    EXPECT_EQ(found(facts, "interrupt-storm").text, "Interrupt 14, eth0, comes 21000 times a second.");
    set_interrupts(&facts, "14", 190000);
    EXPECT_EQ(verdict(facts, "interrupt-storm"), "nothing");
}

TEST(findings_interrupt_storm, the_timers_of_processors_are_none) {
    archive_facts facts = healthy_archive();
    set_interrupts(&facts, "LOC", 900000);
    EXPECT_EQ(verdict(facts, "interrupt-storm"), "nothing");
}

TEST(findings_interrupt_storm, processors_that_do_little_else_are_a_warning) {
    archive_facts facts = healthy_archive();
    set_interrupts(&facts, "14", 210000);
    facts.looks[0].processors = {cpu_ticks{.idle = 1000}};
    facts.looks[1].processors = {cpu_ticks{.idle = 1900, .interrupts = 1100}};
    EXPECT_EQ(verdict(facts, "interrupt-storm"), "0 warning");
}

}  // namespace
}  // namespace archiveview
