#include "tools/webfront/pool.h"

#include <sys/eventfd.h>

#include <system_error>
#include <utility>

webfront_pool::webfront_pool(int threads, size_t queue_limit, work do_job)
    : queue_limit_(queue_limit), do_job_(std::move(do_job)), event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    for (int i = 0; i < threads; i++) {
        threads_.emplace_back([this](const std::stop_token& stop) { run(stop); });
    }
}

webfront_pool::~webfront_pool() = default;

bool webfront_pool::submit(unique_fd& client, std::string request) {
    std::lock_guard hold(lock_);
    if (queue_.size() >= queue_limit_) {
        return false;
    }
    queue_.push_back({std::move(client), std::move(request), std::chrono::steady_clock::now()});
    queued_.notify_one();
    return true;
}

std::vector<webfront_answered> webfront_pool::take_answered() {
    eventfd_t count = 0;
    (void)eventfd_read(event_.get(), &count);  // failing means that nothing was signalled
    std::lock_guard hold(lock_);
    return std::exchange(answered_, {});
}

size_t webfront_pool::held() const {
    std::lock_guard hold(lock_);
    return queue_.size() + under_way_ + answered_.size();
}

void webfront_pool::run(const std::stop_token& stop) {
    std::unique_lock hold(lock_);
    while (queued_.wait(hold, stop, [this] { return !queue_.empty(); }) && !stop.stop_requested()) {
        webfront_job next = std::move(queue_.front());
        queue_.pop_front();
        under_way_++;
        hold.unlock();
        std::string answer = do_job_(next);
        if (answer.empty()) {
            next.client.reset();
        }
        hold.lock();
        under_way_--;
        if (!answer.empty()) {
            answered_.push_back({std::move(next.client), std::move(answer)});
            (void)eventfd_write(event_.get(), 1);  // can only fail when it has been signalled anyway
        }
    }
}
