// Stand-in for the descriptor-passing control socket: a Unix stream socket, one message for each connection.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "common/deadline.h"
#include "common/unique_fd.h"
#include "common/unix_address.h"

#pragma GCC visibility push(default)
#include "platform/qorlink.h"
#pragma GCC visibility pop

namespace {

constexpr int recv_limit_ms = 2000;   // the daemon has one listener, which no peer may hold for longer
constexpr int send_limit_ms = 10000;  // requests of a web front must not pile up while the daemon hangs
constexpr int backlog = 128;

// The kernel's limit on descriptors in one message (SCM_MAX_FD), so none can be lost.
constexpr size_t most_descriptors = 253;

int fail(int error) {
    errno = error;
    return -1;
}

// Waits until `fd` has one of `events`, an error or a hangup, or until `end`. False with errno set on
// failure; ETIMEDOUT after `end`.
bool wait_until(int fd, short events, const deadline& end) {
    for (;;) {
        if (end.is_over()) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd waiting = {fd, events, 0};
        int ready = poll(&waiting, 1, end.left_ms());
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

// Returns false with errno set if no socket file can have this path.
bool check_address(const unix_address& address, const char* path) {
    if (*path == '\0') {
        errno = ENOENT;  // it would be an abstract address, outside the file system
        return false;
    }
    if (!address.has_whole_path()) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

// Accepts the next connection, as a non-blocking socket; -1 with errno set if none comes in time. `sock` is
// made non-blocking too: the peer that made it readable may be gone before the accept.
int accept_until(int sock, const deadline& end) {
    for (;;) {
        if (!wait_until(sock, POLLIN, end)) {
            return -1;
        }
        int fd = accept4(sock, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0 || (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)) {
            return fd;
        }
    }
}

// The result of one read.
struct arrival {
    ssize_t bytes = -1;      // 0 at the end of input, -1 with errno set
    size_t descriptors = 0;  // number of descriptors received
    unique_fd first;         // the first of them; the others are closed at once
    bool cut = false;        // the kernel dropped some of them
};

void take_descriptors(msghdr* message, arrival* into) {
    for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; i++) {
            int fd;
            memcpy(&fd, CMSG_DATA(part) + i * sizeof(int), sizeof(int));
            unique_fd received(fd);
            if (into->descriptors++ == 0) {
                into->first.reset(received.release());
            }
        }
    }
    into->cut = (message->msg_flags & MSG_CTRUNC) != 0;
}

void receive_until(int conn, char* buf, size_t len, const deadline& end, arrival* into) {
    alignas(cmsghdr) char control[CMSG_SPACE(most_descriptors * sizeof(int))];
    do {
        iovec bytes = {buf, len};
        msghdr message = {};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        into->bytes = recvmsg(conn, &message, MSG_CMSG_CLOEXEC);
        if (into->bytes >= 0) {
            take_descriptors(&message, into);
            return;
        }
    } while (errno == EINTR || (errno == EAGAIN && wait_until(conn, POLLIN, end)));
}

// Reads up to `len` bytes that carry no descriptors. Returns how many came before end of file, or -1 with
// errno set.
int receive_rest(int conn, char* buf, int len, const deadline& end) {
    int have = 0;
    while (have < len) {
        arrival more;
        receive_until(conn, buf + have, static_cast<size_t>(len - have), end, &more);
        if (more.bytes < 0) {
            return -1;
        }
        if (more.descriptors > 0 || more.cut) {
            return fail(EBADMSG);
        }
        if (more.bytes == 0) {
            break;
        }
        have += static_cast<int>(more.bytes);
    }
    return have;
}

// Connects, and waits while the daemon's queue is full. poll cannot wait for that, but the send timeout
// applies to it.
bool connect_until(int sock, const unix_address& address, const deadline& end) {
    for (;;) {
        const int left_ms = end.left_ms();
        if (left_ms == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        timeval limit = {};
        limit.tv_sec = left_ms / 1000;
        limit.tv_usec = left_ms % 1000 * 1000L;
        if (setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0) {
            return false;
        }
        if (connect(sock, address.get(), address.size()) == 0) {
            return true;
        }
        if (errno != EINTR && errno != EAGAIN) {
            return false;
        }
    }
}

// Sends as much of `len` bytes as fits, with `fd` on the first byte unless it is -1. Returns the number of
// bytes sent, or -1 with errno set.
ssize_t send_some(int sock, const char* buf, size_t len, int fd) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec bytes = {const_cast<char*>(buf), len};
    msghdr message = {};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    if (fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* part = CMSG_FIRSTHDR(&message);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(part), &fd, sizeof(int));
    }
    return sendmsg(sock, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool send_until(int sock, const char* buf, size_t len, int fd, const deadline& end) {
    size_t sent = 0;
    while (sent < len) {
        ssize_t count = send_some(sock, buf + sent, len - sent, sent == 0 ? fd : -1);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
        } else if (errno != EINTR && (errno != EAGAIN || !wait_until(sock, POLLOUT, end))) {
            return false;
        }
    }
    return true;
}

// Sets the mode of the bound file before anyone can connect. Unlike bind, chmod ignores the umask.
bool open_for_business(int sock, const char* path, int mode) {
    if (chmod(path, static_cast<mode_t>(mode)) == 0 && listen(sock, backlog) == 0) {
        return true;
    }
    int saved = errno;
    unlink(path);
    errno = saved;
    return false;
}

}  // namespace

int qorlink_server_socket(const char* path, int mode) {
    const unix_address address(path);
    if (!check_address(address, path)) {
        return -1;
    }
    unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!sock || bind(sock.get(), address.get(), address.size()) != 0 ||
        !open_for_business(sock.get(), path, mode)) {
        return -1;
    }
    return sock.release();
}

int qorlink_recv(int sock, void* buf, int len, int* fd) {
    *fd = -1;
    if (len < 1) {
        return fail(EINVAL);
    }
    const deadline end(recv_limit_ms);
    unique_fd conn(accept_until(sock, end));
    if (!conn) {
        return -1;
    }
    // Read the first byte alone: a longer read could also receive descriptors sent with later bytes.
    auto* bytes = static_cast<char*>(buf);
    arrival head;
    receive_until(conn.get(), bytes, 1, end, &head);
    if (head.bytes < 1) {
        return static_cast<int>(head.bytes);
    }
    if (head.descriptors != 1 || head.cut) {
        return fail(EBADMSG);
    }
    int rest = receive_rest(conn.get(), bytes + 1, len - 1, end);
    if (rest < 0) {
        return -1;
    }
    *fd = head.first.release();
    return 1 + rest;
}

int qorlink_send(const char* path, const void* buf, int len, int fd) {
    const unix_address address(path);
    if (!check_address(address, path)) {
        return -1;
    }
    if (len < 1) {
        return fail(EINVAL);
    }
    // Check `fd` before opening a socket: if `fd` is closed, the socket would get its number and be sent
    // itself.
    if (fcntl(fd, F_GETFD) < 0) {
        return -1;
    }
    const deadline end(send_limit_ms);
    unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock || !connect_until(sock.get(), address, end) ||
        !send_until(sock.get(), static_cast<const char*>(buf), static_cast<size_t>(len), fd, end)) {
        return -1;
    }
    (void)shutdown(sock.get(),
                   SHUT_WR);  // all bytes are sent; if this fails, the close has the same effect
    return 0;
}
