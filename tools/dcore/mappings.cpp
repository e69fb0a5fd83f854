#include "tools/dcore/mappings.h"

#include <memory>

#include "tools/dcore/proc_text.h"

namespace {

// The kernel writes a newline in a name as \012.
std::string unescape(std::string_view text) {
    constexpr std::string_view newline = "\\012";
    std::string path;
    while (!text.empty()) {
        bool escaped = text.starts_with(newline);
        path += escaped ? '\n' : text[0];
        text.remove_prefix(escaped ? newline.size() : 1);
    }
    return path;
}

bool parse_permissions(std::string_view word, core_mapping* mapping) {
    if (word.size() != 4) {
        return false;
    }
    mapping->readable = word[0] == 'r';
    mapping->writable = word[1] == 'w';
    mapping->executable = word[2] == 'x';
    mapping->shared = word[3] == 's';
    return true;
}

constexpr struct {
    std::string_view key;
    uint64_t core_mapping::*field;
} counters[] = {
    {"Rss:", &core_mapping::resident_kb},
    {"Anonymous:", &core_mapping::anonymous_kb},
    {"Swap:", &core_mapping::swapped_kb},
};

constexpr struct {
    std::string_view name;
    bool core_mapping::*field;
} vm_flags[] = {
    {"io", &core_mapping::is_device},    // memory-mapped input and output
    {"pf", &core_mapping::is_device},    // pages that the kernel does not manage
    {"dd", &core_mapping::do_not_dump},  // madvise(MADV_DONTDUMP)
    {"ht", &core_mapping::is_huge},
};

void add_vm_flags(core_mapping* mapping, std::string_view rest) {
    mapping->has_details = true;
    while (!rest.empty()) {
        std::string_view word = take_word(&rest);
        for (const auto& flag : vm_flags) {
            if (word == flag.name) {
                mapping->*flag.field = true;
            }
        }
    }
}

}  // namespace

bool mapping_parse_head(std::string_view line, core_mapping* mapping) {
    core_mapping found;
    if (!take_hex(&line, &found.start) || !take_prefix(&line, "-") || !take_hex(&line, &found.end) ||
        found.end <= found.start || !parse_permissions(take_word(&line), &found) ||
        !take_hex(&line, &found.offset)) {
        return false;
    }
    uint64_t inode = 0;
    if (take_word(&line).empty() || !take_number(&line, &inode)) {
        return false;
    }
    found.path = unescape(line);
    found.is_file = inode != 0 || found.path.starts_with('/');
    found.is_deleted = found.is_file && found.path.ends_with(" (deleted)");
    *mapping = std::move(found);
    return true;
}

void mapping_add_detail(core_mapping* mapping, std::string_view line) {
    if (take_prefix(&line, "VmFlags:")) {
        add_vm_flags(mapping, line);
        return;
    }
    for (const auto& counter : counters) {
        if (take_prefix(&line, counter.key)) {
            take_number(&line, &(mapping->*counter.field));
        }
    }
}

void mapping_guess_details(core_mapping* mapping) {
    std::string_view path = mapping->path;
    mapping->is_device = path == "[vvar]" || path == "[vvar_vclock]" ||
                         (path.starts_with("/dev/") && !path.starts_with("/dev/shm/") &&
                          !mapping->is_deleted && path != "/dev/zero");
}

size_t mappings_walk(pid_t pid, mapping_taker take, void* cookie) {
    unique_fd file = proc_open(pid, "smaps");
    if (!file) {
        file = proc_open(pid, "maps");
    }
    auto lines = std::make_unique<line_reader>(file.get());
    core_mapping mapping, next;
    size_t count = 0;
    auto finish = [&] {
        if (mapping.end != 0) {
            if (!mapping.has_details) {
                mapping_guess_details(&mapping);
            }
            take(mapping, cookie);
            count++;
        }
    };
    for (std::string_view line; lines->next(&line);) {
        if (mapping_parse_head(line, &next)) {
            finish();
            std::swap(mapping, next);
        } else {
            mapping_add_detail(&mapping, line);
        }
    }
    finish();
    return count;
}
