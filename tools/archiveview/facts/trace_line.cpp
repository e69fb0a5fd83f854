#include "tools/archiveview/facts/trace_line.h"

#include <algorithm>

#include "tools/archiveview/facts/parse.h"

namespace archiveview {

namespace {

constexpr size_t name_bytes = 31;  // the tracer cuts a process's name
constexpr size_t call_bytes = 32;
constexpr std::string_view name_end = "] ";
constexpr std::string_view signal_mark = "---  SIGNAL ";
constexpr std::string_view signal_end = " ---";
constexpr std::string_view listing_end = " open fds:";
constexpr std::string_view result_mark = ") = ";
constexpr std::string_view duration_mark = " <";

// Takes the bytes up to `end` off `text`, and `end` itself. Leaves `text` alone if it has no `end`.
std::optional<std::string_view> take_until(std::string_view* text, std::string_view end) {
    const size_t at = text->find(end);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view taken = text->substr(0, at);
    text->remove_prefix(at + end.size());
    return taken;
}

bool is_call_name(std::string_view name) {
    return !name.empty() && name.size() <= call_bytes && std::ranges::all_of(name, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || is_ascii_digit(c) || c == '_';
    });
}

// "<0.000123>" at the end of a line.
void take_duration(std::string_view* text, trace_line* line) {
    if (!text->ends_with('>')) {
        return;
    }
    const size_t at = text->rfind(duration_mark);
    if (at == std::string_view::npos) {
        return;
    }
    std::string_view whole = text->substr(at + duration_mark.size());
    whole.remove_suffix(1);
    const auto seconds = take_until(&whole, ".");
    const auto count = seconds ? number_of<uint32_t>(*seconds) : std::nullopt;
    const auto microseconds = number_of<uint32_t>(whole);
    if (count && microseconds && whole.size() == 6) {
        line->seconds = *count + *microseconds / 1e6;
        text->remove_suffix(text->size() - at);
    }
}

std::optional<int64_t> result_of(std::string_view word) {
    if (!word.starts_with("0x")) {
        return number_of<int64_t>(word);
    }
    word.remove_prefix(2);
    const auto value = number_of<uint64_t>(word, 16);
    if (!value) {
        return std::nullopt;
    }
    // A 32-bit error is a small negative number as well.
    constexpr uint64_t first_error_32 = 0xfffff000;
    const bool is_error_32 = *value >= first_error_32 && *value <= UINT32_MAX;
    return is_error_32 ? static_cast<int32_t>(*value) : static_cast<int64_t>(*value);
}

// What follows "[pid name] " in the line of a call.
bool read_call(std::string_view text, trace_line* line) {
    std::string_view rest = text;
    if (!rest.starts_with('[')) {
        return false;
    }
    rest.remove_prefix(1);
    const auto pc = take_until(&rest, " ");
    const auto ra = pc && number_of(*pc, 16) ? take_until(&rest, name_end) : std::nullopt;
    const auto address = ra ? number_of(*ra, 16) : std::nullopt;
    const auto call = address ? take_until(&rest, "(") : std::nullopt;
    if (!call || !is_call_name(*call)) {
        return false;
    }
    line->call = *call;
    line->is_mips = *address != 0;
    line->kind = trace_line_kind::unfinished;
    take_duration(&rest, line);
    const size_t mark = rest.rfind(result_mark);
    const auto result =
        mark == std::string_view::npos ? std::nullopt : result_of(rest.substr(mark + result_mark.size()));
    if (result) {
        line->kind = trace_line_kind::result;
        line->result = *result;
        line->arguments = rest.substr(0, mark);
    } else if (rest.ends_with(')')) {
        line->kind = trace_line_kind::call;
        line->arguments = rest.substr(0, rest.size() - 1);
    } else {
        line->arguments = rest;
    }
    return true;
}

// "---  SIGNAL 17 SIGCHLD ---"
bool read_signal(std::string_view text, trace_line* line) {
    if (!text.starts_with(signal_mark) || !text.ends_with(signal_end)) {
        return false;
    }
    text.remove_prefix(signal_mark.size());
    const std::string_view number = take_word(&text);
    const std::string_view name = take_word(&text);
    line->signal = name.starts_with("---") ? number : name;
    line->kind = trace_line_kind::signal;
    return number_of(number).has_value();
}

// "3 open fds:"
bool read_listing(std::string_view text, trace_line* line) {
    if (!text.ends_with(listing_end)) {
        return false;
    }
    text.remove_suffix(listing_end.size());
    const auto count = number_of<int>(text);
    line->descriptors = count.value_or(0);
    line->kind = trace_line_kind::listing;
    return count.has_value() && *count >= 0;
}

}  // namespace

std::optional<double> trace_take_time(std::string_view* line) {
    constexpr std::string_view form = "00:00:00.000000 ";
    if (line->size() < form.size()) {
        return std::nullopt;
    }
    for (size_t i = 0; i < form.size(); i++) {
        const char c = (*line)[i];
        if (form[i] == '0' ? !is_ascii_digit(c) : c != form[i]) {
            return std::nullopt;
        }
    }
    const auto part = [line](size_t at, size_t size) {
        return number_of<uint32_t>(line->substr(at, size)).value_or(0);
    };
    const double seconds = part(0, 2) * 3600.0 + part(3, 2) * 60.0 + part(6, 2) + part(9, 6) / 1e6;
    line->remove_prefix(form.size());
    return seconds;
}

trace_line trace_read_line(std::string_view text) {
    trace_line line;
    line.text = text;
    std::string_view rest = text;
    if (!rest.starts_with('[')) {
        return line;
    }
    rest.remove_prefix(1);
    const auto pid = take_until(&rest, " ");
    line.pid = pid ? number_of<int>(*pid).value_or(0) : 0;
    if (line.pid <= 0) {
        return line;
    }
    // The name may hold its own end.
    for (size_t at = rest.find(name_end); at <= name_bytes; at = rest.find(name_end, at + 1)) {
        const std::string_view after = rest.substr(at + name_end.size());
        line.name = rest.substr(0, at);
        if (read_call(after, &line) || read_signal(after, &line) || read_listing(after, &line)) {
            return line;
        }
        line.kind = trace_line_kind::nothing;
    }
    return line;
}

descriptor_argument trace_descriptor_argument(std::string_view arguments) {
    size_t digits = 0;
    while (digits < arguments.size() && is_ascii_digit(arguments[digits])) {
        digits++;
    }
    const auto number = number_of<int>(arguments.substr(0, digits));
    if (!number) {
        return {};
    }
    descriptor_argument found;
    found.number = *number;
    std::string_view rest = arguments.substr(digits);
    if (!rest.starts_with(' ')) {
        return found;
    }
    rest.remove_prefix(1);
    // The next argument is a number or quoted data.
    for (size_t at = rest.find(", "); at != std::string_view::npos; at = rest.find(", ", at + 1)) {
        const char next = at + 2 < rest.size() ? rest[at + 2] : '\0';
        if (is_ascii_digit(next) || next == '-' || next == '"') {
            rest = rest.substr(0, at);
            break;
        }
    }
    found.text = rest;
    return found;
}

std::optional<int64_t> trace_last_argument(std::string_view arguments) {
    const size_t at = arguments.rfind(' ');
    return number_of<int64_t>(at == std::string_view::npos ? arguments : arguments.substr(at + 1));
}

}  // namespace archiveview
