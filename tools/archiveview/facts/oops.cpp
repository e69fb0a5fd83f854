// The records that the oopslog applet prints.
#include <algorithm>

#include "tools/archiveview/facts/kernel.h"
#include "tools/archiveview/facts/oops_report.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr std::string_view entry_title = "Log Entry ";
constexpr std::string_view position_title = " (at position ";
constexpr std::string_view newest_title = "Last log is at position ";
constexpr std::string_view newest_count_title = " with count ";
constexpr uint32_t last_count = 0xfffffffe;  // the next one is 0

struct entry {
    uint32_t count = 0;
    std::string_view text;
};

// Takes the number before `end` and `end` itself off the text, or nothing. Large counts were printed as
// negative numbers.
std::optional<uint32_t> take_count(std::string_view* text, std::string_view end) {
    constexpr size_t longest = 12;
    const size_t length = text->substr(0, longest + end.size()).find(end);
    const std::optional<int64_t> count =
        length == std::string_view::npos ? std::nullopt : number_of<int64_t>(text->substr(0, length));
    if (!count) {
        return std::nullopt;
    }
    text->remove_prefix(length + end.size());
    return static_cast<uint32_t>(*count);
}

struct title {
    size_t begin = std::string_view::npos;
    size_t end = 0;
    uint32_t count = 0;
};

// The next title of a record. It may follow a record that is cut, in the middle of a line.
title find_title(std::string_view text, size_t from) {
    for (size_t at = text.find(entry_title, from); at != std::string_view::npos;
         at = text.find(entry_title, at + 1)) {
        std::string_view rest = text.substr(at + entry_title.size());
        const std::optional<uint32_t> count = take_count(&rest, position_title);
        if (count && take_count(&rest, ")\n")) {
            return {at, text.size() - rest.size(), *count};
        }
    }
    return {};
}

std::vector<entry> entries_of(std::string_view text, size_t* preamble_size) {
    std::vector<entry> entries;
    title found = find_title(text, 0);
    *preamble_size = std::min(found.begin, text.size());
    while (found.begin != std::string_view::npos) {
        const title next = find_title(text, found.end);
        entries.push_back({found.count, text.substr(found.end, next.begin - found.end)});
        found = next;
    }
    return entries;
}

// The count of the newest record: as the applet says, or else the largest.
uint32_t newest_count(std::string_view preamble, const std::vector<entry>& entries) {
    if (const size_t at = preamble.find(newest_title); at != std::string_view::npos) {
        std::string_view rest = preamble.substr(at + newest_title.size());
        if (take_count(&rest, newest_count_title)) {
            if (const std::optional<uint32_t> count = take_count(&rest, "\n")) {
                return *count;
            }
        }
    }
    uint32_t newest = 0;
    for (const entry& each : entries) {
        newest = std::max(newest, each.count);
    }
    return newest;
}

uint32_t age_of(uint32_t count, uint32_t newest) {
    return count <= newest ? newest - count : newest + (last_count - count) + 1;
}

}  // namespace

void kernel_parse_oops(kernel_facts* facts, std::string_view text) {
    facts->oops.clear();
    facts->oops_remark.clear();
    text = text.substr(0, text_limit);
    size_t preamble_size = 0;
    std::vector<entry> entries = entries_of(text, &preamble_size);
    if (entries.empty()) {
        facts->oops_remark = trimmed(text.substr(0, line_limit));
        return;
    }
    const uint32_t newest = newest_count(text.substr(0, preamble_size), entries);
    std::ranges::stable_sort(entries, std::ranges::greater(),
                             [newest](const entry& each) { return age_of(each.count, newest); });
    for (size_t i = entries.size() - std::min(entries.size(), oops_limit); i < entries.size(); i++) {
        oops_record record;
        record.number = static_cast<unsigned>(facts->oops.size() + 1);
        record.count = entries[i].count;
        oops_report_read(&record, entries[i].text);
        facts->oops.push_back(std::move(record));
    }
}

}  // namespace archiveview
