// Findings on the machine: interfaces, file systems, disks, clock and settings.
#include <time.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>

#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

struct interface_growth {
    uint64_t errors = 0;
    uint64_t packets = 0;
};

uint64_t grown(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

interface_growth growth_between(const interface_counters& before, const interface_counters& after) {
    return {grown(before.rx_errors, after.rx_errors) + grown(before.tx_errors, after.tx_errors),
            grown(before.rx_packets, after.rx_packets) + grown(before.tx_packets, after.tx_packets)};
}

symptom interface_symptom(const interface_counters& now, const interface_growth& growth) {
    const bool is_bad =
        growth.errors >= interface_errors_warning &&
        static_cast<double>(growth.errors) >= interface_errors_share * static_cast<double>(growth.packets);
    symptom found{.level = is_bad ? severity::warning : severity::note};
    found.text = said("The interface ", now.name, " counts errors: ", growth.errors, " between the looks.");
    found.proof.push_back({said(counted(growth.errors, "error"), " in ", counted(growth.packets, "packet")),
                           "change/interfaces"});
    found.proof.push_back(
        {said("since boot: ", counted(now.rx_errors, "error"), " received, ", now.tx_errors, " sent"),
         "change/interfaces"});
    found.weight = static_cast<double>(growth.errors);
    return found;
}

// File systems of data. Others are read-only by nature, or are no disk.
constexpr std::array data_types = {"ext2", "ext3",  "ext4",  "xfs",   "btrfs",  "f2fs", "vfat", "exfat",
                                   "ntfs", "jffs2", "ubifs", "yaffs", "yaffs2", "nfs",  "nfs4", "reiserfs"};

bool is_read_only(const mount& one) {
    std::string_view options = one.options;
    while (!options.empty()) {
        const size_t end = options.find(',');
        if (options.substr(0, end) == "ro") {
            return true;
        }
        options.remove_prefix(end == std::string_view::npos ? options.size() : end + 1);
    }
    return false;
}

bool holds_data(const mount& one) {
    return std::ranges::find(data_types, one.type) != data_types.end();
}

symptom mount_symptom(const mount& one, bool was_writable) {
    symptom found{.level = was_writable ? severity::critical : severity::note};
    found.text = said("The file system at ", one.folder,
                      was_writable ? " became read-only between the looks." : " is mounted read-only.");
    found.proof.push_back({said(one.device, " at ", one.folder, ", type ", one.type, ", ", one.options), ""});
    found.weight = was_writable ? 1 : 0;
    return found;
}

// Where a folder has several mounts, the last one hides the others.
std::map<std::string, mount> mounts_by_folder(const look& one) {
    std::map<std::string, mount> found;
    for (const mount& each : one.mounts) {
        found[each.folder] = each;
    }
    return found;
}

// Names of processes that write most, by the trace.
int busiest_writer(const archive_facts& facts) {
    int pid = 0;
    uint64_t most = 0;
    for (const auto& [candidate, traced] : facts.trace.by_pid) {
        uint64_t bytes = 0;
        for (const auto& [number, one] : traced.descriptors) {
            bytes += one.text.starts_with('/') ? one.read_bytes + one.written_bytes : 0;
        }
        if (bytes > most && !is_own(facts, candidate)) {
            most = bytes;
            pid = candidate;
        }
    }
    constexpr uint64_t least = uint64_t{1} << 20;
    return most >= least ? pid : 0;
}

// These change by themselves.
constexpr std::array living_settings = {"sys/fs/aio-nr",
                                        "sys/fs/dentry-state",
                                        "sys/fs/file-nr",
                                        "sys/fs/inode-nr",
                                        "sys/fs/inode-state",
                                        "sys/fs/dentry-negative",
                                        "sys/kernel/ns_last_pid",
                                        "sys/kernel/pty/nr",
                                        "sys/kernel/random",
                                        "sys/kernel/hung_task",
                                        "sys/kernel/keys",
                                        "sys/fs/quota",
                                        "sys/kernel/tainted",
                                        "sys/net/netfilter/nf_conntrack_count",
                                        "sys/net/ipv4/neigh",
                                        "sys/kernel/perf_event_max_sample_rate",
                                        "sys/fs/epoll",
                                        "sys/kernel/firmware_config",
                                        "sys/kernel/acct",
                                        "sys/kernel/cad_pid",
                                        "sys/net/core/netdev_rss_key",
                                        "sys/net/unix",
                                        "sys/kernel/sched_domain",
                                        "sys/dev/cdrom",
                                        "sys/kernel/msg_next_id",
                                        "sys/kernel/sem_next_id",
                                        "sys/kernel/shm_next_id",
                                        "sys/vm/stat_refresh",
                                        "sys/debug",
                                        "sys/net/ipv6/neigh"};

bool changes_by_itself(std::string_view name) {
    return std::ranges::any_of(living_settings,
                               [name](const char* prefix) { return name.starts_with(prefix); });
}

// "20261122-161132" as seconds of some epoch; nothing if it is no stamp.
std::optional<double> seconds_of_stamp(std::string_view stamp) {
    constexpr size_t length = 15;
    if (stamp.size() != length) {
        return std::nullopt;
    }
    const auto part = [stamp](size_t at, size_t count) { return number_of<int>(stamp.substr(at, count)); };
    const auto year = part(0, 4), month = part(4, 2), day = part(6, 2);
    const auto hour = part(9, 2), minute = part(11, 2), second = part(13, 2);
    if (!year || !month || !day || !hour || !minute || !second) {
        return std::nullopt;
    }
    tm time = {};
    time.tm_year = *year - 1900;
    time.tm_mon = *month - 1;
    time.tm_mday = *day;
    time.tm_hour = *hour;
    time.tm_min = *minute;
    time.tm_sec = *second;
    return static_cast<double>(timegm(&time));
}

// By how many seconds the clock was set between the looks.
std::optional<double> clock_shift(const archive_facts& facts) {
    const look& before = facts.looks[0];
    const look& after = facts.looks[1];
    if (before.boot_time != 0 && after.boot_time != 0) {
        return static_cast<double>(after.boot_time) - static_cast<double>(before.boot_time);
    }
    const std::optional<double> begin = seconds_of_stamp(before.stamp), end = seconds_of_stamp(after.stamp);
    if (!begin || !end || seconds_between(facts) <= 0) {
        return std::nullopt;
    }
    return *end - *begin - seconds_between(facts);
}

}  // namespace

symptoms find_interface_errors(const archive_facts& facts) {
    symptoms all;
    if (!has_both_looks(facts)) {
        return all;
    }
    std::map<std::string, interface_counters> before;
    for (const interface_counters& one : facts.looks[0].interfaces) {
        before[one.name] = one;
    }
    for (const interface_counters& now : facts.looks[1].interfaces) {
        const auto at = before.find(now.name);
        if (at == before.end()) {
            continue;
        }
        const interface_growth growth = growth_between(at->second, now);
        if (growth.errors > 0) {
            all.push_back(interface_symptom(now, growth));
        }
    }
    return all;
}

symptoms find_read_only_mount(const archive_facts& facts) {
    const std::map<std::string, mount> before = mounts_by_folder(facts.looks[0]);
    symptoms all;
    for (const auto& [folder, one] : mounts_by_folder(last_look(facts))) {
        if (!holds_data(one) || !is_read_only(one)) {
            continue;
        }
        const auto at = before.find(folder);
        const bool was_writable =
            at != before.end() && at->second.device == one.device && !is_read_only(at->second);
        all.push_back(mount_symptom(one, was_writable));
    }
    return all;
}

symptoms find_disk_busy(const archive_facts& facts) {
    symptoms all;
    const double seconds = seconds_between(facts);
    if (seconds <= 0) {
        return all;
    }
    std::map<std::string, uint64_t> before;
    for (const disk_counters& disk : facts.looks[0].disks) {
        before[disk.name] = disk.busy_ms;
    }
    for (const disk_counters& disk : facts.looks[1].disks) {
        const auto at = before.find(disk.name);
        constexpr double ms_to_percent = 10;
        const double percent = at == before.end() ? 0
                                                  : static_cast<double>(grown(at->second, disk.busy_ms)) /
                                                        seconds / ms_to_percent;
        if (percent < disk_busy_percent) {
            continue;
        }
        // A disk that works all the time is not wrong in itself, and its work may be that of another
        // container.
        symptom found{.pid = busiest_writer(facts)};
        found.text = said("The disk ", disk.name, " was busy for ", rounded(std::min(percent, 100.0)),
                          " % of the time between the looks.");
        found.proof.push_back({said(rounded(std::min(percent, 100.0)), " % busy"), "change/disks"});
        found.weight = percent;
        all.push_back(std::move(found));
    }
    return all;
}

symptoms find_clock_jump(const archive_facts& facts) {
    const std::optional<double> shift = has_both_looks(facts) ? clock_shift(facts) : std::nullopt;
    if (!shift || std::abs(*shift) < clock_note_seconds) {
        return {};
    }
    // Stamps are in local time, which summer time moves by an hour; the boot time is not.
    const bool is_certain = facts.looks[1].boot_time != 0 && facts.looks[0].boot_time != 0;
    symptom found;
    found.level =
        is_certain && std::abs(*shift) >= clock_warning_seconds ? severity::warning : severity::note;
    found.text = said("The clock was set ", *shift > 0 ? "forward" : "back", " by ",
                      span_of(std::abs(*shift)), " between the looks.");
    found.proof.push_back({said("the time of boot moved by ", rounded(*shift), " s"), ""});
    return {found};
}

symptoms find_setting_changed(const archive_facts& facts) {
    symptom found;
    size_t count = 0;
    for (const change& one : facts.changes) {
        if (one.group != "settings" || changes_by_itself(one.name)) {
            continue;
        }
        count++;
        if (found.proof.size() < settings_shown) {
            found.proof.push_back(
                {said(one.name, ": ", trimmed(one.first_text), " became ", trimmed(one.second_text)),
                 "change/settings"});
        }
    }
    found.text = said(counted(count, "setting"), " of the kernel changed between the looks.");
    return count > 0 ? symptoms{found} : symptoms{};
}

}  // namespace archiveview
