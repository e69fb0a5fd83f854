// The descriptor map in the folder of a core: the long listing of /proc/PID/fd.
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/facts/processes.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr std::string_view arrow = " -> ";

// The last word of the text.
std::string_view last_word(std::string_view text) {
    size_t begin = text.size();
    while (begin > 0 && !is_ascii_blank(text[begin - 1])) {
        begin--;
    }
    return text.substr(begin);
}

// Without the quotes that ls puts around a name if it is told to. No target begins with a quote.
std::string_view without_quotes(std::string_view name) {
    const bool is_quoted =
        name.size() >= 2 && (name[0] == '\'' || name[0] == '"') && name.front() == name.back();
    return is_quoted ? name.substr(1, name.size() - 2) : name;
}

// "lrwx------ 1 root root 64 Nov 22 16:11 3 -> socket:[4711]". Other lines are errors of ls, its first line,
// a descriptor that was closed before its target was read, or the rest of a name with a newline.
void add_line(process_list* list, descriptor_list* map, std::string_view line) {
    const size_t at = line.find(arrow);
    if (!line.starts_with('l') || at == line.npos) {
        return;
    }
    const auto number = number_of<int>(without_quotes(last_word(line.substr(0, at))));
    if (number && *number >= 0) {
        const std::string_view target = without_quotes(line.substr(at + arrow.size()));
        descriptors_add(map, *number, target, &list->descriptor_bytes);
    }
}

// The name in "NAME.PID".
std::string_view name_in(std::string_view folder, int pid) {
    const std::string suffix = "." + std::to_string(pid);
    if (folder.ends_with(suffix)) {
        folder.remove_suffix(suffix.size());
    }
    return folder.substr(0, name_limit);
}

}  // namespace

void processes_add_descriptor_map(process_list* list, int pid, std::string_view folder_name,
                                  std::string_view text) {
    if (!list->get(pid)) {
        return;
    }
    process_evidence* evidence = &list->evidence[pid];
    evidence->map_name = name_in(folder_name, pid);
    descriptor_list* map = &evidence->map;
    descriptors_forget(map, &list->descriptor_bytes);
    *map = {};
    while (!text.empty()) {
        add_line(list, map, take_line(&text));
    }
    map->is_present = map->counts.total > 0;
}

}  // namespace archiveview
