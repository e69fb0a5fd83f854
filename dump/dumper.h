// The dumper: the external program that takes core dumps of live processes.
//
// It gets the pid as its last argument, writes a control line (dump/control_line.h) and its messages to
// standard error and the core to standard output, and exits with 0. A dumper that hangs is killed: every call
// here returns within a bounded time, and no run leaves a dumper behind.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "common/unique_fd.h"
#include "dump/control_line.h"

// The time that a dumper gets for each of its steps: its control line, each block of its core, the rest of
// its output, its exit.
constexpr int dump_default_timeout_ms = 240000;

// How many bytes of a dumper's messages are kept; the rest is dropped.
constexpr size_t dump_messages_limit = 1048576;

// Stores the dumper's argument vector (borrowed for the life of the process): the program, its fixed
// arguments, and two null entries. The pid replaces the first of these in each run.
void dump_set_dumper(char** argv);

// Opens what all runs share. Call it once at start-up.
void dump_init();

// Replaces dump_default_timeout_ms.
void dump_set_timeout(int timeout_ms);

// One run of the dumper. Several runs may be active at once; they share no data that changes.
struct dump_run {
    pid_t pid = -1;            // the process that is dumped
    pid_t child = -1;          // the dumper, until it is reaped; -1: it was not started
    bool is_killed = false;    // it timed out
    unique_fd data;            // its standard output; empty after end of file
    unique_fd control;         // its standard error; empty after end of file
    unique_fd messages;        // a file with its messages after the control line; empty: none
    size_t message_bytes = 0;  // the length of that file
};

// Where a core goes.
struct core_sink {
    // Returns false with errno set if the bytes could not be written.
    bool (*write)(void* cookie, const void* data, size_t length);
    void* cookie;
    int64_t limit = INT64_MAX;  // further bytes are counted, but not written
};

// Starts the dumper for `pid`. Returns false after perror("pipes") if a pipe or memory is missing. If only
// the process could not be started, which sys_run reports, it returns true: the run has no output and
// dump_end fails. A run that was started must be ended with dump_discard or dump_show, and then dump_end.
bool dump_start(pid_t pid, dump_run* run);

// Reads the control line into `text`. Returns false if it is missing or too long.
bool dump_read_control(dump_run* run, control_text* text);

// Copies the core to its end and keeps the messages that the dumper writes meanwhile. Returns the number of
// bytes that the dumper wrote, without those of blocks that could not be written, or -1 if the reader is gone
// (EPIPE).
int64_t dump_copy_core(dump_run* run, const core_sink& sink);

// Read the rest of the dumper's output and drop what remains of the core. dump_discard drops all messages,
// dump_keep keeps them in the run, and dump_show writes all messages after the control line to standard
// error.
void dump_discard(dump_run* run);
void dump_keep(dump_run* run);
void dump_show(dump_run* run);

// Waits for the dumper. Returns true if it exited with 0.
bool dump_end(dump_run* run);
