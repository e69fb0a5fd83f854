#include "dump/dumper.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>

#include "common/deadline.h"
#include "common/fd_range.h"
#include "common/proc_path.h"
#include "common/safe_io.h"
#include "common/shared_object.h"
#include "common/sys_run.h"
#include "common/temp_file.h"

namespace {

// Less than the 300 seconds after which a silent archive would end the whole daemon.
constexpr int default_patience_ms = 240000;
// From the death of a dumper to the end of its output; what it started itself may hold on for longer.
constexpr int killed_patience_ms = 1000;
constexpr size_t copy_block = 16384;
constexpr size_t kept_messages_limit = 1048576;
constexpr int longest_reap_pause_ms = 10;

struct dumper_settings {
    char** argv = nullptr;
    int argc = 0;  // entries up to and including the first null, whose place the pid takes
    int null_fd = -1;
    int patience_ms = default_patience_ms;
};
dumper_settings dumper;

// The vector of one run, which is the run's own: two at once must not get each other's pids.
malloc_array<char*> arguments_for(char* pid_text) {
    size_t count = static_cast<size_t>(dumper.argc);
    malloc_array<char*> argv = calloc_array<char*>(count + 1);
    if (argv) {
        std::copy_n(dumper.argv, count - 1, argv.get());
        argv[count - 1] = pid_text;
    }
    return argv;
}

bool open_pipe(unique_fd* read_end, unique_fd* write_end) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        return false;
    }
    *read_end = unique_fd(ends[0]);
    *write_end = unique_fd(ends[1]);
    return true;
}

void kill_dumper(dump_run* run) {
    if (run->child > 0 && !run->is_killed) {
        fprintf(stderr, "dump: gave up on the dumper of pid %d\n", static_cast<int>(run->pid));
        kill(run->child, SIGKILL);
        run->is_killed = true;
    }
}

struct output_state {
    bool has_data = false;
    bool has_control = false;
};

// Waits until the dumper has written something or has come to the end of it; false when time is over first.
bool wait_for_output(const dump_run& run, const deadline& limit, output_state* state) {
    // A descriptor of -1 is passed over.
    pollfd streams[] = {{run.data.get(), POLLIN, 0}, {run.control.get(), POLLIN, 0}};
    int ready;
    do {
        ready = poll(streams, 2, limit.left_ms());
    } while (ready < 0 && errno == EINTR);
    *state = {streams[0].revents != 0, streams[1].revents != 0};
    return ready > 0;
}

// Takes what has come, `copy_block` bytes at most, and closes the stream at its end.
size_t take(unique_fd* stream, char* block) {
    ssize_t got = read(stream->get(), block, copy_block);
    if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) {
        stream->reset();
    }
    return got > 0 ? static_cast<size_t>(got) : 0;
}

// Whether they are wanted is known only after the core has been copied, and a dumper that can't get rid of
// them would not write its core.
void keep_messages(dump_run* run, const char* bytes, size_t length) {
    if (length == 0 || run->message_bytes == kept_messages_limit) {
        return;
    }
    if (!run->messages) {
        run->messages = temp_file_unlinked("/tmp/.dumpmsgXXXXXX");
    }
    length = std::min(length, kept_messages_limit - run->message_bytes);
    (void)safe_write(run->messages.get(), bytes, static_cast<unsigned>(length));  // else they are lost
    run->message_bytes += length;
}

// Hands over what the sink still wants after `before` bytes.
bool give(const core_sink& sink, int64_t before, const char* block, size_t length) {
    const int64_t wanted = std::clamp<int64_t>(sink.limit - before, 0, static_cast<int64_t>(length));
    return wanted == 0 || sink.write(sink.cookie, block, static_cast<size_t>(wanted));
}

// Reads all to its end. Messages go to `message_fd`, or, where that is `keep_them`, to those kept.
constexpr int keep_them = -1;

void drain(dump_run* run, int message_fd) {
    char block[copy_block];
    deadline limit(run->is_killed ? killed_patience_ms : dumper.patience_ms);
    while (run->data || run->control) {
        output_state output;
        // Not only silence: one that never comes to an end must not hold its caller either.
        if (limit.is_over() || !wait_for_output(*run, limit, &output)) {
            kill_dumper(run);
            break;
        }
        if (output.has_data) {
            (void)take(&run->data, block);
        }
        if (output.has_control) {
            size_t length = take(&run->control, block);
            if (message_fd == keep_them) {
                keep_messages(run, block, length);
            } else {
                (void)safe_write(message_fd, block, static_cast<unsigned>(length));
            }
        }
    }
    run->data.reset();
    run->control.reset();
}

// Returns what waitpid(2) did, which is 0 when the time is over.
pid_t reap(pid_t child, int* status) {
    deadline limit(dumper.patience_ms);
    for (int pause_ms = 1;; pause_ms = std::min(2 * pause_ms, longest_reap_pause_ms)) {
        pid_t ended = sys_wait_end(child, status, WNOHANG);
        if (ended != 0 || limit.is_over()) {
            return ended;
        }
        poll(nullptr, 0, pause_ms);
    }
}

// How a single core was made.
struct core_outcome {
    int64_t copied = 0;     // bytes, or -1 when the browser went away
    bool is_good = false;   // the dumper ended by itself, with 0
    char reason[256] = "";  // what the dumper said, or why there was none; not more than one line
};

bool write_to_browser(void* cookie, const void* data, size_t length) {
    return safe_write(*static_cast<const int*>(cookie), data, static_cast<unsigned>(length)) >= 0;
}

// The beginning of what the dumper said, as one line.
void take_reason(const dump_run& run, core_outcome* outcome) {
    char(&text)[sizeof outcome->reason] = outcome->reason;
    ssize_t length = run.messages ? pread(run.messages.get(), text, sizeof text - 1, 0) : 0;
    length = std::max<ssize_t>(length, 0);
    while (length > 0 && text[length - 1] == '\n') {
        length--;
    }
    text[length] = '\0';
    std::replace_if(
        text, text + length, [](unsigned char c) { return c < ' '; }, ' ');
    if (length == 0) {
        snprintf(text, sizeof text, "%s",
                 run.child < 0 ? "the dumper was not started" : "the dumper said nothing");
    }
}

void stream_core(int fd, pid_t pid, core_outcome* outcome) {
    dump_run run;
    if (!dump_start(pid, &run)) {
        snprintf(outcome->reason, sizeof outcome->reason, "%s", strerror(errno));
        return;
    }
    outcome->copied = dump_copy_core(&run, {write_to_browser, &fd});
    drain(&run, keep_them);
    take_reason(run, outcome);
    outcome->is_good = dump_end(&run);
    if (!outcome->is_good) {
        fprintf(stderr, "dump error for pid %d\n", static_cast<int>(pid));
    }
}

// A browser that has gone is no failure.
void log_outcome(pid_t pid, const core_outcome& outcome) {
    if (outcome.copied == 0) {
        syslog(LOG_ERR, "No core of pid %d: %s", static_cast<int>(pid), outcome.reason);
    } else if (outcome.copied > 0 && !outcome.is_good) {
        syslog(LOG_ERR, "Core of pid %d is not complete: %s", static_cast<int>(pid), outcome.reason);
    }
}

bool is_own_thread(pid_t pid) {
    return access(proc_path(pid, "", "/proc/self/task").text, F_OK) == 0;
}

// The dumper may stop this process until all of the core has been taken off its hands, which has to be
// another process's work then.
void stream_own_core(int fd, pid_t pid, core_outcome* outcome) {
    shared_object<core_outcome> told;
    fflush(stdout);
    pid_t child = told ? fork() : -1;
    if (child < 0) {
        snprintf(outcome->reason, sizeof outcome->reason, "%s", strerror(errno));
        perror("fork");
        return;
    }
    if (child == 0) {
        constexpr int kept_fd = STDERR_FILENO + 1;
        dup2(fd, kept_fd);
        fcntl(kept_fd, F_SETFD, FD_CLOEXEC);
        fd_range_close_from(kept_fd + 1);
        dump_init();
        stream_core(kept_fd, pid, told.get());
        _exit(0);
    }
    int status;
    (void)sys_wait_end(child, &status, 0);
    *outcome = *told.get();
}

}  // namespace

void dump_set_dumper(char** argv) {
    dumper.argv = argv;
    dumper.argc = 1;
    while (argv[dumper.argc - 1]) {
        dumper.argc++;
    }
}

void dump_init() {
    dumper.null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
}

void dump_set_patience(int ms) {
    dumper.patience_ms = ms;
}

bool dump_start(pid_t pid, dump_run* run) {
    unique_fd control_end;
    unique_fd data_end;
    char pid_text[16];
    snprintf(pid_text, sizeof pid_text, "%d", static_cast<int>(pid));
    malloc_array<char*> argv = arguments_for(pid_text);
    if (!argv || !open_pipe(&run->control, &control_end) || !open_pipe(&run->data, &data_end)) {
        perror("pipes");
        return false;
    }
    run->pid = pid;
    run->child = sys_run_nowait(argv[0], argv.get(), STDIN_FILENO, data_end.get(), control_end.get(), 0);
    return true;
}

bool dump_read_control(dump_run* run, control_text* text) {
    if (run->child < 0) {
        return false;
    }
    int error = dump_read_ctl_line(run->control.get(), text, dumper.patience_ms);
    if (error == ETIMEDOUT) {
        kill_dumper(run);
    }
    if (error != 0) {
        return false;
    }
    keep_messages(run, text->rest().data(), text->rest().size());
    return true;
}

int64_t dump_copy_core(dump_run* run, const core_sink& sink) {
    char block[copy_block];
    int64_t copied = 0;
    deadline limit(dumper.patience_ms);
    while (run->data) {
        output_state output;
        // One that goes on talking without writing its core hangs as well.
        if (limit.is_over() || !wait_for_output(*run, limit, &output)) {
            kill_dumper(run);
            break;
        }
        if (output.has_control) {
            keep_messages(run, block, take(&run->control, block));
        }
        if (output.has_data) {
            // What nobody wants is no progress: one that writes it for ever hangs as well.
            const bool is_wanted = copied < sink.limit;
            size_t length = take(&run->data, block);
            if (give(sink, copied, block, length)) {
                copied += static_cast<int64_t>(length);
            } else if (errno == EPIPE) {
                return -1;
            }
            if (is_wanted) {
                limit = deadline(dumper.patience_ms);  // the time that the reader took is not the dumper's
            }
        }
    }
    return copied;
}

void dump_discard(dump_run* run) {
    drain(run, dumper.null_fd);
    run->messages.reset();
}

void dump_show(dump_run* run) {
    if (run->messages) {
        lseek(run->messages.get(), 0, SEEK_SET);
        (void)safe_copyfd(run->messages.get(), STDERR_FILENO);
    }
    drain(run, STDERR_FILENO);
    run->messages.reset();
}

bool dump_end(dump_run* run) {
    int status = 0;
    pid_t child = run->child;
    if (child < 0) {
        return false;
    }
    pid_t ended = reap(child, &status);
    if (ended == 0) {
        kill_dumper(run);
        ended = reap(child, &status);
    }
    run->child = -1;
    return ended == child && status == 0;
}

void coredump(int fd, int pid) {
    core_outcome outcome;
    (is_own_thread(pid) ? stream_own_core : stream_core)(fd, pid, &outcome);
    log_outcome(pid, outcome);
}
