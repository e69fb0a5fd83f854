#include "cgi/worker_strace.h"

#include <errno.h>
#include <limits.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/monotonic.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"
#include "trace/strace.h"

namespace {

constexpr int wake_up_signal = SIGUSR1;
constexpr int wake_up_again_ms = 20;

// How often it is looked whether a slow client has taken something, and how much it gets at once: a local
// socket counts only whole pieces as taken.
constexpr int look_again_ms = 50;
constexpr size_t largest_piece = 4096;
constexpr int large_segment = 16384;

void on_wake_up(int /*sig*/) {}

// Without SA_RESTART: what the signal is for is to interrupt the tracer's wait.
void install_wake_up() {
    struct sigaction action = {};
    action.sa_handler = on_wake_up;
    sigemptyset(&action.sa_mask);
    sigaction(wake_up_signal, &action, nullptr);
}

// How text is sent. Segments of the loopback interface are so large that a slow client's buffer has to empty
// for many seconds before the next one is let in. There each piece becomes a segment of its own.
int send_flags(int fd) {
    int segment = 0;
    socklen_t size = sizeof segment;
    const bool is_large =
        getsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &segment, &size) == 0 && segment > large_segment;
    return MSG_DONTWAIT | MSG_NOSIGNAL | (is_large ? MSG_EOR : 0);
}

// When the client last took something, as far as that can be seen.
struct client_progress {
    int64_t since_ns = monotonic_ns();
    int queued = INT_MAX;  // bytes that it had still to take
};

// Waits for a moment or until much can be written; false when the client has taken nothing for as long as it
// may. The watcher's signals interrupt the wait. That much can be written is not waited for: it takes a good
// part of the send buffer, which is minutes for a slow client.
bool wait_for_client(const strace_request* req, client_progress* progress) {
    pollfd client = {req->client_fd, POLLOUT, 0};
    (void)poll(&client, 1, look_again_ms);
    int queued = 0;
    (void)ioctl(req->client_fd, SIOCOUTQ, &queued);
    const int64_t now_ns = monotonic_ns();
    if (queued < progress->queued) {
        progress->since_ns = now_ns;
    }
    progress->queued = queued;
    return (now_ns - progress->since_ns) / 1000000 < (req->running ? strace_stall_ms : strace_last_words_ms);
}

// Writes to the client without waiting longer than the client may stall. Failures are not reported: that the
// client has gone is the watcher's to see.
void write_patiently(strace_request* req, const char* text, size_t length) {
    client_progress progress;
    const int flags = send_flags(req->client_fd);
    while (length > 0 && !req->stalled) {
        ssize_t put = send(req->client_fd, text, std::min(length, largest_piece), flags);
        if (put >= 0) {
            progress = client_progress();
            text += put;
            length -= static_cast<size_t>(put);
        } else if (errno == ENOTSOCK) {
            (void)safe_write(req->client_fd, text, static_cast<unsigned>(length));
            return;
        } else if (errno == EAGAIN) {
            req->stalled = !wait_for_client(req, &progress);
        } else if (errno != EINTR) {
            return;
        }
    }
}

int32_t cb_strace(void* cookie, const char* text, int length) {
    strace_request* req = static_cast<strace_request*>(cookie);
    write_patiently(req, text, static_cast<size_t>(length));
    if (req->stalled) {
        req->running = 0;
    }
    // Only a poll ends the trace; the result of a write is not looked at.
    if (length == 0 && !req->running) {
        req->noticed = 1;
    }
    return req->running;
}

void stream_trace(strace_request* req) {
    stream_http_header(req->client_fd, "text/plain", "stracedump.txt");
    strace_ctx ctx = {};
    ctx.write = cb_strace;
    ctx.cookie = req;
    ctx.flags = strace_everything;
    ctx.pids = req->pids;
    ctx.nr_pids = req->pid_count;
    ctx.seconds = -1;
    do_strace(&ctx);
}

void end_watcher(strace_request* req, pthread_t watcher) {
    req->running = 0;
    req->noticed = 1;
    const uint64_t one = 1;
    (void)safe_write(req->over_fd, &one, sizeof one);
    pthread_join(watcher, nullptr);
}

// Interrupts the worker's wait until it has noticed: a signal that comes just before the wait does nothing.
void wake_worker(strace_request* req) {
    while (!req->noticed) {
        pthread_kill(req->thread, wake_up_signal);
        pollfd over = {req->over_fd, POLLIN, 0};
        (void)poll(&over, 1, wake_up_again_ms);
    }
}

}  // namespace

void* run_strace_request(void* record) {
    unique_malloc<strace_request> req(static_cast<strace_request*>(record));
    worker_assert(req != nullptr, "req", 470, "run_strace_request");
    unique_fd client(req->client_fd);
    req->thread = pthread_self();
    unique_fd over(eventfd(0, EFD_CLOEXEC));
    req->over_fd = over.get();
    if (!worker_detach(client.get())) {
        return nullptr;
    }
    // Before the thread that sends the signal is there.
    install_wake_up();
    pthread_t watcher;
    if (!over || pthread_create(&watcher, nullptr, run_strace_watcher, req.get()) != 0) {
        http_write_fixed(client.get(), http_server_error);
        return nullptr;
    }
    stream_trace(req.get());
    end_watcher(req.get(), watcher);
    return nullptr;
}

void* run_strace_watcher(void* record) {
    strace_request* req = static_cast<strace_request*>(record);
    worker_assert(req != nullptr, "req", 431, "run_strace_watcher");
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): it is not null, by the line before
    pollfd watched[] = {{req->client_fd, POLLIN | POLLRDHUP, 0}, {req->over_fd, POLLIN, 0}};
    for (;;) {
        if (poll(watched, 2, -1) < 0) {
            if (!req->running) {
                return nullptr;
            }
            continue;
        }
        if (watched[1].revents != 0) {
            return nullptr;
        }
        break;
    }
    if (req->running.exchange(0) != 0) {
        wake_worker(req);
    }
    return nullptr;
}
