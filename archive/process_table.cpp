#include "archive/process_table.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "archive/manifest.h"
#include "common/ascii.h"
#include "common/small_file.h"

namespace {

constexpr char member[] = "processes.txt";
constexpr size_t users_capacity = 8192;
constexpr unsigned ms_per_tick = 1000 / proc_ticks_per_second;

constexpr char heading[] =
    "    PID    PPID USER       STATE  THR       TIME      CPU   RSS KiB    GROWTH    FDS GROWTH NAME        "
    "    "
    "COMMAND\n";

struct short_text {
    char text[16];
};

// The first newline from `at`, or the first colon if that comes before, or the end of the text.
const char* end_of_field(const char* at) {
    while (*at && *at != ':' && *at != '\n') {
        at++;
    }
    return at;
}

// Writes the name that the lines of the password file ("NAME:PASSWORD:NUMBER:...") give a user, or the number
// if there is none.
void print_user(short_text* user, const char* line, uid_t uid) {
    snprintf(user->text, sizeof user->text, "%u", static_cast<unsigned>(uid));
    while (*line) {
        const char* const name_end = end_of_field(line);
        const char* at = *name_end == ':' ? end_of_field(name_end + 1) : name_end;
        char* end;
        if (*at == ':' && is_ascii_digit(at[1]) && strtoul(at + 1, &end, 10) == uid && *end == ':') {
            snprintf(user->text, sizeof user->text, "%.*s", static_cast<int>(name_end - line), line);
            return;
        }
        while (*at && *at++ != '\n') {
        }
        line = at;
    }
}

// CPU time in minutes and ticks.
struct cpu_time {
    uint32_t minutes;
    uint32_t ticks;

    // Two divisions of 32 bits, as on paper, since one of 64 bits takes 1 KiB of code.
    explicit cpu_time(uint64_t all_ticks) {
        constexpr uint32_t ticks_per_minute = 60 * proc_ticks_per_second;
        static_assert(ticks_per_minute <= 0xffff);
        const uint32_t low = static_cast<uint32_t>(all_ticks);
        const uint32_t high = static_cast<uint32_t>(all_ticks >> 32) % ticks_per_minute << 16 | low >> 16;
        const uint32_t rest = high % ticks_per_minute << 16 | (low & 0xffff);
        minutes = (high / ticks_per_minute << 16) + rest / ticks_per_minute;
        ticks = rest % ticks_per_minute;
    }
};

// The columns that compare the looks.
struct comparison {
    short_text share;
    short_text memory;
    short_text descriptors;
    const char* memory_growth;
    const char* descriptor_growth;

    comparison(const process_sample* before, const process_sample* now) {
        memory_growth = descriptor_growth = now ? "new" : "-";
        memcpy(share.text, "-", 2);
        if (!now) {
            return;
        }
        uint64_t ticks = now->stat.cpu_ticks;
        uint32_t begin_ms = static_cast<uint32_t>(now->stat.start_ticks) * ms_per_tick;
        if (before) {
            ticks -= std::min(ticks, before->stat.cpu_ticks);
            begin_ms = before->taken_ms;
            memory_growth = memory.text;
            descriptor_growth = descriptors.text;
            print_growth(&memory, now->resident_kb - before->resident_kb);
            print_growth(&descriptors, static_cast<uint32_t>(now->descriptors - before->descriptors));
        }
        const uint32_t permille =
            process_share_permille(static_cast<uint32_t>(ticks), now->taken_ms - begin_ms);
        snprintf(share.text, sizeof share.text, "%u.%u%%", permille / 10, permille % 10);
    }
    static void print_growth(short_text* text, uint32_t growth) {
        snprintf(text->text, sizeof text->text, "%+d", static_cast<int>(growth));
    }
};

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
    const comparison compared(before, now);
    const cpu_time time(stat.cpu_ticks);
    short_text user;
    print_user(&user, table->users, latest->uid);
    char line[512];
    const int length = snprintf(
        line, sizeof line, "%7d %7d %-10.10s %-5.*s %4u %4u:%02u.%02u %8s %9u %9s %6d %6s %-15.15s %.*s\n",
        static_cast<int>(latest->pid), static_cast<int>(stat.ppid), user.text, now ? 1 : 4,
        now                        ? &stat.state
        : table->looks->is_partial ? "?"
                                   : "gone",
        stat.threads, time.minutes, time.ticks / proc_ticks_per_second, time.ticks % proc_ticks_per_second,
        compared.share.text, latest->resident_kb, compared.memory_growth, latest->descriptors,
        compared.descriptor_growth, stat.name, static_cast<int>(latest->command_length),
        table->looks->commands.data.get() + latest->command_at);
    for (char* c = line; c < line + length - 1; c++) {
        *c = static_cast<unsigned char>(*c) < ' ' || *c == 0x7f ? '?' : *c;
    }
    return growing_append(table->text, line, static_cast<size_t>(length));
}

// The samples of a look, in the order of pids.
struct sample_list {
    const process_sample* at;
    const process_sample* end;

    explicit sample_list(const growing_bytes& bytes)
        : at(as_sample(bytes.data.get())), end(as_sample(bytes.data.get() + bytes.length)) {}
    static const process_sample* as_sample(const void* bytes) {
        return static_cast<const process_sample*>(bytes);
    }
    pid_t pid() const { return at == end ? INT_MAX : at->pid; }
};

// Returns 0 or an errno.
int store_table(tar_handle* t, const process_looks* looks) {
    char users[users_capacity];
    (void)small_file_text("/etc/passwd", users, sizeof users);
    growing_bytes text;
    if (looks->error != 0 || !process_table_text(looks, users, &text)) {
        return looks->error != 0 ? looks->error : ENOMEM;
    }
    tar_store(t, member, text.data.get(), text.length);
    return 0;
}

}  // namespace

uint32_t process_share_permille(uint32_t ticks, uint32_t ms) {
    constexpr uint32_t exact_ticks = 200000;  // more would overflow below: the lowest bits are dropped
    constexpr uint32_t factor = 1000 * ms_per_tick;
    static_assert(uint64_t{exact_ticks} * factor + UINT32_MAX / 2 <= UINT32_MAX);
    while (ticks > exact_ticks) {
        ticks >>= 1;
        ms >>= 1;
    }
    return ms == 0 ? 0 : (ticks * factor + ms / 2) / ms;
}

bool process_table_text(const process_looks* looks, const char* users, growing_bytes* text) {
    const process_table table = {looks, users, text};
    sample_list old(looks->samples[0]);
    sample_list now(looks->samples[1]);
    bool fits = growing_append(text, heading, sizeof heading - 1);
    for (pid_t pid; fits && (pid = std::min(old.pid(), now.pid())) != INT_MAX;) {
        const process_sample* before = old.pid() == pid ? old.at++ : nullptr;
        const process_sample* latest = now.pid() == pid ? now.at : nullptr;
        if (before && latest && before->stat.start_ticks != latest->stat.start_ticks) {
            latest = nullptr;  // another process has the pid now; its line is the next one
        }
        now.at += latest ? 1 : 0;
        fits = add_line(&table, before, latest);
    }
    return fits;
}

int stream_process_table(tar_handle* t, const process_looks* looks) {
    const int error = store_table(t, looks);
    if (error != 0) {
        manifest_note(t, member, error);
    }
    return t->error != 0 ? 1 : 0;
}
