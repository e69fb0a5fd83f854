#include "tools/webfront/report_shelf.h"

#include <algorithm>
#include <random>

namespace {

std::string random_name() {
    constexpr std::string_view digits = "0123456789abcdef";
    std::random_device random;
    std::string name(32, '0');
    for (char& digit : name) {
        digit = digits[random() % digits.size()];
    }
    return name;
}

}  // namespace

std::string webfront_report_shelf::keep(std::shared_ptr<const std::string> page, clock::time_point now) {
    std::string name = random_name();
    std::lock_guard guard(lock_);
    drop_old(now);
    pages_.push_back({name, std::move(page), now + webfront_keep_time});
    if (pages_.size() > webfront_kept_reports) {
        pages_.pop_front();
    }
    return name;
}

std::shared_ptr<const std::string> webfront_report_shelf::find(std::string_view name, clock::time_point now) {
    std::lock_guard guard(lock_);
    drop_old(now);
    const auto found = std::ranges::find(pages_, name, &kept_page::name);
    return found == pages_.end() ? nullptr : found->page;
}

void webfront_report_shelf::drop_old(clock::time_point now) {
    while (!pages_.empty() && pages_.front().until <= now) {
        pages_.pop_front();
    }
}
