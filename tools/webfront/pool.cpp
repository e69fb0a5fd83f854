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

bool webfront_pool::submit(unique_fd* client, std::string request) {
    std::lock_guard guard(lock_);
    if (queue_.size() >= queue_limit_) {
        return false;
    }
    webfront_job& job = queue_.emplace_back();  // before `*client` is moved: it may throw
    job.client = std::move(*client);
    job.request = std::move(request);
    job.since = std::chrono::steady_clock::now();
    queued_.notify_one();
    return true;
}

std::vector<webfront_answered> webfront_pool::take_answered() {
    eventfd_t count = 0;
    (void)eventfd_read(event_.get(), &count);  // fails when nothing was signalled
    std::lock_guard guard(lock_);
    return std::exchange(answered_, {});
}

size_t webfront_pool::held() const {
    std::lock_guard guard(lock_);
    return queue_.size() + in_work_ + answered_.size();
}

// Returns false if it has refused the client.
bool webfront_pool::do_next(const webfront_job& next, std::string* answer) const {
    try {
        *answer = do_job_(next);
        return true;
    } catch (const std::exception&) {
        webfront_refuse(next.client.get());
        return false;
    }
}

// Called with the lock held. Returns false when memory has run out; `*next` then keeps the connection.
bool webfront_pool::keep_answer(webfront_job* next, std::string answer) {
    try {
        webfront_answered& kept = answered_.emplace_back();
        kept.client = std::move(next->client);
        kept.answer = std::move(answer);
        (void)eventfd_write(event_.get(), 1);  // fails only when many signals are pending already
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void webfront_pool::run(const std::stop_token& stop) {
    std::unique_lock guard(lock_);
    while (queued_.wait(guard, stop, [this] { return !queue_.empty(); }) && !stop.stop_requested()) {
        webfront_job next = std::move(queue_.front());
        queue_.pop_front();
        in_work_++;
        guard.unlock();
        std::string answer;
        if (!do_next(next, &answer) || answer.empty()) {
            next.client.reset();
        }
        guard.lock();
        in_work_--;
        if (next.client && !keep_answer(&next, std::move(answer))) {
            webfront_refuse(next.client.get());
        }
    }
}
