#include "cgi/waiting_browser.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include "cgi/http.h"
#include "common/deadline.h"
#include "common/safe_io.h"

namespace {

constexpr unsigned push_block = 2048;

unique_fd listener;
bool pop = false;

// Reads what has arrived. Returns 0 at the end of file; -1 on failure, and on a timeout, since a core handler
// that hangs would hold all requests.
ssize_t read_patiently(int fd, char* block, size_t size) {
    const deadline patience(waiting_browser_patience_ms);
    for (;;) {
        pollfd input = {fd, POLLIN, 0};
        const int ready = poll(&input, 1, patience.left_ms());
        if (ready == 0) {
            return -1;
        }
        const ssize_t got = ready > 0 ? read(fd, block, size) : -1;
        if (got >= 0 || (errno != EINTR && errno != EAGAIN) || patience.is_over()) {
            return got;
        }
    }
}

// Copies to the end of file; false as soon as either side fails.
bool forward(int in_fd, int out_fd) {
    char block[push_block];
    for (;;) {
        ssize_t got = read_patiently(in_fd, block, sizeof block);
        if (got <= 0) {
            return got == 0;
        }
        if (safe_write(out_fd, block, static_cast<unsigned>(got)) < 0) {
            return false;
        }
    }
}

}  // namespace

void set_listener(unique_fd client) {
    listener = std::move(client);
}

bool is_pop() {
    return pop;
}

void set_pop(bool wanted) {
    pop = wanted;
}

void close_listener() {
    listener.reset();
}

int handle_request_push(int in_fd, const char* name) {
    unique_fd input(in_fd);
    unique_fd browser = std::move(listener);
    if (!browser) {
        return 1;
    }
    bool sent = stream_http_header(browser.get(), "application/octet-stream", name) == 0 &&
                forward(input.get(), browser.get());
    return sent ? 0 : 1;
}
