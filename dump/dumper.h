// The external program that takes core dumps of live processes, and its runs.
//
// The program gets the pid as its last argument, writes a control line (dump/control_line.h) and what else it
// has to say to its standard error and the core to its standard output, and ends with 0. One that hangs is
// killed: no run keeps its caller for ever, and none leaves the dumper behind.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "common/unique_fd.h"
#include "dump/control_line.h"

// Stores the dumper's argument vector (borrowed for the life of the process): the program, its fixed
// arguments, and two null entries, the first of which stands for the pid.
void dump_set_dumper(char** argv);

// Opens what all dumps share; call once at start-up.
void dump_init();

// How long a dumper may take for its control line, be silent while its core is copied, and go on after it;
// 240 s unless set. Less than the 300 s after which an archive's phase ends the whole process.
void dump_set_patience(int ms);

// One run of the dumper. Runs share nothing, so that several may go on at once.
struct dump_run {
    pid_t pid = -1;          // the process that is dumped
    pid_t child = -1;        // the dumper, until it has been waited for; -1: there is none
    bool is_killed = false;  // because it hung
    unique_fd data;          // what it writes to its standard output; empty once it has come to its end
    unique_fd control;       // and to its standard error
    unique_fd messages;      // what it said since its control line, in a file; empty: nothing
    size_t message_bytes = 0;
};

// Where a core goes.
struct core_sink {
    // Returns false, with errno, when the bytes could not be written.
    bool (*write)(void* cookie, const void* data, size_t length);
    void* cookie;
    int64_t limit = INT64_MAX;  // what comes after this many bytes is counted and dropped
};

// Starts the dumper for `pid`. Returns false, after perror("pipes"), when there are no pipes for it; without
// a dumper process (reported by sys_run) the run has no output and fails in dump_end. A run that was started
// has to be ended with dump_discard or dump_show and then dump_end.
bool dump_start(pid_t pid, dump_run* run);

// Reads the control line, which is in `text` afterwards. Returns false when there is no proper one.
bool dump_read_control(dump_run* run, control_text* text);

// Copies the core to its end, with the rules of safe_copyfd: returns the number of bytes that came, but for
// blocks that could not be written; -1 when the reader went away. What the dumper says meanwhile is kept, a
// mebibyte of it.
int64_t dump_copy_core(dump_run* run, const core_sink& sink);

// Reads to the end of whatever the dumper still writes, which nobody wants.
void dump_discard(dump_run* run);

// The same, but what it has said since its control line goes to standard error.
void dump_show(dump_run* run);

// Waits for the dumper. Returns whether it ended by itself, with 0.
bool dump_end(dump_run* run);

// Streams the raw core of `pid` onto `fd` (borrowed) and returns when the dumper has ended. A failure is
// reported as "dump error for pid PID", and why there is no core, or only a part of one, is in the system's
// log. The caller itself may be dumped.
void coredump(int fd, int pid);
