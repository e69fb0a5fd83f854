// Handing connections over to the daemon, on threads of its own: a daemon that is busy holds the sender for
// up to 10 seconds.
#pragma once

#include <stddef.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"

// A connection that the daemon did not take, and what its client is to be told.
struct webfront_refused {
    unique_fd client;
    std::string answer;
};

class webfront_handover {
public:
    // Connections are handed over at the same time at most; further ones queue.
    static constexpr int thread_count = 16;
    // Who has queued for longer is refused instead of being tried: the daemon is stuck, and the browser's
    // user should hear of it.
    static constexpr std::chrono::seconds queue_limit{10};

    // `socket_path` is the daemon's. Throws std::system_error when there is no descriptor or thread left.
    explicit webfront_handover(std::string socket_path);
    // Waits for the hand-overs that are under way; what queues is closed.
    ~webfront_handover();
    webfront_handover(const webfront_handover&) = delete;
    webfront_handover& operator=(const webfront_handover&) = delete;

    // Queues one connection with its message. The front's copy is closed once the daemon has its own.
    void submit(unique_fd client, std::string message);

    // Readable when take_refused has something to give; borrowed.
    int refused_event() const { return event_.get(); }
    std::vector<webfront_refused> take_refused();

    // How many connections it holds: queued, under way, or refused and not taken.
    size_t held() const;

private:
    struct job {
        unique_fd client;
        std::string message;
        std::chrono::steady_clock::time_point since;
    };

    void work(const std::stop_token& stop);
    std::string hand_over(const job& next) const;

    const std::string socket_path_;
    unique_fd event_;
    mutable std::mutex lock_;
    std::condition_variable_any queued_;
    std::deque<job> queue_;
    std::vector<webfront_refused> refused_;
    size_t under_way_ = 0;
    std::vector<std::jthread> threads_;  // last, so that they end before what they use
};
