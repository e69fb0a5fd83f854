#include "tools/rtraceview/app_output.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace {

constexpr size_t words_limit = 64;

std::vector<std::string_view> words_of(std::string_view line) {
    std::vector<std::string_view> words;
    while (words.size() < words_limit) {
        size_t begin = line.find_first_not_of(" \t\r");
        if (begin == std::string_view::npos) {
            break;
        }
        size_t end = std::min(line.find_first_of(" \t\r", begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        line.remove_prefix(end);
    }
    return words;
}

std::vector<std::string> copies_of(const std::vector<std::string_view>& words, size_t from) {
    return {words.begin() + static_cast<std::ptrdiff_t>(std::min(from, words.size())), words.end()};
}

// In some locales the decimal point is a comma.
std::optional<double> number_of(std::string_view word) {
    std::string text(word.substr(0, 40));
    std::replace(text.begin(), text.end(), ',', '.');
    double value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !(value > -1e15 && value < 1e15)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

void line_splitter::add(std::string_view piece, const std::function<void(std::string_view)>& line) {
    while (!piece.empty()) {
        size_t end = piece.find('\n');
        std::string_view part = piece.substr(0, end);
        if (pending_.size() < line_limit) {
            pending_.append(part.substr(0, line_limit - pending_.size()));
        }
        if (end == std::string_view::npos) {
            return;
        }
        line(pending_);
        pending_.clear();
        piece.remove_prefix(end + 1);
    }
}

void iostat_reports::add_line(std::string_view line, const report_value& value) {
    std::vector<std::string_view> words = words_of(line);
    if (words.empty()) {
        // A blank line ends the table of devices. In the processors' part, one may follow the heading.
        part_ = part_ == part::devices ? part::none : part_;
        return;
    }
    if (words[0] == "avg-cpu:") {
        part_ = part::cpu;
        columns_ = copies_of(words, 1);
        return;
    }
    if (words[0] == "Device" || words[0] == "Device:") {
        part_ = part::devices;
        columns_ = copies_of(words, 1);
        return;
    }
    if (part_ == part::none) {
        return;
    }
    std::string_view subject = part_ == part::cpu ? "cpu" : words[0];
    size_t first = part_ == part::cpu ? 0 : 1;
    for (size_t i = 0; i < columns_.size() && first + i < words.size(); i++) {
        if (std::optional<double> number = number_of(words[first + i])) {
            value(subject, columns_[i], *number);
        }
    }
    if (part_ == part::cpu) {
        part_ = part::none;
    }
}

void pidstat_reports::add_line(std::string_view line, const report_value& value) {
    std::vector<std::string_view> words = words_of(line);
    bool is_heading = std::find(words.begin(), words.end(), "PID") != words.end() &&
                      std::find(words.begin(), words.end(), "Command") != words.end();
    if (is_heading) {
        columns_ = copies_of(words, 0);
        return;
    }
    auto pid = std::find(columns_.begin(), columns_.end(), "PID");
    auto command = std::find(columns_.begin(), columns_.end(), "Command");
    size_t pid_at = static_cast<size_t>(pid - columns_.begin());
    size_t command_at = static_cast<size_t>(command - columns_.begin());
    if (columns_.empty() || words.size() <= std::max(pid_at, command_at) || words[0] == "Average:" ||
        !number_of(words[pid_at])) {
        return;
    }
    std::string subject = std::string(words[command_at]) + " " + std::string(words[pid_at]);
    for (size_t i = pid_at + 1; i < command_at; i++) {
        if (std::optional<double> number = number_of(words[i])) {
            value(subject, columns_[i], *number);
        }
    }
}
