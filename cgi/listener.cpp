#include "cgi/listener.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cgi/request.h"
#include "cgi/stored_dump.h"
#include "cgi/waiting_browser.h"
#include "common/exhaustion.h"
#include "common/unique_fd.h"
#include "platform/qorlink.h"

namespace {

constexpr int receive_limit = 4095;

// A write to a browser that has stopped reading fails after this time, long before an archive phase's alarm
// would end the daemon. A slow browser that keeps reading is served to the end.
constexpr unsigned stalled_browser_ms = 120000;

// A writer that waits for space continues after the browser has read about this much more. By default the
// kernel wakes it only when a third of the send buffer is free, and that buffer grows to megabytes: a browser
// that reads 1 kB/s would seem to have stopped for longer than an archive's phase may take.
constexpr int unsent_limit = 65536;

// The pause after a failure that leaves the connection in the queue, such as no free descriptor. Without it
// the loop would spin until a worker has ended.
constexpr useconds_t exhausted_pause_us = 10000;

// The pause after poll(2) has failed or a socket reports an error, which may not pass soon.
constexpr useconds_t broken_pause_us = 100000;

// One byte more than the limit, for the zero byte that ends the query.
char request_text[receive_limit + 1];

void prepare_connection(int fd) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    // Writers retry EAGAIN at once, so they would spin on a non-blocking connection.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    // These fail on connections other than TCP, which does no harm.
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &stalled_browser_ms, sizeof stalled_browser_ms);
    setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsent_limit, sizeof unsent_limit);
}

// Pauses if the last call found no free descriptor or memory.
void pause_if_exhausted() {
    if (is_exhaustion(errno)) {
        usleep(exhausted_pause_us);
    }
}

// Serves one request. Returns false if no message was received.
bool serve_request(const listener_options& options) {
    int client_fd = -1;
    errno = 0;
    int length = qorlink_recv(options.cgi_socket, request_text, receive_limit, &client_fd);
    if (length < 1 || client_fd < 0) {
        unique_fd(client_fd).reset();  // some libraries leave the descriptor of a bad message open
        pause_if_exhausted();
        return false;
    }
    request_text[length] = '\0';
    prepare_connection(client_fd);
    pre_process_request(client_fd, request_text, length);
    if (is_pop()) {
        pop_stored_dump(options.dump_dir);
    }
    return true;
}

void serve_push(int segfault_socket) {
    int connection = accept4(segfault_socket, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
        pause_if_exhausted();
        return;
    }
    (void)handle_request_push(connection, "core");  // if no browser waits, the core is dropped
}

}  // namespace

void listener_round(const listener_options& options) {
    pollfd sockets[] = {{options.cgi_socket, POLLIN, 0}, {options.segfault_socket, POLLIN, 0}};
    if (poll(sockets, 2, -1) < 0) {
        const bool interrupted = errno == EINTR;
        perror("select");
        if (!interrupted) {
            usleep(broken_pause_us);
        }
        return;
    }
    if (((sockets[0].revents | sockets[1].revents) & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        usleep(broken_pause_us);
    }
    if (sockets[0].revents != 0 && !serve_request(options)) {
        return;
    }
    if (sockets[1].revents != 0) {
        serve_push(options.segfault_socket);
    }
}

void run_listener(const listener_options& options) {
    for (;;) {
        listener_round(options);
    }
}
