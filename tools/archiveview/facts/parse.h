// Small steps that all parsers share. None throws or copies; a view points into the text that was given.
#pragma once

#include <stdint.h>

#include <charconv>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "common/ascii.h"

namespace archiveview {

// Takes the next line off `text`, without its newline. Call while the text is not empty.
constexpr std::string_view take_line(std::string_view* text) {
    const size_t end = text->find('\n');
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    return line;
}

// Takes the next word off `line`: a run of bytes that are not blank. Empty at the end.
constexpr std::string_view take_word(std::string_view* line) {
    while (!line->empty() && is_ascii_blank(line->front())) {
        line->remove_prefix(1);
    }
    size_t length = 0;
    while (length < line->size() && !is_ascii_blank((*line)[length])) {
        length++;
    }
    const std::string_view word = line->substr(0, length);
    line->remove_prefix(length);
    return word;
}

// Without the blanks at both ends.
constexpr std::string_view trimmed(std::string_view text) {
    while (!text.empty() && is_ascii_blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_ascii_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// The number that the whole of `word` is, or nothing. The base is ignored for fractions, which may come out
// as infinite or as no number.
template <typename Number = uint64_t>
std::optional<Number> number_of(std::string_view word, int base = 10) {
    Number number = 0;
    const char* end = word.data() + word.size();
    std::from_chars_result result;
    if constexpr (std::is_floating_point_v<Number>) {
        result = std::from_chars(word.data(), end, number);
    } else {
        result = std::from_chars(word.data(), end, number, base);
    }
    return result.ec == std::errc() && result.ptr == end && !word.empty() ? std::optional(number)
                                                                          : std::nullopt;
}

// The decimal number that the next word of `line` is, or 0.
template <typename Number = uint64_t>
Number take_number(std::string_view* line) {
    return number_of<Number>(take_word(line)).value_or(0);
}

// Calls `use` with each line of `text` that has its newline: the last line of a text that was cut is not
// used.
template <typename Use>
void for_each_whole_line(std::string_view text, const Use& use) {
    for (size_t end = 0; (end = text.find('\n')) != std::string_view::npos;) {
        use(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
}

// Adds `value` to a list that holds at most `limit` of them.
template <typename List, typename Value>
void add_within(List* list, size_t limit, Value&& value) {
    if (list->size() < limit) {
        list->push_back(std::forward<Value>(value));
    }
}

}  // namespace archiveview
