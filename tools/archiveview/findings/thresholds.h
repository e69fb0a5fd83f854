// The constants that findings are judged by, each with its reason. The two looks at /proc are about ten
// seconds apart; the trace and the capture last five seconds each.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace archiveview {

// What is shown.
constexpr size_t finding_limit = 200;  // more findings than that are not read by anyone
constexpr size_t proof_limit = 6;      // facts of one finding; the rest is in the tables

// Descriptors.
constexpr int monitor_high_score = 32;     // from this score on, the device's own monitor reports a process
constexpr unsigned leak_least_total = 32;  // programs with fewer are far from every limit
constexpr int64_t leak_growth = 16;       // a server's burst of requests opens about as many, and closes them
constexpr double leak_bound_share = 0.8;  // of the limit: the last moment at which a warning helps
constexpr double leak_kind_share = 0.75;  // of the descriptors: a program with real work has several kinds
constexpr size_t leak_rounds = 3;  // of the monitor, once an hour: growth in all of them is no coincidence

// Children.
constexpr unsigned runaway_children = 16;         // the monitor's limit; shells and supervisors have fewer
constexpr unsigned runaway_new_children = 8;      // between the looks: a pool of workers is started once
constexpr unsigned runaway_many_children = 200;   // no program of a device needs them
constexpr double runaway_forks_per_second = 100;  // a shell in a loop, slowed down by the trace, stays below

// Zombies.
constexpr unsigned zombies_warning = 3;  // fewer may be children that ended just before a look

// Memory.
constexpr double memory_low_percent = 3;     // the kernel begins to kill processes about there
constexpr double memory_short_percent = 10;  // the kernel begins to drop the pages of programs about there
constexpr double memory_hog_percent = 30;    // of all memory: this process explains why memory is short
constexpr int64_t growth_least_kb = int64_t{16} * 1024;  // a program that starts up grows less, mostly
constexpr double growth_least_percent = 5;  // of all memory: on small devices less than 16 MiB counts
constexpr double growth_least_share = 0.1;  // of what the process had: else it may be a buffer of a large one
constexpr double growth_horizon_seconds = 86400;    // memory lasts less than a day at this rate
constexpr double swapping_pages_per_second = 1000;  // 4 MiB/s: programs wait for pages most of the time
constexpr int64_t slab_growth_kb = int64_t{8} * 1024;
constexpr double slab_growth_share = 0.2;
constexpr double slab_alarm_percent = 10;  // of all memory between the looks, and not reclaimable

// Processors.
constexpr double cpu_busy_percent = 90;
constexpr double spin_percent = 80;  // of one processor: nothing that waits for anything reaches it
constexpr double spin_starved_percent =
    8;  // on a machine that is busy otherwise: what is left for one process
constexpr double machine_full_percent = 80;
constexpr double spin_calls_per_second = 5;      // a loop that computes makes a call now and then
constexpr double interrupts_per_second = 20000;  // a network interface with mitigation stays below, mostly
constexpr double interrupt_time_percent = 50;    // of all processors: the machine does little else

// Locks.
constexpr int64_t locked_ticks = 5;  // a thread that waits uses none; being traced and dumped costs a few

// Calls.
constexpr uint64_t storm_errors = 50;           // in the trace
constexpr double storm_errors_per_second = 15;  // programs that look for files at their start end sooner
constexpr double storm_share = 0.8;             // of the calls of that kind: nearly every attempt fails
constexpr double storm_call_share = 0.2;        // of all calls of the process: else it does other work
constexpr double polling_warning_per_second =
    40;  // a period of 25 ms; faster than video frames, and for nothing
constexpr double polling_note_per_second = 15;
constexpr double stuck_seconds = 4;  // nearly the whole trace; a loaded disk answers sooner

// Sockets.
constexpr uint64_t waiting_connections = 3;   // with a server that does not accept during the whole trace
constexpr unsigned close_wait_warning = 5;    // in both looks: the program has forgotten them
constexpr uint64_t stuck_queue_bytes = 4096;  // more than a message that is under way
constexpr uint64_t stuck_bytes = uint64_t{16} * 1024;  // in the capture: only probes, no stream
constexpr uint64_t unread_queue_bytes = uint64_t{32} * 1024;

// Network.
constexpr uint64_t retransmissions_warning = 10;
constexpr double retransmissions_share = 0.02;  // of the packets: throughput breaks down from here on
constexpr uint64_t retransmissions_note = 3;
constexpr uint64_t resets_warning = 50;
constexpr uint64_t resets_note = 5;
constexpr uint64_t unanswered_connects = 2;  // the first attempt and a retry, which comes a second later
constexpr uint64_t refused_connects = 3;     // one or two come from a service that has just been restarted
constexpr uint64_t unanswered_questions = 2;
constexpr uint64_t unanswered_arp = 3;  // the kernel asks three times before it gives up
constexpr uint64_t interface_errors_warning = 100;
constexpr double interface_errors_share = 0.01;  // of the packets between the looks

// System.
constexpr double disk_busy_percent = 90;
constexpr double clock_note_seconds = 2;      // boot time is rounded; slewing changes less between the looks
constexpr double clock_warning_seconds = 10;  // nobody slews that far in ten seconds
constexpr size_t settings_shown = 5;

}  // namespace archiveview
