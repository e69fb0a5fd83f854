// One client's connection, from the head of its request to the end of its answer.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "tools/webfront/head.h"

// The time for the head, from when the connection was accepted.
constexpr std::chrono::seconds webfront_head_time{10};
// The time in which a client must take a part of its answer, and close the connection after the last. Until
// then, further input is read and dropped: closing a socket with unread input would reset the connection, and
// the client could lose the answer.
constexpr std::chrono::seconds webfront_answer_time{2};

// No call waits for the client. Those that allocate may throw std::bad_alloc; call refuse() then.
class webfront_connection {
public:
    using clock = std::chrono::steady_clock;

    explicit webfront_connection(unique_fd client);

    // False once the connection is closed or has been taken through client().
    bool is_open() const { return static_cast<bool>(client_); }
    bool is_reading() const { return phase_ == phase::reading; }
    short poll_events() const;
    clock::time_point deadline() const { return deadline_; }
    unique_fd* client() { return &client_; }
    int fd() const { return client_.get(); }

    // Reads what has arrived of the head. Closes the connection when the client has gone.
    webfront_head_state read_head();
    webfront_head head() const { return reader_->head(); }  // after read_head() has returned `complete`

    // Sends as much of the answer as the socket takes.
    void start_answer(std::string answer);
    // Sends more of the answer, or drops input after it. Closes the connection when the client has gone.
    void continue_answer();

    // Answers a client that its connection is refused, and drops what it has sent so far.
    void turn_away(std::string answer);
    // Answers that memory has run out. Allocates nothing.
    void refuse();
    // Closes the connection at its deadline. First sends a 408 if part of a head has arrived. Browsers open
    // connections ahead of need, so a client that has sent nothing gets nothing.
    void expire();

private:
    enum class phase { reading, answering, draining };

    void send_more();
    void drain();
    void begin_draining();

    unique_fd client_;
    clock::time_point deadline_;
    phase phase_ = phase::reading;
    std::optional<webfront_head_reader> reader_;
    std::string answer_;  // what has not been sent yet
};
