#include "cgi/query.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "common/ascii.h"

namespace {

constexpr int32_t invalid_number = -1;

constexpr uint32_t trace_fast = 0x67c;
constexpr struct {
    std::string_view name;
    uint32_t bits;
} trace_names[] = {
    {"smaps", 0x1},     {"status", 0x2},  {"smapstot", 0x4},      {"filenr", 0x8},    {"meminfo", 0x10},
    {"diskinfo", 0x20}, {"iostat", 0x40}, {"pagetypeinfo", 0x80}, {"pellora", 0x100}, {"event", 0x200},
    {"pidstat", 0x400}, {"all", 0x67b},   {"fast", trace_fast},
};

// Removes the text up to the next comma from `*rest`.
std::string_view take_until_comma(std::string_view* rest) {
    size_t comma = rest->find(',');
    std::string_view taken = rest->substr(0, comma);
    rest->remove_prefix(comma == std::string_view::npos ? rest->size() : comma + 1);
    return taken;
}

}  // namespace

int32_t query_number(const char* text) {
    char* end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    bool out_of_range = errno == ERANGE || value > INT32_MAX || value < INT32_MIN;
    bool failed = errno != 0 && value == 0;
    return end == text || out_of_range || failed ? invalid_number : static_cast<int32_t>(value);
}

int32_t query_limit(const char* text) {
    return text ? std::max(query_number(text), 0) : 0;
}

std::string_view query_trimmed(std::string_view text) {
    while (!text.empty() && is_ascii_blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_ascii_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool query_next_item(std::string_view* rest, query_item* item) {
    while (!rest->empty()) {
        std::string_view taken = take_until_comma(rest);
        if (taken.size() >= query_item::capacity) {
            continue;
        }
        taken = query_trimmed(taken);
        if (!taken.empty()) {
            item->text[taken.copy(item->text, taken.size())] = '\0';
            return true;
        }
    }
    return false;
}

uint32_t query_trace_bit(std::string_view name) {
    for (const auto& row : trace_names) {
        if (row.name == name) {
            return row.bits;
        }
    }
    return 0;
}

uint32_t query_trace_mask(const char* list) {
    uint32_t mask = 0;
    std::string_view rest = list ? list : "";
    for (query_item item; query_next_item(&rest, &item);) {
        mask |= query_trace_bit(item.text);
    }
    return mask ? mask : trace_fast;
}
