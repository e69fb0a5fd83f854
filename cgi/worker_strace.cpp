#include "cgi/worker_strace.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"
#include "common/uptime.h"
#include "trace/strace.h"

namespace {

constexpr int wake_up_signal = SIGUSR1;
constexpr int wake_up_again_ms = 20;

void on_wake_up(int /*sig*/) {}

// Without SA_RESTART: what the signal is for is to interrupt the tracer's wait.
void install_wake_up() {
    struct sigaction action = {};
    action.sa_handler = on_wake_up;
    sigemptyset(&action.sa_mask);
    sigaction(wake_up_signal, &action, nullptr);
}

// Waits until the client takes something; false when it has not done so since `since_ns` for as long as it
// may. The watcher's signals interrupt the wait.
bool wait_for_client(const strace_request* req, int64_t since_ns) {
    const int64_t waited_ms = (monotonic_ns() - since_ns) / 1000000;
    const int64_t left_ms = (req->running ? strace_stall_ms : strace_last_words_ms) - waited_ms;
    pollfd client = {req->client_fd, POLLOUT, 0};
    return left_ms > 0 && poll(&client, 1, static_cast<int>(left_ms)) != 0;
}

// Writes to the client without waiting longer than the client may stall. Failures are not reported: that the
// client has gone is the watcher's to see.
void write_patiently(strace_request* req, const char* text, size_t length) {
    int64_t since_ns = monotonic_ns();
    while (length > 0 && !req->stalled) {
        ssize_t put = send(req->client_fd, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (put >= 0) {
            since_ns = monotonic_ns();
            text += put;
            length -= static_cast<size_t>(put);
        } else if (errno == ENOTSOCK) {
            (void)safe_write(req->client_fd, text, static_cast<unsigned>(length));
            return;
        } else if (errno == EAGAIN) {
            req->stalled = !wait_for_client(req, since_ns);
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
