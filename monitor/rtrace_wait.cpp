#include "monitor/rtrace_wait.h"

#include <algorithm>

#include "common/uptime.h"

namespace {

constexpr int64_t longest_poll_us = 3600LL * 1000000;  // what poll takes is an int of milliseconds
constexpr short gone = POLLRDHUP | POLLERR | POLLHUP | POLLNVAL;

int timeout_ms(int64_t left_us) {
    return static_cast<int>((std::clamp<int64_t>(left_us, 0, longest_poll_us) + 999) / 1000);
}

}  // namespace

int64_t rtrace_now_us() {
    return monotonic_ns() / 1000;
}

int64_t rtrace_deadline_us(int64_t seconds) {
    return rtrace_now_us() + seconds * 1000000;
}

pollfd rtrace_client(int fd) {
    return {fd, POLLRDHUP, 0};
}

int rtrace_poll(pollfd* fds, nfds_t count, int64_t deadline_us) {
    for (;;) {
        int64_t left_us = deadline_us - rtrace_now_us();
        int ready = poll(fds, count, timeout_ms(left_us));
        if (ready < 0 || (fds[0].revents & gone) != 0) {
            return -1;
        }
        if (ready > 0 || left_us <= longest_poll_us) {
            return ready;
        }
    }
}
