#include "tools/archiveview/facts/look_settings.h"

#include <algorithm>

#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr struct {
    std::string_view begin, end;  // of the name
    std::string_view reason;
} own_changes[] = {
    {"sys/kernel/random/", "", "random numbers, and how many the kernel has in stock"},
    {"sys/fs/", "-nr", "a count of objects in use"},
    {"sys/fs/", "-state", "counts of cached objects"},
    {"sys/fs/quota/", "", "counts of the quota code"},
    {"sys/kernel/ns_last_pid", "", "the last process id that was given out"},
    {"sys/kernel/", "_next_id", "the next id of an IPC object"},
    {"sys/kernel/hung_task_warnings", "", "counts down with each report"},
    {"sys/kernel/hung_task_detect_count", "", "a count of reports"},
    {"sys/kernel/perf_event_max_sample_rate", "", "the kernel lowers it under load"},
    {"sys/kernel/pty/nr", "", "a count of terminals in use"},
    {"sys/kernel/keys/", "", "limits that the kernel counts down"},
    {"sys/net/", "conntrack_count", "a count of connections"},
    {"sys/net/ipv4/tcp_available_", "", "grows if a module is loaded on demand"},
    {"sys/net/ipv4/tcp_fastopen_key", "", "made at the first use"},
    {"sys/net/rds/", "", "counts of sockets"},
    {"sys/vm/stat_refresh", "", "an action, not a setting"},
    {"sys/vm/nr_pdflush_threads", "", "a count of threads"},
    {"sys/dev/", "info", "a description of a device"},
    {"sys/sunrpc/transports", "", "a list of loaded modules"},
};

}  // namespace

bool look_read_setting(look* l, std::string_view name, std::string_view text) {
    if (text.size() > setting_limit || l->settings.size() >= counter_limit) {
        return false;
    }
    if (!text.ends_with('\n')) {
        return true;  // empty or cut; a part of a value would look like a change
    }
    std::string words;
    for (std::string_view word = take_word(&text); !word.empty(); word = take_word(&text)) {
        words += words.empty() ? "" : " ";
        words += word;
    }
    l->settings[std::string(name.substr(0, name_limit))] = std::move(words);
    return true;
}

std::string_view look_own_change_reason(std::string_view name) {
    const auto* found = std::ranges::find_if(own_changes, [name](const auto& row) {
        return name.starts_with(row.begin) && name.ends_with(row.end);
    });
    return found == std::end(own_changes) ? std::string_view() : found->reason;
}

}  // namespace archiveview
