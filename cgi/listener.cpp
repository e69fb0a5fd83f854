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

// A browser that stops reading fails its writer after this time, long before an archive phase's alarm would
// end the daemon. One that is slow but goes on reading is served to the end.
constexpr unsigned stalled_browser_ms = 120000;

// A writer that waits for space goes on when the browser has taken about this much more. By itself the kernel
// lets it wait until a third of the send buffer is free, which grows to megabytes: a browser that reads 1
// kB/s would seem to stand still for longer than an archive's phase may take.
constexpr int unsent_limit = 65536;

// The pause after a failure that leaves the connection in the queue, such as no descriptor being free:
// without it the loop would spin until a worker has ended.
constexpr useconds_t exhausted_pause_us = 10000;

// The pause after a failure of the wait itself, which may last.
constexpr useconds_t broken_pause_us = 100000;

// One byte more than is received, for the zero that ends the query.
char request_text[receive_limit + 1];

void prepare_connection(int fd) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    // The writers retry EAGAIN at once: on a non-blocking connection they would spin.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    // These fail harmlessly where the connection is not TCP.
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &stalled_browser_ms, sizeof stalled_browser_ms);
    setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsent_limit, sizeof unsent_limit);
}

// Pauses when the last call failed for want of something that only time brings back.
void pause_if_exhausted() {
    if (is_exhaustion(errno)) {
        usleep(exhausted_pause_us);
    }
}

// Serves one request; false when there was none to be had.
bool serve_request(const listener_options& options) {
    int client_fd = -1;
    errno = 0;
    int length = qorlink_recv(options.cgi_socket, request_text, receive_limit, &client_fd);
    if (length < 1 || client_fd < 0) {
        unique_fd(client_fd).reset();  // not every library takes back what came with a bad message
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
    (void)handle_request_push(connection, "core");  // nobody waiting, or gone meanwhile: the core is dropped
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
