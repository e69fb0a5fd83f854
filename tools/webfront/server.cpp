#include "tools/webfront/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <optional>
#include <thread>
#include <vector>

#include "tools/webfront/answer.h"
#include "tools/webfront/handover.h"
#include "tools/webfront/head.h"
#include "tools/webfront/judge.h"
#include "tools/webfront/listing.h"
#include "tools/webfront/pool.h"

namespace {

using steady = std::chrono::steady_clock;

// How long no connection is accepted after the machine ran out of descriptors or memory.
constexpr std::chrono::milliseconds accept_pause{100};
// Where poll fails for good everybody is looked at after this pause, which serves them more slowly.
constexpr std::chrono::milliseconds poll_pause{100};
// Connections accepted, and pieces dropped, in one round: none keeps the loop from the others.
constexpr int accepts_per_round = 64;
constexpr int drops_per_round = 16;
constexpr size_t piece_size = 4096;

enum class phase { reading, answering, draining, done };

struct connection {
    unique_fd fd;
    steady::time_point deadline;
    std::optional<webfront_head_reader> reader;  // while reading
    std::string answer;                          // what is still to be sent
    phase now = phase::reading;
};

bool try_later(int error) {
    return error == EAGAIN || error == EINTR;
}

// Sockets stay in blocking mode, as the daemon wants them, and MSG_DONTWAIT keeps the loop from waiting: the
// mode belongs to the connection and would go over with it.
ssize_t receive(const connection& client, char* piece) {
    return recv(client.fd.get(), piece, piece_size, MSG_DONTWAIT);
}

void drain(connection& client) {
    char piece[piece_size];
    for (int i = 0; i < drops_per_round; i++) {
        ssize_t got = receive(client, piece);
        if (got == 0 || (got < 0 && !try_later(errno))) {
            client.now = phase::done;
        }
        if (got <= 0) {
            return;
        }
    }
}

void send_answer(connection& client) {
    ssize_t sent =
        send(client.fd.get(), client.answer.data(), client.answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
        client.now = try_later(errno) ? phase::answering : phase::done;
        return;
    }
    client.answer.erase(0, static_cast<size_t>(sent));
    if (client.answer.empty()) {
        (void)shutdown(client.fd.get(), SHUT_WR);  // fails when the client has gone; reading tells
        client.now = phase::draining;
        drain(client);
    }
}

void start_answer(connection& client, std::string answer) {
    client.answer = std::move(answer);
    client.deadline = steady::now() + webfront_answer_time;
    client.now = phase::answering;
    send_answer(client);
}

// A client that never said a word gets none: browsers open connections ahead of need.
void expire(connection& client) {
    if (client.now == phase::reading && client.reader->started()) {
        start_answer(client,
                     webfront_error(408, "The request's head was not complete within " +
                                             std::to_string(webfront_head_time.count()) + " seconds."));
    }
    client.now = phase::done;
}

// Takes one step for a client. One for which there is no memory is refused, and no other.
template <typename Step>
void take_step(connection& client, Step step) {
    try {
        step();
    } catch (const std::exception&) {
        webfront_refuse(client.fd.get());
        client.deadline = steady::now() + webfront_answer_time;
        (void)shutdown(client.fd.get(), SHUT_WR);  // fails when the client has gone; reading tells
        client.now = phase::draining;
    }
}

class server {
public:
    server(unique_fd listener, uint16_t port, const std::string& socket_path)
        : listener_(std::move(listener)),
          port_(port),
          handover_(webfront_handover_threads, webfront_connection_limit,
                    [socket_path](const webfront_job& job) { return webfront_hand_over(socket_path, job); }),
          listings_(webfront_listing_threads, webfront_listing_queue, webfront_list) {
        // As many as there may be, so that a round takes no memory of its own.
        clients_.reserve(webfront_connection_limit);
        waiting_.reserve(webfront_connection_limit + other_entries);
    }

    void round() {
        wait();
        steady::time_point now = steady::now();
        for (size_t i = 0; i < clients_.size(); i++) {
            connection& client = clients_[i];
            take_step(client, [&] {
                if (waiting_[i].revents != 0) {
                    step(client);
                }
                if (client.now != phase::done && now >= client.deadline) {
                    expire(client);
                }
            });
        }
        std::erase_if(clients_, [](const connection& client) { return client.now == phase::done; });
        take_answered(handover_);
        take_answered(listings_);
        if (waiting_.back().revents != 0) {
            accept_some();
        }
    }

private:
    static constexpr size_t other_entries = 3;

    // Fills waiting_: one entry for each client, then the pools' events and the listener.
    void wait() {
        steady::time_point now = steady::now();
        bool paused = now < paused_until_;
        steady::time_point until = paused ? paused_until_ : steady::time_point::max();
        waiting_.clear();
        for (const connection& client : clients_) {
            short events = client.now == phase::answering ? POLLOUT : POLLIN;
            waiting_.push_back({client.fd.get(), events, 0});
            until = std::min(until, client.deadline);
        }
        waiting_.push_back({handover_.answered_event(), POLLIN, 0});
        waiting_.push_back({listings_.answered_event(), POLLIN, 0});
        waiting_.push_back({paused ? -1 : listener_.get(), POLLIN, 0});
        int timeout = -1;
        if (until != steady::time_point::max()) {
            auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
            timeout = static_cast<int>(std::max<decltype(left)>(left, 0));
        }
        if (poll(waiting_.data(), waiting_.size(), timeout) < 0) {
            look_at_everybody();
        }
    }

    // Nobody is waited for in a step, so that everybody may be taken to be ready.
    void look_at_everybody() {
        if (errno != EINTR) {
            std::this_thread::sleep_for(poll_pause);
        }
        for (pollfd& entry : waiting_) {
            entry.revents = entry.fd >= 0 ? entry.events : 0;
        }
    }

    void step(connection& client) {
        switch (client.now) {
            case phase::reading:
                read_head(client);
                break;
            case phase::answering:
                send_answer(client);
                break;
            case phase::draining:
                drain(client);
                break;
            case phase::done:
                break;
        }
    }

    void read_head(connection& client) {
        char piece[piece_size];
        ssize_t got = receive(client, piece);
        if (got <= 0) {
            if (got == 0 || !try_later(errno)) {
                client.now = phase::done;
            }
            return;
        }
        webfront_head_state state = client.reader->feed({piece, static_cast<size_t>(got)});
        if (state == webfront_head_state::incomplete) {
            return;
        }
        webfront_verdict verdict = state == webfront_head_state::complete
                                       ? webfront_judge(client.reader->head(), port_)
                                       : webfront_judge_broken(state);
        if (verdict.road == webfront_road::answer) {
            start_answer(client, std::move(verdict.bytes));
            return;
        }
        webfront_pool& pool = verdict.road == webfront_road::daemon ? handover_ : listings_;
        if (pool.submit(client.fd, std::move(verdict.bytes))) {
            client.now = phase::done;
        } else {
            start_answer(client,
                         webfront_error(503, "Too many requests wait for their turn; try again later."));
        }
    }

    void take_answered(webfront_pool& pool) {
        for (webfront_answered& answered : pool.take_answered()) {
            connection& client = clients_.emplace_back();
            client.fd = std::move(answered.client);
            take_step(client, [&] { start_answer(client, std::move(answered.answer)); });
        }
    }

    void accept_some() {
        for (int i = 0; i < accepts_per_round; i++) {
            unique_fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!fd) {
                if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                    paused_until_ = steady::now() + accept_pause;
                }
                return;
            }
            connection client;
            client.fd = std::move(fd);
            client.deadline = steady::now() + webfront_head_time;
            bool is_full = clients_.size() + handover_.held() + listings_.held() >= webfront_connection_limit;
            take_step(client, [&] { is_full ? turn_away(client) : (void)client.reader.emplace(); });
            if (!is_full) {
                clients_.push_back(std::move(client));
            }
        }
    }

    // Answers as well as it can be done without keeping the connection.
    static void turn_away(connection& client) {
        char piece[piece_size];
        (void)receive(client, piece);
        start_answer(client, webfront_error(503, "Too many connections are open; try again later."));
    }

    unique_fd listener_;
    const uint16_t port_;
    webfront_pool handover_;
    webfront_pool listings_;
    std::vector<connection> clients_;
    std::vector<pollfd> waiting_;
    steady::time_point paused_until_{};
};

}  // namespace

unique_fd webfront_listen(uint16_t* port, bool every_address) {
    unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) {
        return {};
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(*port);
    address.sin_addr.s_addr = htonl(every_address ? INADDR_ANY : INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof(address);
    int on = 1;
    if (setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0 ||
        bind(listener.get(), generic, length) < 0 || listen(listener.get(), SOMAXCONN) < 0 ||
        getsockname(listener.get(), generic, &length) < 0) {
        return {};
    }
    *port = ntohs(address.sin_port);
    return listener;
}

void webfront_serve(unique_fd listener, uint16_t port, const std::string& socket_path) {
    server front(std::move(listener), port, socket_path);
    for (;;) {
        front.round();
    }
}
