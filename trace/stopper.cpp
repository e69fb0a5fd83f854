#include "trace/stopper.h"

#include <poll.h>
#include <stdio.h>

#include "trace/tracer_command.h"

namespace {

constexpr const char* usage =
    "USAGE: stopper [ -ppid ] [ command [ arg ... ] ]\n\n"
    "-p<pid>\tAdd a pid to stop at exit";
constexpr int hold_ms = 999000;

int32_t write_cb(void* /*cookie*/, const char* /*text*/, int /*length*/) {
    return tracer_is_stopped() ? 0 : 1;
}

void stopper_on_exit(strace_ctx* /*ctx*/, void* /*cookie*/, pid_t pid, int kind, int code, void* /*extra*/) {
    if (tracer_is_stopped()) {
        return;
    }
    printf("stopper: Trapped pid=%d exit code %d\n", pid, code);
    // A program may read this from a pipe, waiting for the process to be held.
    fflush(stdout);
    while (kind == strace_exit_stop && !tracer_is_stopped()) {
        poll(nullptr, 0, hold_ms);
    }
}

}  // namespace

int run_stopper(int argc, char** argv) {
    return tracer_run(argc, argv, {usage, strace_calls | strace_exits, write_cb, stopper_on_exit, false});
}
