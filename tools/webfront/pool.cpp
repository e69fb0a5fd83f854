#include "tools/webfront/pool.h"

#include <sys/eventfd.h>

#include <system_error>
#include <utility>

#include "tools/webfront/answer.h"

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
    webfront_job& job = queue_.emplace_back();  // first, since it may throw
    job.client = std::move(client);
    job.request = std::move(request);
    job.since = std::chrono::steady_clock::now();
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

// False when the client was refused.
bool webfront_pool::do_next(webfront_job& next, std::string& answer) const {
    try {
        answer = do_job_(next);
        return true;
    } catch (const std::exception&) {
        webfront_refuse(next.client.get());
        return false;
    }
}

// With the lock held. False when there is no memory for it; the connection stays with `next`.
bool webfront_pool::keep_answer(webfront_job& next, std::string& answer) {
    try {
        webfront_answered& kept = answered_.emplace_back();
        kept.client = std::move(next.client);
        kept.answer = std::move(answer);
        (void)eventfd_write(event_.get(), 1);  // can only fail when it has been signalled anyway
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void webfront_pool::run(const std::stop_token& stop) {
    std::unique_lock hold(lock_);
    while (queued_.wait(hold, stop, [this] { return !queue_.empty(); }) && !stop.stop_requested()) {
        webfront_job next = std::move(queue_.front());
        queue_.pop_front();
        under_way_++;
        hold.unlock();
        std::string answer;
        if (!do_next(next, answer) || answer.empty()) {
            next.client.reset();
        }
        hold.lock();
        under_way_--;
        if (next.client && !keep_answer(next, answer)) {
            webfront_refuse(next.client.get());
        }
    }
}
