#include "dump/dumper.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "common/deadline.h"
#include "common/safe_io.h"
#include "common/sys_run.h"
#include "common/temp_file.h"
#include "common/unique_pipe.h"

namespace {

// After a dumper was killed, processes that it had started may still hold its pipes.
constexpr int killed_timeout_ms = 1000;
constexpr size_t copy_block = 16384;
constexpr int longest_reap_pause_ms = 10;

struct dumper_settings {
    char** argv = nullptr;
    int argc = 0;  // entries up to and including the first null, which the pid replaces
    int null_fd = -1;
    int timeout_ms = dump_default_timeout_ms;
};
dumper_settings settings;

// Returns a copy of the argument vector with the pid. Concurrent runs must not share one: the second would
// replace the first one's pid before the first has started its dumper.
malloc_array<char*> arguments_for(char* pid_text) {
    size_t count = static_cast<size_t>(settings.argc);
    malloc_array<char*> argv = calloc_array<char*>(count + 1);
    if (argv) {
        std::copy_n(settings.argv, count - 1, argv.get());
        argv[count - 1] = pid_text;
    }
    return argv;
}

void kill_dumper(dump_run* run) {
    if (run->child > 0 && !run->is_killed) {
        fprintf(stderr, "dump: killed the dumper of pid %d: timed out\n", static_cast<int>(run->pid));
        kill(run->child, SIGKILL);
        run->is_killed = true;
    }
}

// The streams of a run that can be read or are at end of file.
struct ready_streams {
    bool data = false;
    bool control = false;
};

// Waits until `limit`. If neither stream is ready then, kills the dumper.
ready_streams wait_for_output(dump_run* run, const deadline& limit) {
    pollfd streams[] = {{run->data.get(), POLLIN, 0}, {run->control.get(), POLLIN, 0}};  // poll skips -1
    int ready = 0;
    // A dumper that writes without end must time out, too, so the time is checked even if poll would succeed.
    while (!limit.is_over()) {
        ready = poll(streams, 2, limit.left_ms());
        if (ready >= 0 || errno != EINTR) {
            break;
        }
    }
    if (ready <= 0) {
        kill_dumper(run);
        return {};
    }
    return {streams[0].revents != 0, streams[1].revents != 0};
}

// Reads up to `copy_block` bytes and closes the stream at its end. Returns the number of bytes.
size_t read_block(unique_fd* stream, char* block) {
    ssize_t count = read(stream->get(), block, copy_block);
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) {
        stream->reset();
    }
    return count > 0 ? static_cast<size_t>(count) : 0;
}

// Messages go to a file: it is not known if they are wanted until the core has ended, and a dumper whose
// messages are not read would block before its core is complete.
void keep_messages(dump_run* run, const char* bytes, size_t length) {
    if (length == 0 || run->message_bytes == dump_messages_limit) {
        return;
    }
    if (!run->messages) {
        run->messages = temp_file_unlinked("/tmp/.dumpmsgXXXXXX");
    }
    length = std::min(length, dump_messages_limit - run->message_bytes);
    (void)safe_write(run->messages.get(), bytes,
                     static_cast<unsigned>(length));  // a failure only loses messages
    run->message_bytes += length;
}

// Writes the part of a block that is within the sink's limit; `offset` is the block's position in the core.
bool write_block(const core_sink& sink, int64_t offset, const char* block, size_t length) {
    const int64_t wanted = std::clamp<int64_t>(sink.limit - offset, 0, static_cast<int64_t>(length));
    return wanted == 0 || sink.write(sink.cookie, block, static_cast<size_t>(wanted));
}

// Reads both streams to their ends. Messages go to `message_fd`; with `keep_fd` they are kept.
constexpr int keep_fd = -1;

void drain(dump_run* run, int message_fd) {
    char block[copy_block];
    const deadline limit(run->is_killed ? killed_timeout_ms : settings.timeout_ms);
    while (run->data || run->control) {
        const ready_streams ready = wait_for_output(run, limit);
        if (!ready.data && !ready.control) {
            break;
        }
        if (ready.data) {
            (void)read_block(&run->data, block);
        }
        if (ready.control) {
            const size_t length = read_block(&run->control, block);
            if (message_fd == keep_fd) {
                keep_messages(run, block, length);
            } else {
                (void)safe_write(message_fd, block, static_cast<unsigned>(length));
            }
        }
    }
    run->data.reset();
    run->control.reset();
}

// Returns what sys_wait_end returned last: 0 after the timeout.
pid_t reap(pid_t child, int* status) {
    const deadline limit(settings.timeout_ms);
    for (int pause_ms = 1;; pause_ms = std::min(2 * pause_ms, longest_reap_pause_ms)) {
        pid_t ended = sys_wait_end(child, status, WNOHANG);
        if (ended != 0 || limit.is_over()) {
            return ended;
        }
        poll(nullptr, 0, pause_ms);
    }
}

}  // namespace

void dump_set_dumper(char** argv) {
    settings.argv = argv;
    settings.argc = 1;
    while (argv[settings.argc - 1]) {
        settings.argc++;
    }
}

void dump_init() {
    settings.null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
}

void dump_set_timeout(int timeout_ms) {
    settings.timeout_ms = timeout_ms;
}

bool dump_start(pid_t pid, dump_run* run) {
    char pid_text[16];
    snprintf(pid_text, sizeof pid_text, "%d", static_cast<int>(pid));
    malloc_array<char*> argv = arguments_for(pid_text);
    unique_pipe control = argv ? pipe_open() : unique_pipe();
    unique_pipe data = control ? pipe_open() : unique_pipe();
    if (!data) {
        perror("pipes");
        return false;
    }
    run->pid = pid;
    run->child =
        sys_run_nowait(argv[0], argv.get(), STDIN_FILENO, data.write_end.get(), control.write_end.get(), 0);
    run->control = std::move(control.read_end);
    run->data = std::move(data.read_end);
    return true;
}

bool dump_read_control(dump_run* run, control_text* text) {
    if (run->child < 0) {
        return false;
    }
    int error = dump_read_ctl_line(run->control.get(), settings.timeout_ms, text);
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
    deadline limit(settings.timeout_ms);
    while (run->data) {
        const ready_streams ready = wait_for_output(run, limit);
        if (!ready.data && !ready.control) {
            break;
        }
        if (ready.control) {
            keep_messages(run, block, read_block(&run->control, block));
        }
        if (ready.data) {
            // Bytes beyond the sink's limit are no progress: a dumper that never stops writing must time out.
            const bool is_progress = copied < sink.limit;
            const size_t length = read_block(&run->data, block);
            if (write_block(sink, copied, block, length)) {
                copied += static_cast<int64_t>(length);
            } else if (errno == EPIPE) {
                return -1;
            }
            if (is_progress) {
                limit = deadline(
                    settings.timeout_ms);  // after the write: a slow reader does not use up the dumper's time
            }
        }
    }
    return copied;
}

void dump_discard(dump_run* run) {
    drain(run, settings.null_fd);
    run->messages.reset();
}

void dump_keep(dump_run* run) {
    drain(run, keep_fd);
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
    const pid_t child = run->child;
    if (child < 0) {
        return false;
    }
    int status = 0;
    pid_t ended = reap(child, &status);
    if (ended == 0) {
        kill_dumper(run);
        ended = reap(child, &status);
    }
    run->child = -1;
    return ended == child && status == 0;
}
