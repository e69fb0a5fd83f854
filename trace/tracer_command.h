// What the two tracer applets have in common: their command line, the program that they start, and the
// signals that end them.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "trace/strace.h"

constexpr int tracer_max_pids = 100;

// The command line: "[ -p PID ]... [ COMMAND [ ARGUMENT ... ] ]".
struct tracer_options {
    pid_t pids[tracer_max_pids];
    int pid_count = 0;
    int pids_left_out = 0;     // given beyond tracer_max_pids
    char** command = nullptr;  // ends with null; null when pids are traced
};

// Fills `options` from the arguments; false when the usage text is due.
bool tracer_parse(int argc, char** argv, tracer_options* options);

// Finds the program of a command: a name that begins with '/' there, one that begins with '.' below the
// current directory, others on PATH. Writes its path into `path` and returns whether there is a regular file.
constexpr int tracer_path_room = 4096;
bool tracer_find_program(const char* name, char (&path)[tracer_path_room]);

// How one of the applets traces.
struct tracer_applet {
    const char* usage;
    uint32_t flags;
    int32_t (*write)(void* cookie, const char* text, int length);
    void (*on_exit)(strace_ctx* ctx, void* cookie, pid_t pid, int kind, int code, void* extra);
    bool ends_with_reader;  // when nobody can read its standard output any more
};

// The applet's main function: returns the exit status. SIGTERM, SIGHUP and SIGQUIT, unless they are ignored,
// end the trace as SIGINT does; when everybody has been let go the process dies of them.
int tracer_run(int argc, char** argv, const tracer_applet& applet);

// Whether the user has asked to end; from then on SIGINT comes again every tracer_repeat_ms, so that whatever
// the applet waits in notices, also when the first one came just before.
bool tracer_stopped();
void tracer_stop();  // asks in the user's place
constexpr int tracer_repeat_ms = 50;
