// The common part of the two tracer applets: the command line, the command to trace, and the signals that end
// the applet.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "trace/strace.h"

constexpr int tracer_max_pids = 100;

// The command line: "[ -p PID ]... [ COMMAND [ ARGUMENT ... ] ]".
struct tracer_options {
    pid_t pids[tracer_max_pids];
    int pid_count = 0;
    int ignored_pids = 0;      // those after the first tracer_max_pids
    char** command = nullptr;  // ends with null; null if pids are traced
};

// Fills `options` from the arguments. False if the usage text is to be printed.
bool tracer_parse(int argc, char** argv, tracer_options* options);

// Finds the regular file that a command names. A name that begins with '/' is a path, one that begins with
// '.' is looked up in the current directory, any other in the directories of PATH. False if there is no such
// file; otherwise its path is in `path`.
constexpr int tracer_path_size = 4096;
bool tracer_find_program(const char* name, char (&path)[tracer_path_size]);

// How one of the applets traces.
struct tracer_applet {
    const char* usage;
    uint32_t flags;
    int32_t (*write)(void* cookie, const char* text, int length);
    void (*on_exit)(strace_ctx* ctx, void* cookie, pid_t pid, int kind, int code, void* extra);
    bool ends_with_reader;  // ends when its standard output has no reader any more
};

// The applet's main function. Returns the exit status: 1 if the command is not found, else 0. SIGTERM, SIGHUP
// and SIGQUIT, unless ignored, end the trace as SIGINT does. After the detach, they kill the applet.
int tracer_run(int argc, char** argv, const tracer_applet& applet);

// True if the applet is to end. From then on it gets a SIGINT every tracer_repeat_ms: the first signal may
// come just before a blocking call and would not interrupt it.
bool tracer_is_stopped();
void tracer_stop();  // ends the applet as a signal does
constexpr int tracer_repeat_ms = 50;
