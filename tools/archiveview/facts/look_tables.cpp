// The processors, memory and devices of a look.
#include <algorithm>

#include "tools/archiveview/facts/look_files.h"
#include "tools/archiveview/facts/octal.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// The columns of a processor's line. Old kernels have the first four only. Time in virtual machines follows,
// which the first two include.
constexpr uint64_t cpu_ticks::*cpu_columns[] = {
    &cpu_ticks::user,    &cpu_ticks::user,       &cpu_ticks::system,     &cpu_ticks::idle,
    &cpu_ticks::waiting, &cpu_ticks::interrupts, &cpu_ticks::interrupts, &cpu_ticks::stolen,
};

// `number` is empty for the sum of all processors.
void add_processor(look* l, std::string_view number, std::string_view line) {
    const std::optional<size_t> each = number_of<size_t>(number);
    if ((!each && !number.empty()) || each.value_or(0) >= processor_limit) {
        return;
    }
    const size_t index = each ? *each + 1 : 0;
    if (index >= l->processors.size()) {
        l->processors.resize(index + 1);
    }
    cpu_ticks ticks;
    for (auto column : cpu_columns) {
        ticks.*column += take_number(&line);
    }
    l->processors[index] = ticks;
}

constexpr struct {
    std::string_view name;
    uint64_t look::*value;
} stat_lines[] = {
    {"ctxt", &look::context_switches}, {"btime", &look::boot_time},       {"processes", &look::forks},
    {"procs_running", &look::running}, {"procs_blocked", &look::blocked},
};

}  // namespace

void look_set_counter(std::map<std::string, uint64_t>* counters, std::string name, uint64_t value) {
    if (counters->size() < counter_limit) {
        (*counters)[std::move(name)] = value;
    }
}

void look_read_stat(look* l, std::string_view text) {
    l->processors.clear();
    for_each_whole_line(text, [l](std::string_view line) {
        const std::string_view name = take_word(&line);
        if (name.starts_with("cpu")) {
            add_processor(l, name.substr(3), line);
            return;
        }
        for (const auto& row : stat_lines) {
            if (row.name == name) {
                l->*row.value = take_number(&line);
            }
        }
    });
}

// Counts of huge pages have no unit and are left out.
void look_read_meminfo(look* l, std::string_view text) {
    l->memory_kb.clear();
    for_each_whole_line(text, [l](std::string_view line) {
        std::string_view name = take_word(&line);
        const std::optional<uint64_t> value = number_of(take_word(&line));
        if (name.ends_with(':') && value && take_word(&line) == "kB") {
            name.remove_suffix(1);
            look_set_counter(&l->memory_kb, std::string(name), *value);
        }
    });
}

void look_read_vmstat(look* l, std::string_view text) {
    l->vmstat.clear();
    for_each_whole_line(text, [l](std::string_view line) {
        const std::string_view name = take_word(&line);
        if (const std::optional<uint64_t> value = number_of(take_word(&line))) {
            look_set_counter(&l->vmstat, std::string(name), *value);
        }
    });
}

// Version 1 and 2 of the table agree in these columns. A name may hold spaces.
void look_read_slabinfo(look* l, std::string_view text) {
    l->slabs.clear();
    for_each_whole_line(text, [l](std::string_view line) {
        const std::string_view whole = line;
        take_word(&line);
        size_t name_length = whole.size() - line.size();
        std::string_view word = take_word(&line);
        while (!word.empty() && !number_of(word)) {
            name_length = whole.size() - line.size();
            word = take_word(&line);
        }
        const std::optional<uint64_t> objects = number_of(take_word(&line));
        const std::optional<uint64_t> bytes = number_of(take_word(&line));
        if (objects && bytes && !whole.starts_with('#')) {
            add_within(&l->slabs, counter_limit,
                       slab_cache{std::string(trimmed(whole.substr(0, name_length))), *objects, *bytes});
        }
    });
}

namespace {

constexpr struct {
    uint64_t disk_counters::*value;
    size_t column;            // after the name
    size_t partition_column;  // in a line with four columns, which old kernels have for a partition
} disk_columns[] = {
    {&disk_counters::reads, 0, 0},          {&disk_counters::read_sectors, 2, 1},
    {&disk_counters::writes, 4, 2},         {&disk_counters::written_sectors, 6, 3},
    {&disk_counters::busy_ms, 9, SIZE_MAX},
};
constexpr size_t partition_columns = 4;
constexpr size_t whole_columns = 11;

}  // namespace

void look_read_diskstats(look* l, std::string_view text) {
    l->disks.clear();
    for_each_whole_line(text, [l](std::string_view line) {
        take_word(&line);
        take_word(&line);
        disk_counters disk;
        disk.name = take_word(&line);
        uint64_t columns[whole_columns] = {};
        size_t count = 0;
        while (count < whole_columns && !trimmed(line).empty()) {
            columns[count++] = take_number(&line);
        }
        if (count != partition_columns && count != whole_columns) {
            return;
        }
        for (const auto& row : disk_columns) {
            const size_t column = count == partition_columns ? row.partition_column : row.column;
            disk.*row.value = column < whole_columns ? columns[column] : 0;
        }
        add_within(&l->disks, counter_limit, std::move(disk));
    });
}

void look_read_mounts(look* l, std::string_view text) {
    l->mounts.clear();
    for_each_whole_line(text, [l](std::string_view line) {
        mount each;
        for (std::string* word : {&each.device, &each.folder, &each.type, &each.options}) {
            *word = octal_decoded(take_word(&line));
        }
        if (!each.type.empty()) {
            add_within(&l->mounts, counter_limit, std::move(each));
        }
    });
}

void look_read_modules(look* l, std::string_view text) {
    l->modules.clear();
    for_each_whole_line(text, [l](std::string_view line) {
        if (!trimmed(line).empty()) {
            add_within(&l->modules, counter_limit, std::string(trimmed(line.substr(0, line_limit))));
        }
    });
}

namespace {

constexpr struct {
    std::string_view key;
    std::string look::*value;
} cpuinfo_keys[] = {
    {"model name", &look::processor},  // x86, newer ARM
    {"cpu model", &look::processor},   // MIPS
    {"Processor", &look::processor},   // older ARM
    {"cpu", &look::processor},         // PowerPC
    {"system type", &look::machine},   // MIPS
    {"Hardware", &look::machine},      // ARM
    {"machine", &look::machine},
};

}  // namespace

void look_read_cpuinfo(look* l, std::string_view text) {
    l->processor.clear();
    l->machine.clear();
    for_each_whole_line(text, [l](std::string_view line) {
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) {
            return;
        }
        for (const auto& row : cpuinfo_keys) {
            if (trimmed(line.substr(0, colon)) == row.key && (l->*row.value).empty()) {
                l->*row.value = trimmed(line.substr(colon + 1, line_limit));
            }
        }
    });
}

}  // namespace archiveview
