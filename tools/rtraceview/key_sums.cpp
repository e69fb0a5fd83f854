#include "tools/rtraceview/key_sums.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <utility>

namespace {

// Keys whose values must not be added.
constexpr struct {
    std::string_view key;
    key_rule rule;
} rules[] = {
    {"KernelPageSize", key_rule::largest},
    {"MMUPageSize", key_rule::largest},
    {"ProtectionKey", key_rule::largest},
    {"Name", key_rule::text},
    {"Umask", key_rule::text},
    {"SigPnd", key_rule::text},
    {"ShdPnd", key_rule::text},
    {"SigBlk", key_rule::text},
    {"SigIgn", key_rule::text},
    {"SigCgt", key_rule::text},
    {"CapInh", key_rule::text},
    {"CapPrm", key_rule::text},
    {"CapEff", key_rule::text},
    {"CapBnd", key_rule::text},
    {"CapAmb", key_rule::text},
    {"Cpus_allowed", key_rule::text},
    {"Cpus_allowed_list", key_rule::text},
    {"Mems_allowed", key_rule::text},
    {"Mems_allowed_list", key_rule::text},
};

key_rule rule_of(std::string_view key) {
    const auto* row =
        std::find_if(std::begin(rules), std::end(rules), [key](const auto& each) { return each.key == key; });
    return row == std::end(rules) ? key_rule::sum : row->rule;
}

// Takes the number at the front of `*text`. A blank or the end of the text must follow it.
bool take_number(std::string_view* text, uint64_t* number) {
    text->remove_prefix(std::min(text->find_first_not_of(" \t"), text->size()));
    const char* end = text->data() + text->size();
    auto [rest, error] = std::from_chars(text->data(), end, *number);
    if (error != std::errc() || (rest < end && *rest != ' ' && *rest != '\t')) {
        return false;
    }
    text->remove_prefix(static_cast<size_t>(rest - text->data()));
    return true;
}

}  // namespace

void key_sums::begin() {
    for (entry& known : entries_) {
        known.sum = 0;
        known.text.clear();
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
        entry fresh;
        fresh.key = key;
        fresh.rule = rule_of(key);
        entries_.push_back(std::move(fresh));
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
    add_value(is_expected ? known : nullptr, line.substr(0, key_size), line.substr(key_size + 1));
}

// `known` is the key's entry; null if it has not been looked up.
void key_sums::add_value(entry* known, std::string_view key, std::string_view value) {
    bool is_text = (known ? known->rule : rule_of(key)) == key_rule::text;
    uint64_t number = 0;
    if (!is_text && !take_number(&value, &number)) {
        return;
    }
    known = known ? known : find(key);
    if (!known) {
        return;
    }
    if (is_text) {
        value.remove_prefix(value.starts_with('\t') ? 1 : 0);
        known->text = value.substr(0, line_limit);
    } else {
        known->sum = known->rule == key_rule::sum ? known->sum + number : std::max(known->sum, number);
        known->is_kb = value.starts_with(" kB");
    }
    known->is_present = true;
    expected_++;
}
