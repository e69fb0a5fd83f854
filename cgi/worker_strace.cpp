#include "cgi/worker_strace.h"

#include <errno.h>
#include <limits.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "cgi/download_name.h"
#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/monotonic.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"
#include "proc/proc_list.h"
#include "trace/strace.h"

namespace {

constexpr int wake_up_signal = SIGUSR1;
constexpr int wake_up_again_ms = 20;

// How often a slow client's progress is checked, and the size of the pieces that show it: local sockets and
// the loopback interface count only whole pieces as taken.
constexpr int check_progress_ms = 50;
constexpr size_t piece_size = 1024;
constexpr int large_segment = 16384;

void on_wake_up(int /*sig*/) {}

// Without SA_RESTART, since the signal is there to interrupt the tracer's wait.
void install_wake_up() {
    struct sigaction action = {};
    action.sa_handler = on_wake_up;
    sigaction(wake_up_signal, &action, nullptr);
}

// True if the kernel would gather more than one piece into a segment, as on the loopback interface. A slow
// client then has to read for many seconds before its window admits the next segment.
bool has_large_segments(int fd) {
    int segment = 0;
    socklen_t size = sizeof segment;
    return getsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &segment, &size) == 0 && segment > large_segment;
}

// Sends up to one piece. Where segments are large, the end of each piece ends a segment. No segment is ended
// earlier: the overhead of short ones makes the client's kernel enlarge its buffer, and the window of a large
// buffer opens in steps of many seconds, too.
ssize_t send_piece(strace_request* req, const char* text, size_t length) {
    const size_t size = std::min(length, piece_size - req->piece_used);
    const bool ends_segment = req->piece_used + size == piece_size && has_large_segments(req->client.get());
    const ssize_t sent =
        send(req->client.get(), text, size, MSG_DONTWAIT | MSG_NOSIGNAL | (ends_segment ? MSG_EOR : 0));
    if (sent > 0) {
        req->piece_used = (req->piece_used + static_cast<size_t>(sent)) % piece_size;
    }
    return sent;
}

// When the client last took something.
struct client_progress {
    int64_t since_ns = monotonic_ns();
    int queued = INT_MAX;  // bytes that it had not taken by then
};

// Waits up to check_progress_ms for the client. Returns false once it has stalled. The watcher's signals
// interrupt the wait. POLLOUT alone is not enough: it needs a third of the send
// buffer to be free, which takes a slow client minutes.
bool wait_for_client(const strace_request* req, client_progress* progress) {
    pollfd client = {req->client.get(), POLLOUT, 0};
    (void)poll(&client, 1, check_progress_ms);
    int queued = 0;
    (void)ioctl(req->client.get(), SIOCOUTQ, &queued);
    const int64_t now_ns = monotonic_ns();
    if (queued < progress->queued) {
        progress->since_ns = now_ns;
    }
    progress->queued = queued;
    return (now_ns - progress->since_ns) / 1000000 < (req->running ? strace_stall_ms : strace_last_words_ms);
}

// Writes to the client until it stalls. Failures are not reported here: the watcher notices a client that is
// gone.
void write_patiently(strace_request* req, const char* text, size_t length) {
    client_progress progress;
    while (length > 0 && !req->stalled) {
        const ssize_t sent = send_piece(req, text, length);
        if (sent >= 0) {
            progress = client_progress();
            text += sent;
            length -= static_cast<size_t>(sent);
        } else if (errno == ENOTSOCK) {
            (void)safe_write(req->client.get(), text, static_cast<unsigned>(length));
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
    // A call without text asks whether to go on. The engine ignores the result of the others.
    if (length == 0 && !req->running) {
        req->noticed = 1;
    }
    return req->running;
}

download_name timed_trace_name(const strace_request& req) {
    constexpr const char* kind = "trace";
    constexpr const char* suffix = "txt";
    if (req.pid_count != 1) {
        return download_name_of_host(kind, suffix);
    }
    const pid_t pid = req.pids[0];
    char name[256];
    char subject[64];
    const bool has_name = proc_get_pidname(pid, name, sizeof name) == 1;
    snprintf(subject, sizeof subject, "%.48s-%d", has_name ? name : "unknown", pid);
    return download_name_now(kind, subject, suffix);
}

void stream_trace(strace_request* req) {
    stream_http_header(req->client.get(), "text/plain",
                       req->timed ? timed_trace_name(*req).text : "stracedump.txt");
    strace_ctx ctx = {};
    ctx.write = cb_strace;
    ctx.cookie = req;
    ctx.flags = strace_everything;
    ctx.pids = req->pids;
    ctx.nr_pids = req->pid_count;
    ctx.seconds = -1;
    ctx.timed = req->timed;
    do_strace(&ctx);
}

void end_watcher(strace_request* req, pthread_t watcher) {
    req->running = 0;
    req->noticed = 1;
    const uint64_t one = 1;
    (void)safe_write(req->over.get(), &one, sizeof one);
    pthread_join(watcher, nullptr);
}

// Interrupts the worker's wait again and again until the worker has noticed: a signal that arrives just
// before the worker begins to wait has no effect.
void wake_worker(strace_request* req) {
    while (!req->noticed) {
        pthread_kill(req->thread, wake_up_signal);
        pollfd over = {req->over.get(), POLLIN, 0};
        (void)poll(&over, 1, wake_up_again_ms);
    }
}

}  // namespace

void* run_strace_request(void* record) {
    unique_worker_record<strace_request> req(static_cast<strace_request*>(record));
    worker_assert(req != nullptr, "req", 470, "run_strace_request");
    req->thread = pthread_self();
    req->over = unique_fd(eventfd(0, EFD_CLOEXEC));
    if (!worker_detach(req->client.get())) {
        return nullptr;
    }
    // Before the thread that sends the signal exists.
    install_wake_up();
    pthread_t watcher;
    if (!req->over || pthread_create(&watcher, nullptr, run_strace_watcher, req.get()) != 0) {
        http_write_fixed(req->client.get(), http_server_error);
        return nullptr;
    }
    stream_trace(req.get());
    end_watcher(req.get(), watcher);
    return nullptr;
}

void* run_strace_watcher(void* record) {
    strace_request* req = static_cast<strace_request*>(record);
    worker_assert(req != nullptr, "req", 431, "run_strace_watcher");
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): worker_assert has checked it
    pollfd watched[] = {{req->client.get(), POLLIN | POLLRDHUP, 0}, {req->over.get(), POLLIN, 0}};
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
