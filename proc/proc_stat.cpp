#include "proc/proc_stat.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

// Numbers of fields, as in proc(5).
constexpr int ppid_field = 4;
constexpr int user_time_field = 14;
constexpr int system_time_field = 15;
constexpr int threads_field = 20;
constexpr int start_time_field = 22;
constexpr int resident_field = 24;

}  // namespace

bool proc_stat_parse(const char* text, proc_stat* stat) {
    const char* name = strchr(text, '(');
    const char* name_end = strrchr(text, ')');
    if (!name || !name_end || name_end < name || name_end[1] != ' ' || name_end[2] == '\0') {
        return false;
    }
    uint64_t fields[resident_field + 1];
    const char* at = name_end + 3;
    for (int i = ppid_field; i <= resident_field; i++) {
        char* end;
        fields[i] = strtoull(at, &end, 10);
        if (end == at) {
            return false;
        }
        at = end;
    }
    name++;
    const size_t length = std::min(static_cast<size_t>(name_end - name), sizeof stat->name - 1);
    memcpy(stat->name, name, length);
    stat->name[length] = '\0';
    stat->state = name_end[2];
    stat->ppid = static_cast<pid_t>(fields[ppid_field]);
    stat->threads = static_cast<uint32_t>(fields[threads_field]);
    stat->resident_pages = static_cast<uint32_t>(fields[resident_field]);
    stat->cpu_ticks = fields[user_time_field] + fields[system_time_field];
    stat->start_ticks = fields[start_time_field];
    return true;
}

uint32_t proc_status_number(const char* text, const char* key, uint32_t otherwise) {
    const char* line = strstr(text, key);
    return line ? static_cast<uint32_t>(strtoul(line + strlen(key), nullptr, 10)) : otherwise;
}

uid_t proc_status_uid(const char* text) {
    constexpr char mark[] = "\nUid:";
    const char* line = strstr(text, mark);
    if (!line) {
        return static_cast<uid_t>(-1);
    }
    char* end;
    (void)strtoul(line + sizeof mark - 1, &end, 10);  // the real user
    return static_cast<uid_t>(strtoul(end, nullptr, 10));
}
