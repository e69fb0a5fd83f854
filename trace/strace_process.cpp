#include "trace/strace_process.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <memory>

strace_state::strace_state(strace_ctx* traced)
    : ctx(traced),
      count(static_cast<size_t>(std::max(traced->nr_pids, 0))),
      memory(calloc_array<strace_process>(std::max(count, size_t{1}))),
      sockets(socket_cache_new()),
      pending(count > 1 || traced->timed ? calloc_array<char>(strace_buffer_size) : nullptr) {
    if (!is_complete()) {
        count = 0;
    }
    std::uninitialized_value_construct_n(memory.get(), count);
    for (size_t i = 0; i < count; i++) {
        memory[i].entry = &ctx->pids[i];
    }
}

strace_state::~strace_state() {
    std::destroy_n(memory.get(), count);
}

void strace_take_time(strace_state* state) {
    if (state->ctx->timed) {
        clock_gettime(CLOCK_REALTIME, &state->event.wall);
        clock_gettime(CLOCK_MONOTONIC, &state->event.monotonic);
    }
}

strace_process* strace_find(const strace_state& state, pid_t pid) {
    const auto processes = state.processes();
    const auto found = std::ranges::find(processes, pid, &strace_process::pid);
    return found == processes.end() ? nullptr : &*found;
}

strace_process* strace_find_by_event(strace_state* state, pid_t pid, int status) {
    strace_process* holder = strace_find(*state, pid);
    unsigned long former = 0;
    if (!WIFSTOPPED(status) || status >> 16 != PTRACE_EVENT_EXEC ||
        ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &former) != 0) {
        return holder;
    }
    strace_process* caller = strace_find(*state, static_cast<pid_t>(former));
    if (!caller || caller == holder) {
        return holder;
    }
    if (holder) {
        holder->drop();
        state->live--;
    }
    *caller->entry = pid;
    caller->fd_dir.reset();  // of the former id
    return caller;
}
