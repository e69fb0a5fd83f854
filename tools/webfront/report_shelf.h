// The last reports, which a browser can open again for a while. They are kept in memory only.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

constexpr size_t webfront_kept_reports = 3;
constexpr std::chrono::minutes webfront_keep_time{15};

// May be used by several threads.
class webfront_report_shelf {
public:
    using clock = std::chrono::steady_clock;

    // Keeps a page, at the expense of the oldest one. Returns its name, which cannot be guessed.
    std::string keep(std::shared_ptr<const std::string> page, clock::time_point now = clock::now());

    // Null if there is no such page, or not any more.
    std::shared_ptr<const std::string> find(std::string_view name, clock::time_point now = clock::now());

private:
    struct kept_page {
        std::string name;
        std::shared_ptr<const std::string> page;
        clock::time_point until;
    };

    void drop_old(clock::time_point now);

    std::mutex lock_;
    std::deque<kept_page> pages_;  // the oldest first
};
