// dcore: a core file of a process that goes on running, streamed.
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
constexpr int pipe_size = 1 << 20;  // as large as one may be made; fewer times the reader has to be woken

void say(int pid, std::string_view text) {
    control_say(STDERR_FILENO, control_remark(pid, text));
}

int nothing_to_dump(int pid, std::string_view reason) {
    control_say(STDERR_FILENO, control_line(0));
    say(pid, reason);
    return status_failed;
}

std::string failed(const char* what, const char* name, int error) {
    return std::string(what) + " " + name + ": " + strerror(error);
}

// A reader that goes away is an error of a write, and what stops a job at a terminal must not stop us while
// we hold a process.
void ignore_signals() {
    for (int number : {SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU}) {
        signal(number, SIG_IGN);
    }
}

bool can_say() {
    pollfd reader = {STDERR_FILENO, POLLOUT, 0};
    return poll(&reader, 1, line_patience_ms) != 0;
}

struct dump_task {
    dcore_options options;
    process_facts facts;
    thread_hold hold;
    unique_fd file;
    int out = STDOUT_FILENO;
    bool target_reads = false;  // the core, or what we say about it
};

// Opens what is written to. Returns an empty text or what went wrong.
std::string open_output(dump_task& task) {
    const char* name = task.options.file;
    if (name) {
        task.file = unique_fd(open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!task.file) {
            return failed("cannot open", name, errno);
        }
        task.out = task.file.get();
    } else if (isatty(STDOUT_FILENO)) {
        return "a core file is nothing for a terminal: use -c FILE";
    }
    fcntl(task.out, F_SETPIPE_SZ, pipe_size);  // no matter if it is no pipe
    task.target_reads =
        process_reads(task.options.pid, task.out) || process_reads(task.options.pid, STDERR_FILENO);
    return {};
}

// A named pipe opens when its reader does. A process that is only seized runs on, but its next signal stops
// it.
bool waits_for_reader(const dump_task& task) {
    struct stat found = {};
    return task.options.file && stat(task.options.file, &found) == 0 && S_ISFIFO(found.st_mode);
}

// By now it may be another program; its state is still the one before we stopped it.
void look_again(dump_task& task) {
    process_facts now;
    if (process_look(task.options.pid, now).empty()) {
        now.stat.state = task.facts.stat.state;
        task.facts = std::move(now);
    }
}

// Up to the point where its threads stand still. Returns an empty text, or why there is nothing to dump.
std::string begin(dump_task& task) {
    std::string reason = process_look(task.options.pid, task.facts);
    if (!reason.empty()) {
        return reason;
    }
    bool opens_first = waits_for_reader(task);
    if (opens_first && !(reason = open_output(task)).empty()) {
        return reason;
    }
    if (int error = threads_seize(task.options.pid, task.hold)) {
        return process_why_not(error, task.hold.tracer);
    }
    if (!opens_first && !(reason = open_output(task)).empty()) {
        return reason;
    }
    if (int error = threads_stop(task.hold)) {
        return process_why_not(error, task.hold.tracer);
    }
    look_again(task);
    return {};
}

void remark_on(const dump_task& task, const core_stream& stream) {
    bool one_ran = std::ranges::any_of(task.hold.threads,
                                       [](const held_thread& thread) { return !thread.has_registers; });
    if (task.target_reads || stream.let_go_early) {
        say(task.options.pid, "had to go on before its memory was read; the core is of no single moment");
    }
    if (one_ran) {
        say(task.options.pid, "has threads that did not stop; little is known about where they are");
    }
}

int write_core(dump_task& task) {
    pid_t tid = task.hold.threads.front().tid;
    target_memory memory = memory_open(tid);
    if (!threads_all_stopped(task.hold)) {
        memory_use_file(memory);  // one that runs may start another program
    }
    uint64_t filter = process_parse_filter(proc_text(tid, "coredump_filter", 64));
    core_layout layout = collect_layout(tid, memory, filter);
    if (layout.segments.empty()) {
        return nothing_to_dump(task.options.pid, "has no memory any more");
    }
    core_notes notes = notes_prepare(task.facts, task.hold, layout);
    core_places places = layout_places(layout, notes_length(notes));
    if (task.target_reads || !can_say()) {
        threads_let_go(task.hold);
        memory_use_file(memory);
    }
    control_say(STDERR_FILENO, control_line(places.length));
    core_stream stream = stream_new(task.out, task.hold);
    int error = core_write(notes, places, memory, stream);
    if (error != 0) {
        const char* name = task.options.file ? task.options.file : "standard output";
        say(task.options.pid, failed("cannot write to", name, error));
        return status_failed;
    }
    remark_on(task, stream);
    return status_whole;
}

}  // namespace

int main(int argc, char** argv) {
    dump_task task;
    if (const char* wrong = options_parse(argc, argv, task.options)) {
        control_say(STDERR_FILENO, std::string("dcore: ") + wrong + "\n" + dcore_usage);
        return status_usage;
    }
    ignore_signals();
    std::string reason = begin(task);
    if (!reason.empty()) {
        return nothing_to_dump(task.options.pid, reason);
    }
    return write_core(task);
}
