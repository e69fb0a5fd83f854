// dcore: streams a core file of a process, which then runs on.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "common/unique_fd.h"
#include "tools/dcore/collect.h"
#include "tools/dcore/control.h"
#include "tools/dcore/core_writer.h"
#include "tools/dcore/options.h"
#include "tools/dcore/proc_text.h"

namespace {

enum { status_whole = 0, status_failed = 1, status_usage = 2 };

constexpr int line_patience_ms = 1000;
constexpr int pipe_size = 1 << 20;  // the kernel's default limit; a large pipe wakes the reader less often

void say(int pid, std::string_view text) {
    control_write(STDERR_FILENO, control_remark(pid, text));
}

int nothing_to_dump(int pid, std::string_view reason) {
    control_write(STDERR_FILENO, control_line(0));
    say(pid, reason);
    return status_failed;
}

std::string failed(const char* what, const char* name, int error) {
    return std::string(what) + " " + name + ": " + strerror(error);
}

// When the reader goes away, the write must fail. Job control must not stop the dumper while it holds a
// process.
void ignore_signals() {
    for (int number : {SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU}) {
        signal(number, SIG_IGN);
    }
}

bool can_write_line() {
    pollfd reader = {STDERR_FILENO, POLLOUT, 0};
    return poll(&reader, 1, line_patience_ms) != 0;
}

struct dump_task {
    dcore_options options;
    process_facts facts;
    thread_hold hold;
    unique_fd file;
    int out = STDOUT_FILENO;
    bool target_reads = false;  // the process reads the core or the messages
};

// Opens the output. Returns an empty string, or what went wrong.
std::string open_output(dump_task* task) {
    const char* name = task->options.file;
    if (name) {
        task->file = unique_fd(open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!task->file) {
            return failed("cannot open", name, errno);
        }
        task->out = task->file.get();
    } else if (isatty(STDOUT_FILENO)) {
        return "standard output is a terminal; use -c FILE";
    }
    fcntl(task->out, F_SETPIPE_SZ, pipe_size);  // fails if it is not a pipe
    task->target_reads =
        process_reads(task->options.pid, task->out) || process_reads(task->options.pid, STDERR_FILENO);
    return {};
}

// Opening a named pipe blocks until a reader opens it. A process seized before that would stop at its next
// signal and stay stopped, so a named pipe is opened before the process is seized.
bool waits_for_reader(const dump_task& task) {
    struct stat found = {};
    return task.options.file && stat(task.options.file, &found) == 0 && S_ISFIFO(found.st_mode);
}

// The process may have executed another program before it stopped, so its facts are read again. The core
// keeps the state letter from before the stop.
void read_facts_again(dump_task* task) {
    process_facts now;
    if (process_read(task->options.pid, &now).empty()) {
        now.stat.state = task->facts.stat.state;
        task->facts = std::move(now);
    }
}

// Opens the output and stops the process. Returns an empty string, or why nothing can be dumped.
std::string begin(dump_task* task) {
    std::string reason = process_read(task->options.pid, &task->facts);
    if (!reason.empty()) {
        return reason;
    }
    bool opens_first = waits_for_reader(*task);
    if (opens_first && !(reason = open_output(task)).empty()) {
        return reason;
    }
    if (int error = threads_seize(&task->hold, task->options.pid)) {
        return process_stop_error(error, task->hold.tracer);
    }
    if (!opens_first && !(reason = open_output(task)).empty()) {
        return reason;
    }
    if (int error = threads_stop(&task->hold)) {
        return process_stop_error(error, task->hold.tracer);
    }
    read_facts_again(task);
    return {};
}

void remark_on(const dump_task& task, const core_stream& stream) {
    bool one_ran = std::ranges::any_of(task.hold.threads,
                                       [](const held_thread& thread) { return !thread.has_registers; });
    if (task.target_reads || stream.detached_early) {
        say(task.options.pid, "was resumed before its memory was read; the core mixes several moments");
    }
    if (one_ran) {
        say(task.options.pid, "has threads that did not stop; their registers are incomplete");
    }
}

int write_core(dump_task* task) {
    pid_t tid = task->hold.threads.front().tid;
    target_memory memory = memory_open(tid);
    if (!threads_all_stopped(task->hold)) {
        memory_use_file(&memory);  // a running thread may start another program
    }
    uint64_t filter = process_parse_filter(proc_text(tid, "coredump_filter", 64));
    core_layout layout = collect_layout(&memory, tid, filter);
    if (layout.segments.empty()) {
        return nothing_to_dump(task->options.pid, "has no memory left");
    }
    core_notes notes = notes_prepare(task->facts, task->hold, layout);
    core_places places = layout_places(layout, notes_length(notes));
    if (task->target_reads || !can_write_line()) {
        threads_detach(&task->hold);
        memory_use_file(&memory);
    }
    control_write(STDERR_FILENO, control_line(places.length));
    core_stream stream = stream_new(task->out, &task->hold);
    int error = core_write(&stream, &memory, notes, places);
    if (error != 0) {
        const char* name = task->options.file ? task->options.file : "standard output";
        say(task->options.pid, failed("cannot write to", name, error));
        return status_failed;
    }
    remark_on(*task, stream);
    return status_whole;
}

}  // namespace

int main(int argc, char** argv) {
    dump_task task;
    if (std::string wrong = options_parse(argc, argv, &task.options); !wrong.empty()) {
        control_write(STDERR_FILENO, "dcore: " + wrong + "\n" + dcore_usage);
        return status_usage;
    }
    ignore_signals();
    std::string reason = begin(&task);
    if (!reason.empty()) {
        return nothing_to_dump(task.options.pid, reason);
    }
    return write_core(&task);
}
