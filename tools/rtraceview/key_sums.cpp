#include "tools/rtraceview/key_sums.h"

#include <algorithm>
#include <charconv>
#include <cstring>

void key_sums::begin() {
    for (entry& known : entries_) {
        known.sum = 0;
        known.is_present = false;
    }
    expected_ = 0;
    pending_.clear();
}

void key_sums::add(std::string_view piece) {
    if (!pending_.empty()) {
        size_t end = std::min(piece.find('\n'), piece.size());
        pending_.append(piece.substr(0, std::min(end, line_limit)));
        if (end == piece.size()) {
            return;
        }
        add_line(pending_);
        pending_.clear();
        piece.remove_prefix(end + 1);
    }
    while (!piece.empty()) {
        const void* end = memchr(piece.data(), '\n', piece.size());
        if (end == nullptr) {
            pending_ = piece.substr(0, line_limit);
            return;
        }
        size_t length = static_cast<size_t>(static_cast<const char*>(end) - piece.data());
        add_line(piece.substr(0, length));
        piece.remove_prefix(length + 1);
    }
}

void key_sums::finish() {
    add_line(pending_);
    pending_.clear();
}

key_sums::entry* key_sums::find(std::string_view key) {
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [key](const entry& known) { return known.key == key; });
    if (found == entries_.end()) {
        if (entries_.size() == keys_limit) {
            return nullptr;
        }
        entries_.push_back({std::string(key)});
        found = entries_.end() - 1;
    }
    expected_ = static_cast<size_t>(found - entries_.begin());
    return &*found;
}

void key_sums::add_line(std::string_view line) {
    if (line.empty() || line[0] < 'A' || line[0] > 'Z') {
        return;
    }
    entry* known = expected_ < entries_.size() ? &entries_[expected_] : nullptr;
    size_t key_size = known ? known->key.size() : 0;
    bool is_expected = known && line.size() > key_size && line[key_size] == ':' &&
                       memcmp(line.data(), known->key.data(), key_size) == 0;
    if (!is_expected) {
        key_size = line.find(':');
        if (key_size == std::string_view::npos) {
            return;
        }
    }
    const char* from = line.data() + key_size + 1;
    const char* end = line.data() + line.size();
    while (from < end && (*from == ' ' || *from == '\t')) {
        from++;
    }
    uint64_t value = 0;
    auto [rest, error] = std::from_chars(from, end, value);
    if (error != std::errc() || (rest < end && *rest != ' ' && *rest != '\t')) {
        return;
    }
    known = is_expected ? known : find(line.substr(0, key_size));
    if (known) {
        known->sum += value;
        known->is_present = true;
        known->is_kb = end - rest >= 3 && memcmp(rest, " kB", 3) == 0;
        expected_++;
    }
}
