// Work that may take long, on threads of its own: the loop that serves everybody never waits for it.
#pragma once

#include <stddef.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"

// A connection and what is to be done with it.
struct webfront_job {
    unique_fd client;
    std::string request;
    std::chrono::steady_clock::time_point since;  // when it was queued
};

// A connection whose client is to be told something.
struct webfront_answered {
    unique_fd client;
    std::string answer;
};

class webfront_pool {
public:
    // Does one job, on any of the threads. One that throws is refused (webfront_refuse) and closed. Returns
    // the answer for the client, which the loop then sends; an empty one when nothing is left to say here:
    // the connection is closed.
    using work = std::function<std::string(const webfront_job&)>;

    // Does up to `threads` jobs at a time; one more than `queue_limit` that wait for their turn is not taken.
    // Throws std::system_error when there is no descriptor or thread left.
    webfront_pool(int threads, size_t queue_limit, work do_job);
    // Waits for the jobs that are under way; what queues is closed.
    ~webfront_pool();
    webfront_pool(const webfront_pool&) = delete;
    webfront_pool& operator=(const webfront_pool&) = delete;

    // Queues one job. Returns false, and leaves `client` alone, when too many queue. Throws std::bad_alloc,
    // which leaves it alone too.
    bool submit(unique_fd& client, std::string request);

    // Readable when take_answered has something to give; borrowed.
    int answered_event() const { return event_.get(); }
    std::vector<webfront_answered> take_answered();

    // How many connections it holds: queued, under way, or answered and not taken.
    size_t held() const;

private:
    void run(const std::stop_token& stop);
    bool do_next(webfront_job& next, std::string& answer) const;
    bool keep_answer(webfront_job& next, std::string& answer);

    const size_t queue_limit_;
    const work do_job_;
    unique_fd event_;
    mutable std::mutex lock_;
    std::condition_variable_any queued_;
    std::deque<webfront_job> queue_;
    std::vector<webfront_answered> answered_;
    size_t under_way_ = 0;
    std::vector<std::jthread> threads_;  // last, so that they end before what they use
};
