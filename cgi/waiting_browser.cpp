#include "cgi/waiting_browser.h"

#include "cgi/http.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"

namespace {

constexpr unsigned push_block = 2048;

unique_fd listener;
bool pop = false;

// Copies to the end of the input; false as soon as either side fails.
bool forward(int in_fd, int out_fd) {
    char block[push_block];
    for (;;) {
        ssize_t got = safe_read(in_fd, block, sizeof block);
        if (got <= 0) {
            return got == 0;
        }
        if (safe_write(out_fd, block, static_cast<unsigned>(got)) < 0) {
            return false;
        }
    }
}

}  // namespace

void set_listener(int client_fd) {
    listener.reset(client_fd);
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
