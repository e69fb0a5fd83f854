#include "tools/archiveview/findings/findings.h"

#include <algorithm>
#include <iterator>

#include "tools/archiveview/findings/causes.h"
#include "tools/archiveview/findings/row.h"
#include "tools/archiveview/findings/thresholds.h"

namespace archiveview {

namespace {

constexpr severity note = severity::note;
constexpr severity warning = severity::warning;
constexpr severity critical = severity::critical;

// Causes before their consequences: of two findings of one severity, the first row's comes first.
constexpr row rows[] = {
    {"archive-damaged", warning, find_archive_damaged,
     "Download the archive again, and compare the checksums of both files."},
    {"archive-cut", warning, find_archive_cut,
     "Download the archive again; if it is cut at the same member, look at the daemon's messages in the "
     "system log."},
    {"deadlock", critical, find_deadlock,
     "Open the core in the debugger, and compare the order in which these threads take their locks."},
    {"process-stopped", warning, find_process_stopped,
     "Find out who sent the stop signal; SIGCONT lets the process go on."},
    {"descriptor-leak", warning, find_descriptor_leak,
     "Look at the targets of its descriptors, and at the calls in the trace that open them without a close."},
    {"child-runaway", warning, find_child_runaway,
     "Look at the fork calls of this process in the trace, and at the names of its children."},
    {"memory-low", critical, find_memory_low,
     "Compare the memory of the processes, and look at the mmap and brk calls of the one that grows."},
    {"spinning-thread", warning, find_spinning_thread,
     "Open its core in the debugger, and look at the stack of the running thread."},
    {"process-blocked", warning, find_process_blocked,
     "Look at the kernel function that it sleeps in, and at the kernel's log for the device behind it."},
    {"zombies", warning, find_zombies,
     "Look for the place where the parent should call wait, or should handle SIGCHLD."},
    {"connect-refused", warning, find_connect_refused,
     "Check whether the service at that address runs, and whether the client has the right port."},
    {"listen-queue-full", warning, find_listen_queue_full,
     "Look at what the server does instead of calling accept: its core and its last calls in the trace."},
    {"connect-unanswered", warning, find_connect_unanswered,
     "Check whether that address is reachable, and whether a filter on the way drops the packets."},
    {"dns-unanswered", warning, find_dns_unanswered,
     "Check the name servers in /etc/resolv.conf, and whether they are reachable."},
    {"send-queue-stuck", warning, find_send_queue_stuck,
     "Look at what the reading process does instead of reading: its core and its last calls in the trace."},
    {"error-storm", warning, find_error_storm,
     "Look at the arguments of the failing call in the trace, and at what the program does after the error."},
    {"polling-loop", warning, find_polling_loop,
     "Let the program wait for the event instead of asking for it again and again."},
    {"call-stuck", warning, find_call_stuck,
     "Look at the descriptor of the call, and at the kernel function that the process sleeps in."},
    {"close-wait", warning, find_close_wait,
     "Look for the place where the program should close a connection after it has read its end."},
    {"retransmissions", warning, find_retransmissions,
     "Check the link for losses: cables, the errors of interfaces, and the load on the way."},
    {"resets", warning, find_resets,
     "Look at which side sends the resets, and whether it closes connections with unread data."},
    {"kernel-oops", warning, find_kernel_oops,
     "Look up the place in the kernel's symbols, and whether a later kernel or driver has a fix."},
    {"read-only-mount", warning, find_read_only_mount,
     "Look at the kernel's log for errors of that file system or its device."},
    {"interface-errors", warning, find_interface_errors,
     "Check the cable, the other end's speed and duplex mode, and the driver's counters."},
    {"clock-jump", warning, find_clock_jump,
     "Compare the times in logs before and after; look at what sets the clock."},
    {"arp-unanswered", note, find_arp_unanswered,
     "Check whether the neighbour is switched on, and has this address and network mask."},
    {"cpu-busy", note, find_cpu_busy, "Sort the processes by their processor time."},
    {"interrupt-storm", note, find_interrupt_storm, "Look at the device and the driver of this interrupt."},
    {"slab-growth", note, find_slab_growth,
     "Compare the cache in a later archive; if it only grows, look for the driver or the call that fills "
     "it."},
    {"swap-in-use", note, find_swap_in_use,
     "Compare the memory of the processes; pages in swap are slow to come back."},
    {"disk-busy", note, find_disk_busy, "Look at the reads and writes by descriptor in the trace."},
    {"core-missing", note, find_core_missing,
     "Look at the daemon's messages in the system log, and whether the dumper is installed."},
    {"kernel-tainted", note, find_kernel_tainted,
     "Keep it in mind when the kernel is the suspect: modules from elsewhere may be the cause."},
    {"setting-changed", note, find_setting_changed, "Find out which program writes these settings."},
};

finding finding_of(const row& from, symptom&& what, const archive_facts& facts) {
    finding made;
    made.id = from.id;
    made.level = what.level.value_or(from.level);
    made.pid = what.pid;
    if (const process_facts* process = facts.processes.find(what.pid)) {
        made.name = process->name;
    }
    made.text = std::move(what.text);
    made.proof = std::move(what.proof);
    made.next = from.next;
    made.weight = what.weight;
    return made;
}

std::vector<finding> findings_of(const row& from, const archive_facts& facts) {
    symptoms found = from.find(facts);
    std::stable_sort(found.begin(), found.end(),
                     [](const symptom& a, const symptom& b) { return a.weight > b.weight; });
    if (found.size() > finding_limit) {
        found.resize(finding_limit);
    }
    std::vector<finding> made;
    for (symptom& one : found) {
        made.push_back(finding_of(from, std::move(one), facts));
    }
    return made;
}

bool is_more_urgent(const finding& a, const finding& b) {
    return a.level != b.level ? a.level > b.level : a.weight > b.weight;
}

// The order of findings becomes their weight, so that who sorts them by it keeps the causes first.
void weigh_by_order(std::vector<finding>* findings) {
    double weight = static_cast<double>(findings->size());
    for (finding& one : *findings) {
        one.weight = weight--;
    }
}

}  // namespace

std::vector<finding> find_all(const archive_facts& facts) {
    std::vector<finding> all;
    for (const row& one : rows) {
        std::ranges::move(findings_of(one, facts), std::back_inserter(all));
    }
    weigh_by_order(&all);
    std::ranges::stable_sort(all, is_more_urgent);
    drop_consequences(&all);
    all.resize(std::min(all.size(), finding_limit));
    weigh_by_order(&all);
    for (finding& one : all) {
        one.proof.resize(std::min(one.proof.size(), proof_limit));
    }
    return all;
}

const char* severity_name(severity level) {
    static constexpr const char* names[] = {"note", "warning", "critical"};
    return names[static_cast<int>(level)];
}

}  // namespace archiveview
