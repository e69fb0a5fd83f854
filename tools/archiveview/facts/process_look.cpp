// The files of a look at processes.
#include <algorithm>

#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/facts/processes.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr size_t stat_limit = 4096;            // bytes of a stat file, which has a line
constexpr size_t status_limit = 65536;         // bytes of a status file
constexpr size_t kernel_path_limit = 128;      // bytes of a kernel's function
constexpr size_t escape_length = 4;            // "\\ooo"
constexpr std::string_view not_waiting = "0";  // as the kernel writes it

// Where a file's facts go.
struct file_place {
    process_list* list;
    std::array<process_look, 2>* looks;  // of the process
    process_look* look;                  // one of them
};

std::optional<proc_stat> parsed_stat(std::string_view text) {
    proc_stat stat = {};
    const std::string copy(text.substr(0, stat_limit));
    return proc_stat_parse(copy.c_str(), &stat) ? std::optional(stat) : std::nullopt;
}

std::string wait_channel_of(std::string_view text) {
    text = trimmed(text).substr(0, kernel_path_limit);
    return text == not_waiting ? std::string() : std::string(text);
}

void add_stat(const file_place& place, std::string_view text) {
    place.look->stat = parsed_stat(text);
}

void add_status(const file_place& place, std::string_view text) {
    constexpr uint32_t unknown = UINT32_MAX;
    const std::string copy(text.substr(0, status_limit));
    const uint32_t resident_kb = proc_status_number(copy.c_str(), "\nVmRSS:", unknown);
    const uint32_t kernel_thread = proc_status_number(copy.c_str(), "\nKthread:", unknown);
    const uid_t uid = proc_status_uid(copy.c_str());
    process_look* look = place.look;
    look->has_status = true;
    look->has_memory = resident_kb != unknown;
    look->resident_kb = look->has_memory ? resident_kb : -1;
    if (kernel_thread != unknown) {
        look->is_kernel_thread = kernel_thread == 1;
    }
    if (uid != static_cast<uid_t>(-1)) {
        look->uid = uid;
    }
}

void add_limits(const file_place& place, std::string_view text) {
    constexpr std::string_view key = "Max open files ";
    while (!text.empty()) {
        std::string_view line = take_line(&text);
        if (line.starts_with(key)) {
            line.remove_prefix(key.size());
            place.look->descriptor_bound = take_number(&line);
        }
    }
}

void add_wait_channel(const file_place& place, std::string_view text) {
    place.look->wait_channel = wait_channel_of(text);
}

void add_command(const file_place& place, std::string_view text) {
    std::string command(text.substr(0, command_limit));
    std::replace(command.begin(), command.end(), '\0', ' ');
    place.look->command = trimmed(command);
}

// The byte of "\ooo" at the start of the text, or nothing.
std::optional<uint8_t> escaped_byte(std::string_view text) {
    const bool is_escape = text.size() >= escape_length && text[0] == '\\';
    return is_escape ? number_of<uint8_t>(text.substr(1, escape_length - 1), 8) : std::nullopt;
}

// The text that the device wrote with "\ooo" for control characters and backslashes.
std::string unescaped(std::string_view text) {
    const size_t plain_length = std::min(text.find('\\'), text.size());
    std::string plain(text.substr(0, plain_length));
    text.remove_prefix(plain_length);
    while (!text.empty()) {
        const auto byte = escaped_byte(text);
        plain += byte ? static_cast<char>(*byte) : text[0];
        text.remove_prefix(byte ? escape_length : 1);
    }
    return plain;
}

void add_link(const file_place& place, std::string_view link, std::string_view target) {
    constexpr std::string_view descriptors = "fd/";
    const std::string plain = unescaped(target.substr(0, path_limit));
    if (link == "exe") {
        place.look->program = plain;
    } else if (link.starts_with(descriptors)) {
        if (const auto number = number_of<int>(link.substr(descriptors.size())); number && *number >= 0) {
            descriptors_add(&place.look->links, *number, plain, &place.list->descriptor_bytes);
        }
    }
}

void add_links(const file_place& place, std::string_view text) {
    constexpr std::string_view arrow = " -> ";
    descriptor_list* links = &place.look->links;
    descriptors_forget(links, &place.list->descriptor_bytes);
    *links = {};
    links->is_present = true;
    while (!text.empty()) {
        const std::string_view line = take_line(&text);
        const size_t at = line.find(arrow);
        if (at != line.npos) {
            add_link(place, line.substr(0, at), line.substr(at + arrow.size()));
        }
        links->is_cut |= line.starts_with("(the list is cut here)");
    }
    if (place.look == &place.looks->back() && !links->is_cut) {
        descriptors_forget(&place.looks->front().links, &place.list->descriptor_bytes);
    }
}

struct file_row {
    std::string_view name;
    void (*add)(const file_place& place, std::string_view text);
};

constexpr file_row files[] = {
    {"stat", add_stat},     {"status", add_status},      {"cmdline", add_command},
    {"limits", add_limits}, {"wchan", add_wait_channel}, {"links", add_links},
};

void add_thread_stat(thread_facts* thread, std::string_view text) {
    if (const auto stat = parsed_stat(text)) {
        thread->name = stat->name;
        thread->state = stat->state;
        thread->ticks = stat->cpu_ticks;
        thread->start_ticks = stat->start_ticks;
    }
}

// `name` is "TID/FILE".
void add_thread_file(process_look* look, std::string_view name, std::string_view text) {
    const size_t slash = name.find('/');
    const int tid = number_of<int>(name.substr(0, slash)).value_or(0);
    if (slash == name.npos || tid <= 0 ||
        (look->threads.size() >= thread_limit && !look->threads.count(tid))) {
        return;
    }
    thread_facts* thread = &look->threads[tid];
    thread->tid = tid;
    const std::string_view file = name.substr(slash + 1);
    if (file == "stat") {
        add_thread_stat(thread, text);
    } else if (file == "wchan") {
        thread->wait_channel = wait_channel_of(text);
    }
}

}  // namespace

void processes_add_look_file(process_list* list, int look, int pid, std::string_view name,
                             std::string_view text) {
    if (look < 0 || look > 1 || !list->get(pid)) {
        return;
    }
    std::array<process_look, 2>* looks = &list->evidence[pid].looks;
    const file_place place = {list, looks, &(*looks)[static_cast<size_t>(look)]};
    place.look->is_present = true;
    constexpr std::string_view threads = "task/";
    if (name.starts_with(threads)) {
        add_thread_file(place.look, name.substr(threads.size()), text);
        return;
    }
    for (const file_row& file : files) {
        if (file.name == name) {
            file.add(place, text);
        }
    }
}

}  // namespace archiveview
