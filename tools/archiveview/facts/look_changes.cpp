#include <math.h>

#include <algorithm>
#include <span>
#include <unordered_map>

#include "tools/archiveview/facts/counter.h"
#include "tools/archiveview/facts/look.h"
#include "tools/archiveview/facts/look_settings.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr double shortest_seconds = 0.005;  // uptimes have two decimals
constexpr double sector_bytes = 512;
constexpr char per_second[] = "per_second";
constexpr char bytes_per_second[] = "bytes_per_second";

struct two_looks {
    const look& first;
    const look& second;
    double seconds;  // between them; 0 if unknown
};

bool has_restarted(const look& first, const look& second) {
    return first.uptime_seconds > 0 && second.uptime_seconds > 0 &&
           second.uptime_seconds < first.uptime_seconds;
}

double seconds_between(const look& first, const look& second) {
    const double seconds = second.uptime_seconds - first.uptime_seconds;
    return first.uptime_seconds > 0 && seconds >= shortest_seconds ? seconds : 0;
}

// The changes of one group. Each section of them is sorted by itself.
class group_list {
public:
    explicit group_list(std::string_view group) : group_(group) {}

    void add(std::string name, const char* unit, double first, double second, double value) {
        if (value != 0) {
            changes_.push_back({std::string(group_), std::move(name), unit, first, second, value, {}, {}});
        }
    }
    void add_text(const std::string& name, const std::string& first, const std::string& second) {
        changes_.push_back({std::string(group_), name, {}, 0, 0, 0, first, second});
    }
    // A rate, unless it is unknown. The counter counts in pieces of `scale`.
    void add_rate(const two_looks& looks, std::string name, const char* unit, uint64_t first, uint64_t second,
                  double scale = 1) {
        const std::optional<uint64_t> difference = counter_difference(first, second);
        if (difference && looks.seconds > 0) {
            add(std::move(name), unit, static_cast<double>(first) * scale,
                static_cast<double>(second) * scale,
                static_cast<double>(*difference) * scale / looks.seconds);
        }
    }
    void end_section() {
        std::stable_sort(changes_.begin() + static_cast<ptrdiff_t>(section_), changes_.end(),
                         [](const change& a, const change& b) { return fabs(a.value) > fabs(b.value); });
        section_ = changes_.size();
    }
    void move_to(std::vector<change>* all) {
        end_section();
        const size_t count = std::min(changes_.size(), group_change_limit);
        std::move(changes_.begin(), changes_.begin() + static_cast<ptrdiff_t>(count),
                  std::back_inserter(*all));
    }

private:
    std::string_view group_;
    std::vector<change> changes_;
    size_t section_ = 0;
};

// Calls `use` with both entries of each name that both lists have. Two slab caches may have the same name;
// their order decides.
template <typename Entry, typename Use>
void for_each_pair(const std::vector<Entry>& first, const std::vector<Entry>& second, const Use& use) {
    std::unordered_map<std::string_view, std::vector<const Entry*>> by_name;  // the first is the last
    for (auto each = first.rbegin(); each != first.rend(); ++each) {
        by_name[each->name].push_back(&*each);
    }
    for (const Entry& each : second) {
        if (const auto found = by_name.find(each.name); found != by_name.end() && !found->second.empty()) {
            use(*found->second.back(), each);
            found->second.pop_back();
        }
    }
}

template <typename Value, typename Use>
void for_each_pair(const std::map<std::string, Value>& first, const std::map<std::string, Value>& second,
                   const Use& use) {
    for (const auto& [name, value] : second) {
        if (const auto found = first.find(name); found != first.end()) {
            use(name, found->second, value);
        }
    }
}

constexpr struct {
    const char* name;
    uint64_t cpu_ticks::*value;
} cpu_states[] = {
    {"user", &cpu_ticks::user},       {"system", &cpu_ticks::system},
    {"waiting", &cpu_ticks::waiting}, {"interrupts", &cpu_ticks::interrupts},
    {"stolen", &cpu_ticks::stolen},   {"idle", &cpu_ticks::idle},
};

// The time that passed in a state. The kernel corrects some of these counts downwards.
double ticks_between(const cpu_ticks& first, const cpu_ticks& second, uint64_t cpu_ticks::*value) {
    return second.*value > first.*value ? static_cast<double>(second.*value - first.*value) : 0;
}

double ticks_between(const cpu_ticks& first, const cpu_ticks& second) {
    double sum = 0;
    for (const auto& state : cpu_states) {
        sum += ticks_between(first, second, state.value);
    }
    return sum;
}

void add_cpu_shares(group_list* list, const std::string& prefix, const cpu_ticks& first,
                    const cpu_ticks& second) {
    const double all = ticks_between(first, second);
    for (const auto& state : cpu_states) {
        if (const double ticks = ticks_between(first, second, state.value); ticks > 0) {
            list->add(prefix + state.name, "percent", static_cast<double>(first.*state.value),
                      static_cast<double>(second.*state.value), ticks / all * 100);
        }
    }
    list->end_section();
}

void add_cpu(const two_looks& looks, group_list* list) {
    const size_t known = std::min(looks.first.processors.size(), looks.second.processors.size());
    const bool is_single = known == 2;  // the sum says it all
    for (size_t i = 0; !has_restarted(looks.first, looks.second) && i < (is_single ? 1 : known); i++) {
        add_cpu_shares(list, i == 0 ? std::string() : "cpu" + std::to_string(i - 1) + ' ',
                       looks.first.processors[i], looks.second.processors[i]);
        if (i == 0) {
            list->add_rate(looks, "context_switches", per_second, looks.first.context_switches,
                           looks.second.context_switches);
            list->add_rate(looks, "forks", per_second, looks.first.forks, looks.second.forks);
            list->end_section();
        }
    }
}

void add_counters(const two_looks& looks, const std::vector<named_counter>& first,
                  const std::vector<named_counter>& second, group_list* list) {
    for_each_pair(first, second, [&](const named_counter& before, const named_counter& after) {
        const std::string space = after.device.empty() ? "" : " ";
        list->add_rate(looks, after.name + space + after.device, per_second, before.count, after.count);
    });
}

void add_interrupts(const two_looks& looks, group_list* list) {
    add_counters(looks, looks.first.interrupts, looks.second.interrupts, list);
}

void add_softirqs(const two_looks& looks, group_list* list) {
    add_counters(looks, looks.first.softirqs, looks.second.softirqs, list);
}

// Counts of pages are not counters of events, except these; the group "memory" has the sizes.
constexpr std::string_view vmstat_events[] = {
    "nr_dirtied",   "nr_written", "nr_throttled_written", "nr_vmscan_",
    "nr_foll_pin_", "nr_tlb_",    "nr_kcompactd_",
};
constexpr std::string_view vmstat_levels[] = {"nr_", "workingset_nodes"};

bool begins_with_one(std::string_view name, std::span<const std::string_view> beginnings) {
    return std::ranges::any_of(beginnings, [name](std::string_view each) { return name.starts_with(each); });
}

void add_vmstat(const two_looks& looks, group_list* list) {
    for_each_pair(looks.first.vmstat, looks.second.vmstat,
                  [&](const std::string& name, uint64_t first, uint64_t second) {
                      if (begins_with_one(name, vmstat_levels) && !begins_with_one(name, vmstat_events)) {
                          return;
                      }
                      const bool is_kb = name == "pgpgin" || name == "pgpgout";
                      list->add_rate(looks, name, is_kb ? bytes_per_second : per_second, first, second,
                                     is_kb ? 1024 : 1);
                  });
}

void add_memory(const two_looks& looks, group_list* list) {
    for_each_pair(looks.first.memory_kb, looks.second.memory_kb,
                  [list](const std::string& name, uint64_t before, uint64_t after) {
                      const auto first = static_cast<double>(before);
                      const auto second = static_cast<double>(after);
                      list->add(name, "kb", first, second, second - first);
                  });
}

double bytes_of(const slab_cache& cache) {
    return static_cast<double>(cache.objects) * static_cast<double>(cache.object_bytes);
}

void add_slab(const two_looks& looks, group_list* list) {
    for_each_pair(looks.first.slabs, looks.second.slabs,
                  [list](const slab_cache& before, const slab_cache& after) {
                      const double first = bytes_of(before);
                      const double second = bytes_of(after);
                      list->add(after.name, "bytes", first, second, second - first);
                  });
}

constexpr struct {
    const char* name;
    const char* unit;
    uint64_t disk_counters::*value;
    double scale;
} disk_rates[] = {
    {" reads", per_second, &disk_counters::reads, 1},
    {" read_bytes", bytes_per_second, &disk_counters::read_sectors, sector_bytes},
    {" writes", per_second, &disk_counters::writes, 1},
    {" written_bytes", bytes_per_second, &disk_counters::written_sectors, sector_bytes},
};

void add_disks(const two_looks& looks, group_list* list) {
    for_each_pair(
        looks.first.disks, looks.second.disks, [&](const disk_counters& before, const disk_counters& after) {
            for (const auto& rate : disk_rates) {
                list->add_rate(looks, after.name + rate.name, rate.unit, before.*rate.value,
                               after.*rate.value, rate.scale);
            }
            const std::optional<uint64_t> busy_ms = counter_difference(before.busy_ms, after.busy_ms);
            if (busy_ms && looks.seconds > 0) {
                list->add(after.name + " busy", "percent", static_cast<double>(before.busy_ms),
                          static_cast<double>(after.busy_ms),
                          std::min(static_cast<double>(*busy_ms) / looks.seconds / 10, 100.0));
            }
        });
}

constexpr struct {
    const char* name;
    const char* unit;
    uint64_t interface_counters::*value;
} interface_rates[] = {
    {" rx_bytes", bytes_per_second, &interface_counters::rx_bytes},
    {" rx_packets", per_second, &interface_counters::rx_packets},
    {" rx_errors", per_second, &interface_counters::rx_errors},
    {" rx_dropped", per_second, &interface_counters::rx_dropped},
    {" tx_bytes", bytes_per_second, &interface_counters::tx_bytes},
    {" tx_packets", per_second, &interface_counters::tx_packets},
    {" tx_errors", per_second, &interface_counters::tx_errors},
    {" tx_dropped", per_second, &interface_counters::tx_dropped},
};

void add_interfaces(const two_looks& looks, group_list* list) {
    for_each_pair(looks.first.interfaces, looks.second.interfaces,
                  [&](const interface_counters& before, const interface_counters& after) {
                      for (const auto& rate : interface_rates) {
                          list->add_rate(looks, after.name + rate.name, rate.unit, before.*rate.value,
                                         after.*rate.value);
                      }
                  });
}

// Settings and states among the counters.
constexpr std::string_view protocol_levels[] = {
    "Ip.Forwarding", "Ip.DefaultTTL", "Tcp.RtoAlgorithm",     "Tcp.RtoM",
    "Tcp.MaxConn",   "Tcp.CurrEstab", "MPTcpExt.MPCurrEstab",
};

void add_protocols(const two_looks& looks, group_list* list) {
    for_each_pair(looks.first.protocols, looks.second.protocols,
                  [&](const std::string& name, uint64_t first, uint64_t second) {
                      if (!begins_with_one(name, protocol_levels)) {
                          list->add_rate(looks, name,
                                         name.ends_with("Octets") ? bytes_per_second : per_second, first,
                                         second);
                      }
                  });
}

void add_settings(const two_looks& looks, group_list* list) {
    for_each_pair(looks.first.settings, looks.second.settings,
                  [list](const std::string& name, const std::string& first, const std::string& second) {
                      if (first != second && look_own_change_reason(name).empty()) {
                          list->add_text(name, first, second);
                      }
                  });
}

constexpr struct {
    std::string_view name;
    void (*add)(const two_looks& looks, group_list* list);
} groups[] = {
    {"cpu", add_cpu},           {"interrupts", add_interrupts}, {"softirqs", add_softirqs},
    {"vmstat", add_vmstat},     {"memory", add_memory},         {"slab", add_slab},
    {"disks", add_disks},       {"interfaces", add_interfaces}, {"protocols", add_protocols},
    {"settings", add_settings},
};

}  // namespace

std::vector<change> look_changes(const look& first, const look& second) {
    std::vector<change> all;
    const two_looks looks = {first, second, seconds_between(first, second)};
    for (const auto& group : groups) {
        group_list list(group.name);
        group.add(looks, &list);
        list.move_to(&all);
    }
    return all;
}

double look_busy_percent(const look& first, const look& second) {
    if (first.processors.empty() || second.processors.empty() || has_restarted(first, second)) {
        return -1;
    }
    const cpu_ticks& before = first.processors[0];
    const cpu_ticks& after = second.processors[0];
    const double all = ticks_between(before, after);
    const double free =
        ticks_between(before, after, &cpu_ticks::idle) + ticks_between(before, after, &cpu_ticks::waiting);
    return all > 0 ? (all - free) / all * 100 : -1;
}

}  // namespace archiveview
