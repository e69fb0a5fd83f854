#include "monitor/sample.h"

#include <stdlib.h>
#include <string.h>

#include <utility>

#include "common/unique_fd.h"
#include "monitor/ehash.h"
#include "monitor/monitor.h"
#include "monitor/process_record.h"
#include "proc/proc_fd.h"
#include "proc/proc_list.h"

namespace {

constexpr pid_t skip_none = -1;
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

// Adds a process to the table, with `record`, which is all zero. Null if the process has no name because it
// is gone, or if memory runs out.
process_record* add_process(const monitor* m, unique_malloc<process_record> record, pid_t pid) {
    record->pid = pid;
    if (proc_get_pidname_at(m->root, pid, record->name, sizeof record->name) != 1 ||
        ehash_insert_e(m->table, &pid, sizeof pid, &record->node) != 0) {
        return nullptr;
    }
    return record.release();
}

// The record of `pid`, new or known. If the name has changed, another process has the pid now and the record
// starts afresh. Null if there is no such process or memory runs out.
process_record* update_record(const monitor* m, pid_t pid) {
    process_record* known = find_record(m, pid);
    if (known && has_same_name(m, known)) {
        return known;
    }
    if (known) {
        ehash_remove(m->table, &known->node);
        *known = {};
        return add_process(m, unique_malloc<process_record>(known), pid);
    }
    unique_malloc<process_record> fresh = calloc_one<process_record>();
    return fresh ? add_process(m, std::move(fresh), pid) : nullptr;
}

// Moves the entries down by one. The newest is then in the first two.
void shift(fd_counts (&history)[history_length]) {
    memmove(history + 1, history, sizeof history - sizeof history[0]);
}

// The average of one kind over the history. The sum is unsigned because four counts may not fit in an int.
int32_t average(const fd_counts (&history)[history_length], int32_t fd_counts::*kind) {
    uint32_t sum = 0;
    for (const fd_counts& counts : history) {
        sum += static_cast<uint32_t>(counts.*kind);
    }
    return static_cast<int32_t>(sum / history_length);
}

void sample_descriptors(const monitor* m, process_record* record) {
    if (m->round % rounds_between_averages == 0) {
        shift(record->averages);
    }
    shift(record->fds);
    fd_counts& now = record->fds[0];
    now.all = proc_nr_fd2_at(m->root, record->pid, &now.sockets, &now.pipes);
    for (int32_t fd_counts::*kind : {&fd_counts::all, &fd_counts::sockets, &fd_counts::pipes}) {
        record->averages[0].*kind = average(record->fds, kind);
    }
}

// Counts the process as a child of its parent. Either may come first in a round: the first one to touch the
// parent's count resets it.
void count_child(const monitor* m, process_record* record) {
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
    int count = proc_list_at(m->root, pids, monitor_capacity, skip_none);
    for (int i = 0; i < count; i++) {
        process_record* record = update_record(m, pids[i]);
        if (record) {
            record->seen_round = m->round;
            sample_descriptors(m, record);
            count_child(m, record);
        }
    }
}
