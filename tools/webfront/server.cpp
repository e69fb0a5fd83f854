#include "tools/webfront/server.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "common/exhaustion.h"
#include "tools/webfront/answer.h"
#include "tools/webfront/connection.h"
#include "tools/webfront/handover.h"
#include "tools/webfront/listing.h"
#include "tools/webfront/pool.h"
#include "tools/webfront/report.h"
#include "tools/webfront/route.h"

namespace {

using steady = webfront_connection::clock;

// After the machine has run out of descriptors or memory, no connection is accepted for this long.
constexpr std::chrono::milliseconds accept_pause{100};
// When poll fails for lack of memory, all clients are tried in turn after this pause.
constexpr std::chrono::milliseconds poll_pause{100};
// The most connections that are accepted before other clients are served.
constexpr int accepts_per_round = 64;

// Runs one step for a client. If memory runs out, refuses this client and continues with the others.
template <typename Step>
void run_step(webfront_connection* client, Step step) {
    try {
        step();
    } catch (const std::exception&) {
        client->refuse();
    }
}

// Returns the timeout for a poll that ends at `until`; -1 for time_point::max().
int timeout_ms(steady::time_point until, steady::time_point now) {
    if (until == steady::time_point::max()) {
        return -1;
    }
    auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
    return static_cast<int>(std::max<decltype(rest)>(rest, 0));
}

class server {
public:
    server(unique_fd listener, uint16_t port, const std::string& socket_path, const std::string& reader_path)
        : listener_(std::move(listener)),
          port_(port),
          handover_(webfront_handover_threads, webfront_connection_limit,
                    [socket_path](const webfront_job& job) { return webfront_hand_over(socket_path, job); }),
          listings_(webfront_listing_threads, webfront_listing_queue, webfront_list),
          reports_(webfront_report_threads, webfront_report_queue,
                   [tools = webfront_report_tools{socket_path, reader_path, &shelf_}](
                       const webfront_job& job) { return webfront_make_report(tools, job); }) {
        // Reserves all memory that a round needs for its lists.
        clients_.reserve(webfront_connection_limit);
        polled_.reserve(webfront_connection_limit + other_entries);
    }

    void run_round() {
        wait();
        steady::time_point now = steady::now();
        for (size_t i = 0; i < clients_.size(); i++) {
            webfront_connection& client = clients_[i];
            run_step(&client, [&] {
                if (polled_[i].revents != 0) {
                    step(&client);
                }
                if (client.is_open() && now >= client.deadline()) {
                    client.expire();
                }
            });
        }
        std::erase_if(clients_, [](const webfront_connection& client) { return !client.is_open(); });
        start_answers(&handover_);
        start_answers(&listings_);
        start_answers(&reports_);
        if (polled_.back().revents != 0) {
            accept_some();
        }
    }

private:
    static constexpr size_t other_entries = 4;

    // Fills polled_ with one entry for each client, in order, then the pools' events and the listener.
    void wait() {
        steady::time_point now = steady::now();
        bool is_paused = now < paused_until_;
        steady::time_point until = is_paused ? paused_until_ : steady::time_point::max();
        polled_.clear();
        for (const webfront_connection& client : clients_) {
            polled_.push_back({client.fd(), client.poll_events(), 0});
            until = std::min(until, client.deadline());
        }
        polled_.push_back({handover_.answered_event(), POLLIN, 0});
        polled_.push_back({listings_.answered_event(), POLLIN, 0});
        polled_.push_back({reports_.answered_event(), POLLIN, 0});
        polled_.push_back({is_paused ? -1 : listener_.get(), POLLIN, 0});
        if (poll(polled_.data(), polled_.size(), timeout_ms(until, now)) < 0) {
            mark_all_ready();
        }
    }

    // No step waits for its client, so a client that is not ready does no harm.
    void mark_all_ready() {
        if (errno != EINTR) {
            std::this_thread::sleep_for(poll_pause);
        }
        for (pollfd& entry : polled_) {
            entry.revents = entry.fd >= 0 ? entry.events : 0;
        }
    }

    void step(webfront_connection* client) {
        if (!client->is_reading()) {
            client->continue_answer();
            return;
        }
        webfront_head_state state = client->read_head();
        if (state == webfront_head_state::complete) {
            follow(webfront_decide(client->head(), port_), client);
        } else if (state != webfront_head_state::incomplete) {
            follow(webfront_decide_broken(state), client);
        }
    }

    void follow(webfront_decision decision, webfront_connection* client) {
        if (decision.route == webfront_route::answer) {
            client->start_answer(std::move(decision.bytes));
            return;
        }
        if (decision.route == webfront_route::report && webfront_is_kept_report(decision.bytes)) {
            client->start_answer(webfront_kept_report(&shelf_, decision.bytes));
            return;
        }
        if (!pool_for(decision.route).submit(client->client(), std::move(decision.bytes))) {
            client->start_answer(webfront_error(503, "Too many requests are waiting; try again later."));
        }
    }

    webfront_pool& pool_for(webfront_route route) {
        switch (route) {
            case webfront_route::listing:
                return listings_;
            case webfront_route::report:
                return reports_;
            default:
                return handover_;
        }
    }

    void start_answers(webfront_pool* pool) {
        for (webfront_answered& answered : pool->take_answered()) {
            webfront_connection& client = clients_.emplace_back(std::move(answered.client));
            run_step(&client, [&] { client.start_answer(std::move(answered.answer)); });
        }
    }

    void accept_some() {
        for (int i = 0; i < accepts_per_round; i++) {
            unique_fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!fd) {
                if (is_exhaustion(errno)) {
                    paused_until_ = steady::now() + accept_pause;
                }
                return;
            }
            webfront_connection client(std::move(fd));
            if (clients_.size() + handover_.held() + listings_.held() + reports_.held() <
                webfront_connection_limit) {
                clients_.push_back(std::move(client));
            } else {
                run_step(&client, [&] {
                    client.turn_away(webfront_error(503, "Too many connections are open; try again later."));
                });
            }
        }
    }

    unique_fd listener_;
    const uint16_t port_;
    webfront_pool handover_;
    webfront_pool listings_;
    webfront_report_shelf shelf_;  // before the pool that uses it
    webfront_pool reports_;
    std::vector<webfront_connection> clients_;
    std::vector<pollfd> polled_;
    steady::time_point paused_until_{};
};

}  // namespace

void webfront_serve(unique_fd listener, uint16_t port, const std::string& socket_path,
                    const std::string& reader_path) {
    server front(std::move(listener), port, socket_path, reader_path);
    for (;;) {
        front.run_round();
    }
}
