#include "tools/webfront/browser_watch.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <iterator>

bool webfront_browser_watch::wait(std::chrono::milliseconds time, int a, int b) {
    pollfd watched[] = {{client_fd_, POLLIN | POLLRDHUP, 0}, {a, POLLIN | POLLRDHUP, 0}, {b, POLLIN, 0}};
    if (poll(watched, std::size(watched), static_cast<int>(time.count())) <= 0) {
        return true;
    }
    return watched[0].revents == 0 || !has_gone();
}

// Drops what a browser sends after its request.
bool webfront_browser_watch::has_gone() const {
    char dropped[4096];
    ssize_t got;
    while ((got = recv(client_fd_, dropped, sizeof dropped, MSG_DONTWAIT)) > 0) {
    }
    return got == 0 || (errno != EAGAIN && errno != EINTR);
}
