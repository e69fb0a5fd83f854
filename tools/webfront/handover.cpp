#include "tools/webfront/handover.h"

#include <sys/eventfd.h>

#include <system_error>

#include "platform/qorlink.h"
#include "tools/webfront/answer.h"

webfront_handover::webfront_handover(std::string socket_path)
    : socket_path_(std::move(socket_path)), event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    for (int i = 0; i < thread_count; i++) {
        threads_.emplace_back([this](const std::stop_token& stop) { work(stop); });
    }
}

webfront_handover::~webfront_handover() = default;

void webfront_handover::submit(unique_fd client, std::string message) {
    std::lock_guard hold(lock_);
    queue_.push_back({std::move(client), std::move(message), std::chrono::steady_clock::now()});
    queued_.notify_one();
}

std::vector<webfront_refused> webfront_handover::take_refused() {
    eventfd_t count = 0;
    (void)eventfd_read(event_.get(), &count);  // failing means that nothing was signalled
    std::lock_guard hold(lock_);
    return std::exchange(refused_, {});
}

size_t webfront_handover::held() const {
    std::lock_guard hold(lock_);
    return queue_.size() + under_way_ + refused_.size();
}

void webfront_handover::work(const std::stop_token& stop) {
    std::unique_lock hold(lock_);
    while (queued_.wait(hold, stop, [this] { return !queue_.empty(); }) && !stop.stop_requested()) {
        job next = std::move(queue_.front());
        queue_.pop_front();
        under_way_++;
        hold.unlock();
        std::string answer = hand_over(next);
        if (answer.empty()) {
            next.client.reset();
        }
        hold.lock();
        under_way_--;
        if (!answer.empty()) {
            refused_.push_back({std::move(next.client), std::move(answer)});
            (void)eventfd_write(event_.get(), 1);  // can only fail when it has been signalled anyway
        }
    }
}

// Returns the answer for a client that the daemon did not take, else an empty one.
std::string webfront_handover::hand_over(const job& next) const {
    if (std::chrono::steady_clock::now() - next.since > queue_limit) {
        return webfront_error(503, "The daemon at " + socket_path_ + " is busy; try again later.");
    }
    if (qorlink_send(socket_path_.c_str(), next.message.data(), static_cast<int>(next.message.size()),
                     next.client.get()) == 0) {
        return {};
    }
    return webfront_error(502, "The daemon at " + socket_path_ + " did not take the request: " +
                                   std::generic_category().message(errno) + ".");
}
