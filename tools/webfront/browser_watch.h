// Notices that a browser has gone while another thing is waited for.
#pragma once

#include <chrono>

// A browser that has closed its sending side counts as gone: what a page's script cancels looks the same.
class webfront_browser_watch {
public:
    // `client_fd` is borrowed; -1: no browser, which never goes.
    explicit webfront_browser_watch(int client_fd) : client_fd_(client_fd) {}

    // Waits until one of the two descriptors `a` and `b` (borrowed; -1: none) is readable or at its end, the
    // browser has gone, or the time is over. Returns false if the browser has gone.
    bool wait(std::chrono::milliseconds time, int a, int b = -1);

private:
    bool has_gone() const;

    int client_fd_;
};
