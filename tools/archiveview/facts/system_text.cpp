#include "tools/archiveview/facts/system_text.h"

#include <algorithm>
#include <cmath>

#include "tools/archiveview/facts/octal.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

std::string kept(std::string_view text) {
    return std::string(trimmed(text.substr(0, line_limit)));
}

constexpr struct {
    std::string_view key;
    std::string device_facts::*value;
} system_keys[] = {
    {"host", &device_facts::host},     {"kernel command line", &device_facts::command_line},
    {"load", &device_facts::load},     {"clock", &device_facts::clock},
    {"zarvo", &device_facts::version},
};

double seconds_of(std::string_view text) {
    const double seconds = take_number<double>(&text);
    return std::isfinite(seconds) && seconds > 0 ? seconds : 0;
}

// "Linux 3.18.44 #1 SMP mips": the last word is the machine.
void set_kernel(device_facts* facts, std::string_view text) {
    const size_t space = text.rfind(' ');
    facts->kernel = kept(text.substr(0, space));
    facts->machine = space == std::string_view::npos ? std::string() : kept(text.substr(space));
}

void read_system(device_facts* facts, std::string_view line) {
    const size_t colon = line.find(": ");
    if (colon == std::string_view::npos) {
        return;
    }
    const std::string_view key = line.substr(0, colon);
    const std::string_view value = trimmed(line.substr(colon + 2));
    if (key == "kernel") {
        set_kernel(facts, value);
    } else if (key == "uptime") {
        facts->uptime_seconds = seconds_of(value);
    } else if (const auto* row =
                   std::ranges::find(system_keys, key, [](const auto& each) { return each.key; });
               row != std::end(system_keys)) {
        facts->*row->value = kept(value);
    }
}

void read_memory(device_facts* facts, std::string_view line) {
    if (take_word(&line) == "MemTotal:") {
        facts->memory_kb = take_number(&line);
    }
}

constexpr struct {
    std::string_view name;
    uint64_t file_system::*value;
} sizes[] = {
    {"total_kib", &file_system::total_kb},
    {"used_kib", &file_system::used_kb},
    {"available_kib", &file_system::available_kb},
    {"inodes_free", &file_system::free_inodes},
};

void read_file_system(device_facts* facts, std::string_view line) {
    file_system each;
    for (std::string* word : {&each.device, &each.folder, &each.type, &each.options}) {
        *word = octal_decoded(take_word(&line));
    }
    each.is_answering = trimmed(line) != "not answering";
    for (const auto& size : sizes) {
        std::string_view after = line;
        if (take_word(&after) == size.name) {
            each.*size.value = take_number(&after);
            line = after;
        }
    }
    if (!each.type.empty()) {
        add_within(&facts->file_systems, counter_limit, std::move(each));
    }
}

// "eth0 address 192.0.2.2/24"; the interfaces themselves are in /proc/net/dev.
void read_interface(device_facts* facts, std::string_view line) {
    const std::string_view name = take_word(&line);
    if (take_word(&line) == "address" && !trimmed(line).empty()) {
        add_within(&facts->addresses, counter_limit, kept(name) + ' ' + kept(line));
    }
}

template <std::vector<std::string> device_facts::*list>
void read_line(device_facts* facts, std::string_view line) {
    if (!trimmed(line).empty()) {
        add_within(&(facts->*list), counter_limit, kept(line));
    }
}

constexpr struct {
    std::string_view title;
    void (*read)(device_facts* facts, std::string_view line);
} sections[] = {
    {"[system]", read_system},
    {"[memory]", read_memory},
    {"[file systems]", read_file_system},
    {"[interfaces]", read_interface},
    {"[routes]", read_line<&device_facts::routes>},
    {"[neighbours]", read_line<&device_facts::neighbours>},
    {"[errors]", read_line<&device_facts::errors>},
};

template <typename Value>
void fill(Value* value, const Value& otherwise) {
    if (*value == Value()) {
        *value = otherwise;
    }
}

std::string setting_of(const look& l, const char* name) {
    const auto found = l.settings.find(name);
    return found == l.settings.end() ? std::string() : found->second;
}

// "Linux 3.18.44 (builder@host) (gcc version ...) #1 SMP date" is "Linux 3.18.44 #1 SMP date".
std::string kernel_of(const look& l) {
    std::string_view rest = l.version;
    std::string name(take_word(&rest));
    if (rest.starts_with(" version ")) {
        take_word(&rest);
    }
    (name += ' ') += take_word(&rest);
    const size_t build = rest.find(" #");
    return build == std::string_view::npos ? name : name.append(rest.substr(build));
}

}  // namespace

void system_text_parse(device_facts* facts, std::string_view text) {
    void (*read)(device_facts * facts, std::string_view line) = nullptr;
    for_each_whole_line(text.substr(0, text_limit), [&](std::string_view line) {
        // No line of a section begins with a bracket.
        if (line.starts_with('[')) {
            const auto* found =
                std::ranges::find(sections, line, [](const auto& each) { return each.title; });
            read = found == std::end(sections) ? nullptr : found->read;
        } else if (read) {
            read(facts, line);
        }
    });
}

void device_add_look(device_facts* facts, const look& l) {
    fill(&facts->host, setting_of(l, "sys/kernel/hostname"));
    fill(&facts->command_line, l.command_line);
    fill(&facts->load, l.load);
    fill(&facts->processor, l.processor);
    fill(&facts->machine, l.machine);
    fill(&facts->uptime_seconds, l.uptime_seconds);
    if (!l.version.empty()) {
        fill(&facts->kernel, kernel_of(l));
    }
    if (facts->processors == 0 && !l.processors.empty()) {
        facts->processors = static_cast<unsigned>(l.processors.size() - 1);
    }
    if (const auto total = l.memory_kb.find("MemTotal"); total != l.memory_kb.end()) {
        fill(&facts->memory_kb, total->second);
    }
}

}  // namespace archiveview
