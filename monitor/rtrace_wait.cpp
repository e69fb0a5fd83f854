#include "monitor/rtrace_wait.h"

namespace {

constexpr short gone = POLLRDHUP | POLLERR | POLLHUP | POLLNVAL;

}  // namespace

pollfd rtrace_client(int fd) {
    return {fd, POLLRDHUP, 0};
}

int rtrace_poll(pollfd* fds, nfds_t count, const deadline& end) {
    for (;;) {
        int ready = poll(fds, count, end.left_ms());
        if (ready < 0 || (fds[0].revents & gone) != 0) {
            return -1;
        }
        if (ready > 0 || end.is_over()) {
            return ready;
        }
    }
}
