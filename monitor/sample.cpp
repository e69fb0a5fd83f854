#include "monitor/sample.h"

#include <stdlib.h>
#include <string.h>

#include "common/unique_fd.h"
#include "monitor/ehash.h"
#include "monitor/monitor.h"
#include "monitor/process_record.h"
#include "proc/proc_fd.h"
#include "proc/proc_list.h"

namespace {

constexpr pid_t nobody = -1;
constexpr uint32_t rounds_between_averages = 32;
static_assert((rounds_between_averages & (rounds_between_averages - 1)) == 0);

process_record* find_record(const monitor* m, pid_t pid) {
    void* found = ehash_lookup_e(m->table, &pid, sizeof pid, offsetof(process_record, node));
    return static_cast<process_record*>(found);
}

bool has_same_name(const monitor* m, const process_record* record) {
    char name[sizeof record->name] = "";
    return proc_get_pidname_at(m->root, record->pid, name, sizeof name) == 1 &&
           strcmp(name, record->name) == 0;
}

// A new process for `record`, which is all zero and in no table; takes it over. Null when the process has no
// name, as it has gone.
process_record* enter_process(const monitor* m, unique_malloc<process_record> record, pid_t pid) {
    record->pid = pid;
    if (proc_get_pidname_at(m->root, pid, record->name, sizeof record->name) != 1 ||
        ehash_insert_e(m->table, &pid, sizeof pid, &record->node) != 0) {
        return nullptr;
    }
    return record.release();
}

// The record of `pid`. One whose process has another name by now starts afresh: its pid was given to another
// process. Null when there is no such process, or no memory.
process_record* record_of(const monitor* m, pid_t pid) {
    process_record* known = find_record(m, pid);
    if (known && has_same_name(m, known)) {
        return known;
    }
    if (known) {
        ehash_remove(m->table, &known->node);
        *known = {};
        return enter_process(m, unique_malloc<process_record>(known), pid);
    }
    void* fresh = calloc(1, sizeof(process_record));
    return fresh ? enter_process(m, unique_malloc<process_record>(static_cast<process_record*>(fresh)), pid)
                 : nullptr;
}

// Moves each entry one place towards the older ones; the newest stays where it is as well.
void age(fd_counts (&history)[history_length]) {
    memmove(history + 1, history, sizeof history - sizeof history[0]);
}

// The average of one kind over the history. Unsigned, as the sum of four counts may not fit otherwise.
int32_t average(const fd_counts (&history)[history_length], int32_t fd_counts::*kind) {
    uint32_t sum = 0;
    for (const fd_counts& counts : history) {
        sum += static_cast<uint32_t>(counts.*kind);
    }
    return static_cast<int32_t>(sum / history_length);
}

void sample_descriptors(const monitor* m, process_record* record) {
    if (m->round % rounds_between_averages == 0) {
        age(record->averages);
    }
    age(record->fds);
    fd_counts& now = record->fds[0];
    now.all = proc_nr_fd2_at(m->root, record->pid, &now.sockets, &now.pipes);
    for (int32_t fd_counts::*kind : {&fd_counts::all, &fd_counts::sockets, &fd_counts::pipes}) {
        record->averages[0].*kind = average(record->fds, kind);
    }
}

// Counts the process as a child of its parent. Parents and children come in any order, so whoever touches a
// count first in a round begins it anew, a child with itself.
void sample_family(const monitor* m, process_record* record) {
    const uint32_t touched = m->round + 1;
    if (record->children_mark == m->round) {
        record->children = 0;
    }
    record->children_mark = touched;
    record->ppid = proc_ppid_at(m->root, record->pid);
    process_record* parent = find_record(m, record->ppid);
    if (parent) {
        parent->children = parent->children_mark == m->round ? 1 : parent->children + 1;
        parent->children_mark = touched;
    }
}

}  // namespace

void monitor_sample(monitor* m) {
    pid_t pids[monitor_capacity];
    int count = proc_list_at(m->root, pids, monitor_capacity, nobody);
    for (int i = 0; i < count; i++) {
        process_record* record = record_of(m, pids[i]);
        if (record) {
            record->seen_round = m->round;
            sample_descriptors(m, record);
            sample_family(m, record);
        }
    }
}
