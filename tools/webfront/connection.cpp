#include "tools/webfront/connection.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include "tools/webfront/answer.h"

namespace {

// The most pieces of one client's input that are dropped before other clients are served.
constexpr int drops_per_round = 16;
constexpr size_t piece_size = 4096;

bool is_temporary(int error) {
    return error == EAGAIN || error == EINTR;
}

// The daemon expects a socket in blocking mode. That mode belongs to the connection, not to the descriptor,
// so the front leaves it alone and passes MSG_DONTWAIT instead.
ssize_t receive(int fd, char* piece) {
    return recv(fd, piece, piece_size, MSG_DONTWAIT);
}

}  // namespace

webfront_connection::webfront_connection(unique_fd client)
    : client_(std::move(client)), deadline_(clock::now() + webfront_head_time) {}

short webfront_connection::poll_events() const {
    return phase_ == phase::answering ? POLLOUT : POLLIN;
}

webfront_head_state webfront_connection::read_head() {
    if (!reader_) {
        reader_.emplace();
    }
    char piece[piece_size];
    ssize_t got = receive(fd(), piece);
    if (got > 0) {
        return reader_->feed({piece, static_cast<size_t>(got)});
    }
    if (got == 0 || !is_temporary(errno)) {
        client_.reset();
    }
    return webfront_head_state::incomplete;
}

void webfront_connection::start_answer(std::string answer) {
    answer_ = std::move(answer);
    deadline_ = clock::now() + webfront_answer_time;
    phase_ = phase::answering;
    send_more();
}

void webfront_connection::continue_answer() {
    phase_ == phase::answering ? send_more() : drain();
}

void webfront_connection::turn_away(std::string answer) {
    char piece[piece_size];
    (void)receive(fd(), piece);
    start_answer(std::move(answer));
}

void webfront_connection::refuse() {
    webfront_refuse(fd());
    deadline_ = clock::now() + webfront_answer_time;
    begin_draining();
}

void webfront_connection::expire() {
    if (is_reading() && reader_ && reader_->has_begun()) {
        start_answer(webfront_error(408, "The request's head was not complete within " +
                                             std::to_string(webfront_head_time.count()) + " seconds."));
    }
    client_.reset();
}

void webfront_connection::send_more() {
    ssize_t sent = send(fd(), answer_.data(), answer_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
        if (!is_temporary(errno)) {
            client_.reset();
        }
        return;
    }
    deadline_ = clock::now() + webfront_answer_time;
    answer_.erase(0, static_cast<size_t>(sent));
    if (answer_.empty()) {
        begin_draining();
        drain();
    }
}

void webfront_connection::drain() {
    char piece[piece_size];
    for (int i = 0; i < drops_per_round; i++) {
        ssize_t got = receive(fd(), piece);
        if (got == 0 || (got < 0 && !is_temporary(errno))) {
            client_.reset();
        }
        if (got <= 0) {
            return;
        }
    }
}

void webfront_connection::begin_draining() {
    (void)shutdown(fd(), SHUT_WR);  // fails when the client has gone, which drain() notices
    phase_ = phase::draining;
}
