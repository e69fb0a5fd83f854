#include "archive/process_table.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "archive/manifest.h"
#include "common/small_file.h"

namespace {

constexpr char member[] = "processes.txt";
constexpr size_t users_capacity = 8192;
constexpr unsigned ms_per_tick = 1000 / proc_ticks_per_second;

constexpr char heading[] =
    "    PID    PPID USER       STATE  THR       TIME      CPU   RSS KiB    GROWTH    FDS GROWTH NAME        "
    "    "
    "COMMAND\n";

// The samples of a look, in the order of pids.
struct sample_list {
    const process_sample* at;
    const process_sample* end;

    explicit sample_list(const growing_bytes& bytes)
        : at(static_cast<const process_sample*>(static_cast<const void*>(bytes.data.get()))),
          end(at + bytes.length / sizeof(process_sample)) {}
    bool is_over() const { return at == end; }
};

struct short_text {
    char text[24];
};

// The name of a user in the lines of the password file: "NAME:PASSWORD:NUMBER:...". Empty if there is none.
std::string_view user_name(const char* users, uid_t uid) {
    for (const char* line = users; line; line = strchr(line, '\n')) {
        line += *line == '\n';
        const size_t length = strcspn(line, ":\n");
        const char* at = line + length;
        at += *at == ':' ? 1 + strcspn(at + 1, ":\n") : 0;
        if (*at == ':') {
            char* end;
            const unsigned long number = strtoul(at + 1, &end, 10);
            if (number == uid && *end == ':' && end > at + 1) {
                return {line, length};
            }
        }
    }
    return {};
}

short_text user_text(const char* users, uid_t uid) {
    const std::string_view name = user_name(users, uid);
    short_text user;
    if (name.empty()) {
        snprintf(user.text, sizeof user.text, "%u", static_cast<unsigned>(uid));
    } else {
        snprintf(user.text, sizeof user.text, "%.*s", static_cast<int>(name.size()), name.data());
    }
    return user;
}

// "MINUTES:SS.cc". Three divisions of 32 bits, as on paper, since one of 64 bits takes 1 KiB of code.
short_text time_text(uint64_t ticks) {
    constexpr uint32_t ticks_per_minute = 60 * proc_ticks_per_second;
    static_assert(ticks_per_minute <= 0xffff && proc_ticks_per_second == 100);
    const uint32_t low = static_cast<uint32_t>(ticks);
    const uint32_t first = static_cast<uint32_t>(ticks >> 32) % ticks_per_minute << 16 | low >> 16;
    const uint32_t second = first % ticks_per_minute << 16 | (low & 0xffff);
    const uint32_t rest = second % ticks_per_minute;
    short_text time;
    snprintf(time.text, sizeof time.text, "%u:%02u.%02u",
             (first / ticks_per_minute << 16) + second / ticks_per_minute, rest / proc_ticks_per_second,
             rest % proc_ticks_per_second);
    return time;
}

short_text share_text(uint64_t ticks, uint64_t ms) {
    const uint32_t permille = process_share_permille(ticks, ms);
    short_text share;
    snprintf(share.text, sizeof share.text, "%u.%u%%", permille / 10, permille % 10);
    return share;
}

short_text growth_text(uint32_t now, uint32_t before) {
    short_text growth;
    snprintf(growth.text, sizeof growth.text, "%+d", static_cast<int>(now - before));
    return growth;
}

uint32_t resident_kb(const process_sample* sample) {
    return sample->stat.resident_pages * (static_cast<uint32_t>(sysconf(_SC_PAGESIZE)) / 1024);
}

// The columns that compare the looks.
struct comparison {
    short_text share = {"-"};
    short_text memory_growth = {"-"};
    short_text descriptor_growth = {"-"};
};

comparison compare(const process_sample* before, const process_sample* now) {
    const proc_stat& stat = now->stat;
    if (!before) {
        return {share_text(stat.cpu_ticks, now->taken_ms - stat.start_ticks * ms_per_tick), {"new"}, {"new"}};
    }
    const uint64_t old_ticks = std::min(before->stat.cpu_ticks, stat.cpu_ticks);
    comparison result = {share_text(stat.cpu_ticks - old_ticks, now->taken_ms - before->taken_ms),
                         growth_text(resident_kb(now), resident_kb(before)),
                         {"?"}};
    if (before->descriptors >= 0 && now->descriptors >= 0) {
        result.descriptor_growth =
            growth_text(static_cast<uint32_t>(now->descriptors), static_cast<uint32_t>(before->descriptors));
    }
    return result;
}

// The table that is being made.
struct process_table {
    const process_looks* looks;
    const char* users;
    growing_bytes* text;
};

// Adds the line of a process; one of the samples may be null. Returns false if memory runs out.
bool add_line(const process_table* table, const process_sample* before, const process_sample* now) {
    const process_sample* latest = now ? now : before;
    const proc_stat& stat = latest->stat;
    const comparison compared = now ? compare(before, now) : comparison();
    const char state[] = {stat.state, '\0'};
    const char* command = stat.name;
    int command_length = static_cast<int>(latest->command_length);
    const bool has_command = command_length > 0;
    if (has_command) {
        command = table->looks->commands.data.get() + latest->command_at;
    } else {
        command_length = sizeof stat.name;
    }
    char line[512];
    const int length =
        snprintf(line, sizeof line, "%7d %7d %-10.10s %-5s %4u %10s %8s %9u %9s %6d %6s %-15.15s %s%.*s%s",
                 static_cast<int>(latest->pid), static_cast<int>(stat.ppid),
                 user_text(table->users, latest->uid).text, now ? state : "gone", stat.threads,
                 time_text(stat.cpu_ticks).text, compared.share.text, resident_kb(latest),
                 compared.memory_growth.text, latest->descriptors, compared.descriptor_growth.text, stat.name,
                 has_command ? "" : "[", command_length, command, has_command ? "" : "]");
    std::replace_if(
        line, line + length, [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    line[length] = '\n';
    return growing_append(table->text, line, static_cast<size_t>(length) + 1);
}

// Returns true if `one` comes first: by pid, then by age. A sample comes before the end of the other list.
bool is_before(const sample_list& one, const sample_list& other) {
    if (one.is_over() || other.is_over()) {
        return !one.is_over();
    }
    return one.at->pid != other.at->pid ? one.at->pid < other.at->pid
                                        : one.at->stat.start_ticks < other.at->stat.start_ticks;
}

bool store_table(tar_handle* t, const process_looks* looks) {
    malloc_array<char> users = calloc_array<char>(users_capacity);
    if (!users) {
        return false;
    }
    (void)small_file_text("/etc/passwd", users.get(), users_capacity);
    growing_bytes text;
    if (!process_table_text(looks, users.get(), &text)) {
        return false;
    }
    tar_store(t, member, text.data.get(), text.length);
    return true;
}

}  // namespace

uint32_t process_share_permille(uint64_t ticks, uint64_t ms) {
    constexpr uint32_t exact_ticks = 200000;  // more would overflow below: the lowest bits are dropped
    constexpr uint32_t factor = 1000 * ms_per_tick;
    static_assert(uint64_t{exact_ticks} * factor + UINT32_MAX / 2 <= UINT32_MAX);
    while (ticks > exact_ticks || ms > UINT32_MAX) {
        ticks >>= 1;
        ms >>= 1;
    }
    const uint32_t span = static_cast<uint32_t>(ms);
    return span == 0 ? 0 : (static_cast<uint32_t>(ticks) * factor + span / 2) / span;
}

bool process_table_text(const process_looks* looks, const char* users, growing_bytes* text) {
    const process_table table = {looks, users, text};
    sample_list old(looks->samples[0]);
    sample_list now(looks->samples[1]);
    bool fits = growing_append(text, heading, sizeof heading - 1);
    while (fits && !(old.is_over() && now.is_over())) {
        if (is_before(old, now)) {
            fits = add_line(&table, old.at++, nullptr);
        } else if (is_before(now, old)) {
            fits = add_line(&table, nullptr, now.at++);
        } else {
            fits = add_line(&table, old.at++, now.at++);
        }
    }
    return fits;
}

int stream_process_table(tar_handle* t, const process_looks* looks) {
    if (looks->error != 0) {
        manifest_note(t, member, looks->error);
    } else if (!store_table(t, looks)) {
        manifest_note(t, member, ENOMEM);
    }
    return t->error != 0 ? 1 : 0;
}
