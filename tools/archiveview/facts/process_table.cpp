// The table processes.txt, which the device makes of both looks.
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/facts/processes.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr size_t name_width = 15;
constexpr std::string_view gone = "gone";

// Takes a growth, "+12", off the line. Nothing if the process was not in both looks.
std::optional<int64_t> take_growth(std::string_view* line) {
    std::string_view word = take_word(line);
    if (word.starts_with('+')) {
        word.remove_prefix(1);
    }
    return number_of<int64_t>(word);
}

// Takes a share, "12.3%", off the line; -1 if it is unknown.
double take_percent(std::string_view* line) {
    std::string_view word = take_word(line);
    const size_t dot = word.find('.');
    if (dot == word.npos || !word.ends_with('%')) {
        return -1;
    }
    word.remove_suffix(1);
    const auto whole = number_of<uint32_t>(word.substr(0, dot));
    const auto tenth = number_of<uint32_t>(word.substr(dot + 1));
    return whole && tenth ? *whole + *tenth / 10.0 : -1;
}

// Takes what follows the numbers off the line: " NAME            COMMAND", where the name may hold blanks.
void take_names(process_row* row, std::string_view line) {
    line.remove_prefix(line.empty() ? 0 : 1);
    row->name = trimmed(line.substr(0, name_width));
    if (line.size() > name_width + 1) {
        row->command = line.substr(name_width + 1, command_limit);
    }
}

// Parses a line from its third word. Returns false if it is not of the table.
bool parse_row(std::string_view line, process_row* row) {
    row->user = take_word(&line).substr(0, name_width);
    const std::string_view state = take_word(&line);
    row->has_gone = state == gone;
    if (!row->has_gone && state.size() != 1) {
        return false;
    }
    row->state = row->has_gone ? 'X' : state[0];
    row->threads = take_number<unsigned>(&line);
    (void)take_word(&line);  // time since its start
    row->cpu_percent = take_percent(&line);
    row->resident_kb = take_number<uint32_t>(&line);
    const auto resident_growth = take_growth(&line);
    row->resident_growth_kb = resident_growth.value_or(0);
    row->descriptors = number_of<int32_t>(take_word(&line)).value_or(-1);
    row->descriptor_growth = take_growth(&line).value_or(0);
    row->was_in_both = resident_growth.has_value();
    take_names(row, line);
    return true;
}

}  // namespace

void processes_add_table(process_list* list, std::string_view text) {
    while (!text.empty()) {
        std::string_view line = take_line(&text);
        process_row row;
        const int pid = take_number<int>(&line);
        row.parent = take_number<int>(&line);
        // A pid that was used again has two lines. The last one is that of the second look.
        if (parse_row(line, &row) && list->get(pid)) {
            list->evidence[pid].row = row;
        }
    }
}

}  // namespace archiveview
