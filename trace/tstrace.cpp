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
constexpr int last_words_ms =
    100;  // for a reader that has to take something before the next write at the end

// Whether the reader takes more before the time is over; the signals that repeat the end interrupt the wait.
bool is_taken(int fd, int within_ms) {
    const deadline end(within_ms);
    pollfd out = {fd, POLLOUT, 0};
    while (poll(&out, 1, end.left_ms()) <= 0) {
        if (end.is_over()) {
            return false;
        }
    }
    return true;
}

// Writes all of a text. Returns false when the reader has gone, or when the user wants to end and the reader
// takes nothing.
bool write_text(int fd, const char* text, size_t length) {
    while (length > 0) {
        if (tracer_stopped() && !is_taken(fd, last_words_ms)) {
            return false;
        }
        ssize_t put = write(fd, text, length);
        if (put >= 0) {
            text += put;
            length -= static_cast<size_t>(put);
        } else if (errno == EAGAIN) {
            (void)is_taken(fd, tracer_repeat_ms);
        } else if (errno != EINTR) {
            return errno != EPIPE;
        }
    }
    return true;
}

int32_t tstrace_write(void* cookie, const char* text, int length) {
    static bool is_given_up = false;
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    if (!is_given_up && !write_text(fd, text, static_cast<size_t>(length))) {
        is_given_up = true;  // from now on nothing is written, so that nobody is held for it
        tracer_stop();
    }
    return tracer_stopped() ? 0 : 1;
}

}  // namespace

int run_tstrace(int argc, char** argv) {
    return tracer_run(argc, argv, {usage, strace_everything, tstrace_write, nullptr, true});
}
