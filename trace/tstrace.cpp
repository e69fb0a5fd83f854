#include "trace/tstrace.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <unistd.h>

#include "common/deadline.h"
#include "trace/tracer_command.h"

namespace {

constexpr const char* usage =
    "USAGE: tstrace [ -ppid ] [ command [ arg ... ] ]\n\n"
    "-p<pid>\tAdd a pid to trace, can be given multiple times.";
// How long a write waits for a slow reader when the applet is to end.
constexpr int end_patience_ms = 100;

// Waits until `fd` can be written to. Returns false after `timeout_ms`. SIGINT, which repeats, does not end
// the wait.
bool wait_until_writable(int fd, int timeout_ms) {
    const deadline end(timeout_ms);
    pollfd out = {fd, POLLOUT, 0};
    while (poll(&out, 1, end.left_ms()) <= 0) {
        if (end.is_over()) {
            return false;
        }
    }
    return true;
}

// Writes the whole text. Returns false if the reader has gone, or if it reads nothing while the applet is to
// end.
bool write_text(int fd, const char* text, size_t length) {
    while (length > 0) {
        if (tracer_is_stopped() && !wait_until_writable(fd, end_patience_ms)) {
            return false;
        }
        ssize_t written = write(fd, text, length);
        if (written >= 0) {
            text += written;
            length -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) {
            (void)wait_until_writable(fd, tracer_repeat_ms);
        } else if (errno != EINTR) {
            return errno != EPIPE;
        }
    }
    return true;
}

int32_t tstrace_write(void* cookie, const char* text, int length) {
    static bool output_failed = false;
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    if (!output_failed && !write_text(fd, text, static_cast<size_t>(length))) {
        output_failed = true;  // no more writes: traced processes would stand still meanwhile
        tracer_stop();
    }
    return tracer_is_stopped() ? 0 : 1;
}

}  // namespace

int run_tstrace(int argc, char** argv) {
    return tracer_run(argc, argv, {usage, strace_everything, tstrace_write, nullptr, true});
}
