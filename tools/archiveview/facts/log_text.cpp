#include "tools/archiveview/facts/log_text.h"

#include <cmath>

#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr size_t longest_prefix = 40;

// Takes what is between `open` and `close` off the line, if the line begins with it.
std::optional<std::string_view> take_between(std::string_view* line, char open, char close) {
    const size_t end = line->substr(0, longest_prefix).find(close);
    if (!line->starts_with(open) || end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view inside = line->substr(1, end - 1);
    line->remove_prefix(end + 1);
    return inside;
}

// "<30>" is level 6 of facility 3.
int take_level(std::string_view* line) {
    std::string_view after = *line;
    const std::optional<std::string_view> inside = take_between(&after, '<', '>');
    const std::optional<unsigned> code = inside ? number_of<unsigned>(*inside) : std::nullopt;
    if (!code) {
        return -1;
    }
    *line = after;
    return static_cast<int>(*code % 8);
}

double take_time(std::string_view* line) {
    std::string_view after = *line;
    const std::optional<std::string_view> inside = take_between(&after, '[', ']');
    const std::optional<double> seconds = inside ? number_of<double>(trimmed(*inside)) : std::nullopt;
    if (!seconds || !std::isfinite(*seconds) || *seconds < 0 || inside->find('.') == std::string_view::npos) {
        return -1;
    }
    *line = after;
    return *seconds;
}

// "[    T1]" or "[   C0]": the thread or the processor that wrote the line.
void skip_caller(std::string_view* line) {
    std::string_view after = *line;
    const std::optional<std::string_view> inside = take_between(&after, '[', ']');
    const std::string_view caller = inside ? trimmed(*inside) : std::string_view();
    if (caller.size() > 1 && (caller[0] == 'T' || caller[0] == 'C') && number_of(caller.substr(1))) {
        *line = after;
    }
}

}  // namespace

log_line log_line_parse(std::string_view line) {
    log_line parsed;
    parsed.level = take_level(&line);
    parsed.seconds = take_time(&line);
    if (parsed.seconds >= 0) {
        skip_caller(&line);
        line.remove_prefix(line.starts_with(' ') ? 1 : 0);
    }
    while (!line.empty() && is_ascii_blank(line.back())) {
        line.remove_suffix(1);
    }
    parsed.text = line.substr(0, line_limit);
    return parsed;
}

}  // namespace archiveview
