#include "tools/archiveview/facts/oops_report.h"

#include <algorithm>
#include <initializer_list>

#include "tools/archiveview/facts/log_text.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// How the first sentence of a report begins. A row of a higher rank counts only if the record has none of a
// lower one. The rows are in the order of their rank.
constexpr struct {
    std::string_view text;
    unsigned rank;
} causes[] = {
    {"Unable to handle kernel", 0},
    {"BUG: ", 0},
    {"kernel BUG at ", 0},
    {"Kernel bug detected", 0},
    {"Unhandled kernel unaligned access", 0},
    {"Reserved instruction in kernel code", 0},
    {"Break instruction in kernel code", 0},
    {"Trap instruction in kernel code", 0},
    {"Data bus error", 0},
    {"Instruction bus error", 0},
    {"do_cpu invoked from kernel context", 0},
    {"Caught Machine Check", 0},
    {"Machine check", 0},
    {"general protection fault", 0},
    {"divide error", 0},
    {"invalid opcode", 0},
    {"stack-protector: ", 0},
    {"Unhandled fault", 0},
    {"Kernel stack overflow", 0},
    {"Internal error: ", 1},
    {"Oops[#", 1},
    {"Oops: ", 1},
    {"Kernel panic", 2},
    {"INFO: rcu", 3},
    {"INFO: task ", 3},
    {"WARNING: ", 3},
};
constexpr unsigned no_rank = 4;
// Ends the sentence.
constexpr std::string_view cause_ends[] = {", epc ==", "[#"};

// What precedes the address where the processor was.
constexpr std::string_view place_titles[] = {
    "epc ", "PC is at ", "pc : ", "RIP: ", "EIP: ", "EIP is at ", "NIP ", "IP: "};

// "do_sys_open+0x10c/0x210"
bool is_symbol(std::string_view word) {
    const size_t plus = word.find("+0x");
    return plus != std::string_view::npos && plus > 0 && word.find("/0x", plus) != std::string_view::npos;
}

void read_place(oops_record* record, std::string_view line) {
    const bool is_place =
        std::ranges::any_of(place_titles, [line](std::string_view title) { return line.starts_with(title); });
    if (!is_place || !record->place.empty()) {
        return;
    }
    for (std::string_view word = take_word(&line); !word.empty(); word = take_word(&line)) {
        word.remove_prefix(word.rfind(':') + 1);  // the segment
        if (is_symbol(word)) {
            const std::string_view module = take_word(&line);
            record->place = word;
            if (module.starts_with('[') && module.ends_with(']')) {
                (record->place += ' ') += module;
            }
            return;
        }
    }
}

// The text after `before` and up to the first of `after`; nothing if one of them is missing.
std::optional<std::string_view> between(std::string_view line, std::string_view before,
                                        std::initializer_list<std::string_view> after) {
    const size_t begin = line.find(before);
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    line.remove_prefix(begin + before.size());
    for (std::string_view each : after) {
        if (const size_t end = line.find(each); end != std::string_view::npos) {
            return line.substr(0, end);
        }
    }
    return std::nullopt;
}

// "Process encoderd (pid: 412, threadinfo=...)", "CPU: 0 PID: 412 Comm: encoderd Tainted: ...", or of old
// kernels "Pid: 412, comm: encoderd Not tainted".
void read_process(oops_record* record, std::string_view line) {
    std::optional<std::string_view> name = between(line, "Process ", {" (pid: "});
    std::optional<std::string_view> pid = between(line, " (pid: ", {",", ")"});
    if (!name || !pid) {
        name = between(line, "omm: ", {" Tainted: ", " Not tainted"});
        pid = between(line, line.starts_with("Pid: ") ? "Pid: " : "PID: ", {", ", " "});
    }
    const std::optional<int> number = pid ? number_of<int>(trimmed(*pid)) : std::nullopt;
    if (name && number && *number >= 0 && record->process.empty()) {
        record->process = *name;
        record->pid = *number;
    }
}

std::string_view sentence_of(std::string_view text) {
    for (std::string_view end : cause_ends) {
        text = text.substr(0, text.find(end));
    }
    return trimmed(text);
}

// The part of `line` that begins with `cause`, at the beginning of a word (not "DEBUG: ").
std::string_view find_cause(std::string_view line, std::string_view cause) {
    const size_t at = line.find(cause);
    const bool is_found = at != std::string_view::npos && (at == 0 || is_ascii_blank(line[at - 1]));
    return is_found ? line.substr(at) : std::string_view();
}

// Takes the headline from the line if it is better than that so far, whose rank is `rank`. What was found of
// a lesser report is forgotten. What precedes any headline is kept: a record may lack its beginning.
void read_cause(oops_record* record, std::string_view line, unsigned* rank) {
    for (const auto& cause : causes) {
        if (cause.rank >= *rank) {
            return;
        }
        if (const std::string_view found = find_cause(line, cause.text); !found.empty()) {
            record->headline = sentence_of(found);
            if (*rank < no_rank) {
                record->place.clear();
                record->process.clear();
                record->pid = 0;
            }
            *rank = cause.rank;
            return;
        }
    }
}

}  // namespace

void oops_report_read(oops_record* record, std::string_view text) {
    unsigned rank = no_rank;
    while (!text.empty()) {
        record->is_cut = text.find('\n') == std::string_view::npos;
        log_line line = log_line_parse(take_line(&text));
        if (trimmed(line.text).empty()) {
            continue;
        }
        read_cause(record, line.text, &rank);
        record->is_panic |= line.text.find("Kernel panic") != std::string::npos;
        if (!record->is_cut) {
            read_place(record, line.text);
            read_process(record, line.text);
        }
        add_within(&record->lines, oops_line_limit, std::move(line));
    }
    if (rank == no_rank && !record->lines.empty()) {
        record->headline = record->lines.front().text;
    }
}

}  // namespace archiveview
