// A row of the table of findings.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/archiveview/findings/findings.h"

namespace archiveview {

// What a row has found once: a finding without what all findings of its row share.
struct symptom {
    int pid = 0;
    std::string text = {};
    std::vector<evidence> proof = {};
    double weight = 0;                   // orders the symptoms of one row
    std::optional<severity> level = {};  // if it is not that of the row
};
using symptoms = std::vector<symptom>;

struct row {
    const char* id;
    severity level;
    symptoms (*find)(const archive_facts& facts);
    const char* next;  // what to look at next: one sentence
};

symptoms find_archive_cut(const archive_facts& facts);
symptoms find_archive_damaged(const archive_facts& facts);
symptoms find_core_missing(const archive_facts& facts);
symptoms find_descriptor_leak(const archive_facts& facts);
symptoms find_child_runaway(const archive_facts& facts);
symptoms find_process_blocked(const archive_facts& facts);
symptoms find_process_stopped(const archive_facts& facts);
symptoms find_zombies(const archive_facts& facts);
symptoms find_memory_low(const archive_facts& facts);
symptoms find_swap_in_use(const archive_facts& facts);
symptoms find_slab_growth(const archive_facts& facts);
symptoms find_cpu_busy(const archive_facts& facts);
symptoms find_spinning_thread(const archive_facts& facts);
symptoms find_interrupt_storm(const archive_facts& facts);
symptoms find_deadlock(const archive_facts& facts);
symptoms find_error_storm(const archive_facts& facts);
symptoms find_polling_loop(const archive_facts& facts);
symptoms find_call_stuck(const archive_facts& facts);
symptoms find_listen_queue_full(const archive_facts& facts);
symptoms find_close_wait(const archive_facts& facts);
symptoms find_send_queue_stuck(const archive_facts& facts);
symptoms find_retransmissions(const archive_facts& facts);
symptoms find_resets(const archive_facts& facts);
symptoms find_connect_unanswered(const archive_facts& facts);
symptoms find_connect_refused(const archive_facts& facts);
symptoms find_dns_unanswered(const archive_facts& facts);
symptoms find_arp_unanswered(const archive_facts& facts);
symptoms find_interface_errors(const archive_facts& facts);
symptoms find_read_only_mount(const archive_facts& facts);
symptoms find_disk_busy(const archive_facts& facts);
symptoms find_kernel_oops(const archive_facts& facts);
symptoms find_kernel_tainted(const archive_facts& facts);
symptoms find_clock_jump(const archive_facts& facts);
symptoms find_setting_changed(const archive_facts& facts);

}  // namespace archiveview
