#include "tools/archiveview/facts/manifest.h"

#include <charconv>

#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

double seconds_of(std::string_view word) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), seconds);
    return error == std::errc() && seconds >= 0 && seconds < 1e6 ? seconds : 0;
}

// "error              oopslog: No space left on device", without its first word.
void add_error(manifest_facts* facts, std::string_view line) {
    line = trimmed(line);
    const size_t colon = line.rfind(": ");
    if (colon != std::string_view::npos && facts->errors.size() < member_limit) {
        facts->errors.push_back({std::string(line.substr(0, colon)), std::string(line.substr(colon + 2))});
    }
}

// "members: 2, bytes: 512312, errors: 1", without its first word.
void set_sums(manifest_facts* facts, std::string_view line) {
    const auto take_sum = [&line] {
        const std::string_view word = take_word(&line);
        return number_of(word.substr(0, word.find(','))).value_or(0);
    };
    facts->members = take_sum();
    take_word(&line);
    facts->bytes = take_sum();
}

// "   312    0.000041  media.conf", without its first word. A name may begin with blanks.
void add_member(manifest_facts* facts, uint64_t bytes, std::string_view line) {
    const double seconds = seconds_of(take_word(&line));
    if (line.size() > 2 && facts->list.size() < member_limit) {
        facts->list.push_back({std::string(line.substr(2)), bytes, seconds});
    }
}

void set_started(manifest_facts* facts, std::string_view line) {
    const std::string_view day = take_word(&line);
    facts->started = std::string(day) + " " + std::string(take_word(&line));
}

void add_line(manifest_facts* facts, std::string_view line) {
    std::string_view rest = line;
    const std::string_view word = take_word(&rest);
    facts->is_complete = line == "complete";
    if (const std::optional<uint64_t> bytes = number_of(word)) {
        add_member(facts, *bytes, rest);
    } else if (word == "error") {
        add_error(facts, rest);
    } else if (word == "started") {
        set_started(facts, rest);
    } else if (word == "members:") {
        set_sums(facts, rest);
    } else if (line.starts_with("the list above is not whole")) {
        facts->is_list_whole = false;
    }
}

}  // namespace

manifest_facts manifest_parse(std::string_view text) {
    manifest_facts facts;
    const bool has_last_newline = text.ends_with('\n');
    while (!text.empty()) {
        add_line(&facts, take_line(&text));
    }
    facts.is_complete = facts.is_complete && has_last_newline;
    return facts;
}

}  // namespace archiveview
