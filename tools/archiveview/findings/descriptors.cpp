// Leaks of descriptors. A high count alone is a busy server; a leak is growth without connections to show for
// it, or a crowd of descriptors of one kind that nothing uses.
#include <algorithm>
#include <array>
#include <unordered_map>

#include "common/ascii.h"
#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

using sockets_by_inode = std::unordered_map<uint64_t, const socket_facts*>;

sockets_by_inode index_of(const archive_facts& facts) {
    sockets_by_inode index;
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.inode != 0) {
            index.emplace(socket.inode, &socket);
        }
    }
    return index;
}

// What a process does with sockets of this kind, in words; empty if they are of use.
std::string idle_socket_kind(const sockets_by_inode& index, uint64_t inode) {
    const auto at = index.find(inode);
    if (at == index.end()) {
        return "sockets that are neither bound nor connected";
    }
    const socket_facts& socket = *at->second;
    if (socket.state == "CLOSE_WAIT") {
        return "connections that the peer has closed";
    }
    return socket.state == "CLOSE" ? socket.protocol + " sockets that are not connected" : "";
}

// Descriptors of one kind are leaked by one line of code. Empty: of use, each in its own way.
std::string kind_of(const sockets_by_inode& index, const descriptor& one) {
    if (one.target.starts_with("socket:")) {
        return idle_socket_kind(index, one.inode);
    }
    if (one.target.starts_with("pipe:")) {
        return "pipes";
    }
    // Files that a program numbers are of one kind.
    std::string target = one.target;
    std::replace_if(target.begin(), target.end(), is_ascii_digit, '#');
    return "descriptors of " + target;
}

struct crowd {
    std::string kind;
    size_t count = 0;
};

crowd largest_crowd(const sockets_by_inode& index, const process_facts& process) {
    std::unordered_map<std::string, size_t> counts;
    crowd largest;
    for (const descriptor& one : process.descriptors) {
        std::string kind = kind_of(index, one);
        if (kind.empty()) {
            continue;
        }
        const size_t count = ++counts[kind];
        if (count > largest.count) {
            largest = {std::move(kind), count};
        }
    }
    return largest;
}

// Connections that were made between the looks, by process: load, not a leak.
std::unordered_map<int, int64_t> new_connections(const archive_facts& facts) {
    std::unordered_map<int, int64_t> counts;
    for (const socket_facts& socket : facts.sockets.sockets) {
        counts[socket.pid] += socket.state == "ESTABLISHED" && !socket.in_first_look;
    }
    return counts;
}

// As the monitor on the device computes it.
int score_of(const descriptor_counts& counts) {
    constexpr unsigned per_socket = 8;
    constexpr unsigned per_other = 32;
    return static_cast<int>(counts.socket / per_socket + counts.pipe / per_other +
                            (counts.file + counts.other) / per_other);
}

bool rises_for_hours(const std::vector<int>& history) {
    if (history.size() < leak_rounds || history[leak_rounds - 1] <= 0) {
        return false;
    }
    const auto end = history.begin() + leak_rounds;
    return std::adjacent_find(history.begin(), end, std::less_equal<>()) == end;
}

uint64_t errors_of(const archive_facts& facts, int pid, const char* name) {
    const auto traced = facts.trace.by_pid.find(pid);
    return traced == facts.trace.by_pid.end() ? 0 : number_in(traced->second.by_errno, name);
}

int64_t successes_of(const traced_process& traced, const char* call) {
    const auto counts = traced.by_call.find(call);
    return counts == traced.by_call.end()
               ? 0
               : static_cast<int64_t>(counts->second.calls) - static_cast<int64_t>(counts->second.errors);
}

// How many more descriptors a process has opened than closed in the trace.
int64_t left_open(const archive_facts& facts, int pid) {
    constexpr std::array openings = {"socket", "accept", "accept4", "open", "openat", "dup"};
    const auto traced = facts.trace.by_pid.find(pid);
    if (traced == facts.trace.by_pid.end()) {
        return 0;
    }
    int64_t opened = 0;
    for (const char* call : openings) {
        opened += successes_of(traced->second, call);
    }
    return opened - successes_of(traced->second, "close");
}

struct leak_signs {
    unsigned total = 0;
    int64_t growth = 0;      // between the looks, without new connections
    double bound_share = 0;  // of the limit
    int score = 0;
    bool is_rising = false;  // for hours
    uint64_t refusals = 0;   // of descriptors, in the trace
    int64_t left_open = 0;   // in the trace
    crowd largest;
};

leak_signs signs_of(const archive_facts& facts, const sockets_by_inode& index, int64_t connections,
                    const process_facts& process) {
    leak_signs signs;
    signs.total = process.counts.total;
    if (process.descriptor_growth >= leak_growth) {
        signs.growth = process.descriptor_growth - connections;
    }
    if (process.descriptor_bound > 0) {
        signs.bound_share = static_cast<double>(signs.total) / static_cast<double>(process.descriptor_bound);
    }
    signs.score = std::max(process.monitor.descriptor_score, score_of(process.counts));
    signs.is_rising = rises_for_hours(process.monitor.descriptors);
    signs.refusals = errors_of(facts, process.pid, "EMFILE");
    signs.left_open = left_open(facts, process.pid);
    signs.largest = largest_crowd(index, process);
    return signs;
}

// A crowd that is large, or is seen to grow. Traced growth alone may be a burst of requests.
bool is_crowded(const leak_signs& signs) {
    const bool grows = signs.left_open >= leak_growth && signs.total >= leak_least_total;
    return (signs.score >= monitor_high_score || grows) &&
           static_cast<double>(signs.largest.count) >= leak_kind_share * signs.total;
}

// Nothing if these are no signs of many descriptors at all.
std::optional<severity> level_of(const leak_signs& signs) {
    const bool is_full = signs.bound_share >= leak_bound_share && signs.total >= leak_least_total;
    if (signs.refusals > 0 || is_full) {
        return severity::critical;
    }
    const bool grows = signs.growth >= leak_growth && signs.total >= leak_least_total;
    if (grows || signs.is_rising || is_crowded(signs)) {
        return severity::warning;
    }
    return signs.score >= monitor_high_score ? std::optional(severity::note) : std::nullopt;
}

void add_proof(symptom* found, const leak_signs& signs, const process_facts& process) {
    const std::string place = process_place(process.pid);
    const descriptor_counts& counts = process.counts;
    found->proof.push_back(
        {said(counted(counts.total, "descriptor"), ": ", counted(counts.socket, "socket"), ", ",
              counted(counts.pipe, "pipe"), ", ", counted(counts.file, "file"), ", ", counts.other, " other"),
         place});
    if (signs.growth > 0) {
        found->proof.push_back({said(signs.growth, " more at the second look than at the first"), place});
    }
    if (signs.largest.count > 1) {
        found->proof.push_back({said(signs.largest.count, " ", signs.largest.kind), place});
    }
    if (signs.left_open >= leak_growth) {
        found->proof.push_back({said(signs.left_open, " more were opened than closed in the trace"),
                                said("trace/", process.pid)});
    }
    if (signs.refusals > 0) {
        found->proof.push_back(
            {said(counted(signs.refusals, "call"), " failed with EMFILE: its limit is reached"),
             said("trace/", process.pid)});
    }
    if (signs.bound_share > 0) {
        constexpr double hundred = 100;
        found->proof.push_back(
            {said(rounded(signs.bound_share * hundred), " % of its limit of ", process.descriptor_bound),
             place});
    }
    if (process.monitor.descriptor_score > 0) {
        found->proof.push_back({said("the monitor's score is ", process.monitor.descriptor_score,
                                     signs.is_rising ? ", and its counts have risen for hours" : ""),
                                "member/dbg-monitor.txt"});
    }
}

// What it leaks, if most of what it has is of one sort.
const char* leaked_noun(const descriptor_counts& counts) {
    const unsigned half = counts.total / 2;
    if (counts.socket > half) {
        return "sockets";
    }
    if (counts.pipe > half) {
        return "pipes";
    }
    return counts.file > half ? "files" : "descriptors";
}

}  // namespace

symptoms find_descriptor_leak(const archive_facts& facts) {
    const sockets_by_inode index = index_of(facts);
    std::unordered_map<int, int64_t> connections = new_connections(facts);
    symptoms all;
    for_each_suspect(facts, [&](int pid, const process_facts& process) {
        const leak_signs signs = signs_of(facts, index, connections[pid], process);
        const std::optional<severity> level = level_of(signs);
        if (!level) {
            return;
        }
        symptom found{.pid = pid, .level = level};
        found.text = *level == severity::note
                         ? said(who(facts, pid), " has ", counted(signs.total, "descriptor"), ".")
                         : said(who(facts, pid), " leaks ", leaked_noun(process.counts), ": it has ",
                                signs.total, " descriptors open.");
        found.weight = static_cast<double>(signs.growth) * static_cast<double>(leak_growth) + signs.total;
        add_proof(&found, signs, process);
        all.push_back(std::move(found));
    });
    return all;
}

}  // namespace archiveview
