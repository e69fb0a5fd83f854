// Threads for jobs that may take long, so that the server's loop never waits for one.
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

// A connection and its request.
struct webfront_job {
    unique_fd client;
    std::string request;
    std::chrono::steady_clock::time_point since;  // when it was queued
};

// A connection and what to send on it.
struct webfront_answered {
    unique_fd client;
    std::string answer;
};

class webfront_pool {
public:
    // Does one job, on any of the threads. Returns the answer, which the server's loop then sends. When the
    // answer is empty, the pool closes the connection. When the call throws, the pool refuses the client
    // (webfront_refuse) and closes the connection.
    using work = std::function<std::string(const webfront_job&)>;

    // Does up to `threads` jobs at the same time; up to `queue_limit` more wait in the queue. Throws
    // std::system_error when no descriptor or thread is left.
    webfront_pool(int threads, size_t queue_limit, work do_job);
    // Waits for the jobs that have begun, and closes the queued connections.
    ~webfront_pool();
    webfront_pool(const webfront_pool&) = delete;
    webfront_pool& operator=(const webfront_pool&) = delete;

    // Queues one job and takes `*client`. Returns false when the queue is full, and throws std::bad_alloc;
    // `*client` is unchanged in both cases.
    bool submit(unique_fd* client, std::string request);

    // A descriptor that is readable when take_answered() has something to return; borrowed.
    int answered_event() const { return event_.get(); }
    std::vector<webfront_answered> take_answered();

    // The number of connections that the pool owns: queued, in work, or answered but not yet taken.
    size_t held() const;

private:
    void run(const std::stop_token& stop);
    bool do_next(const webfront_job& next, std::string* answer) const;
    bool keep_answer(webfront_job* next, std::string answer);

    const size_t queue_limit_;
    const work do_job_;
    unique_fd event_;
    mutable std::mutex lock_;
    std::condition_variable_any queued_;
    std::deque<webfront_job> queue_;
    std::vector<webfront_answered> answered_;
    size_t in_work_ = 0;
    std::vector<std::jthread> threads_;  // last, so that they end before the members that they use
};
