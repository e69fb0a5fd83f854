#include "monitor/score.h"

#include <stdlib.h>

#include "common/unique_fd.h"
#include "monitor/ehash.h"
#include "monitor/monitor.h"
#include "monitor/process_record.h"
#include "proc/proc_list.h"

namespace {

constexpr int32_t high_fd_score = 32;
constexpr int32_t fd_report_step = 32;
constexpr int32_t fork_step = 16;
constexpr int32_t kernel_fork_step = 32;

// The ages that are printed for the entries of the two histories. They are fixed, whatever the interval is.
constexpr int fds_labels[history_length] = {0, 1, 2, 3};
constexpr int averages_labels[history_length] = {4, 37, 70, 103};

int32_t fd_score(const fd_counts& counts) {
    return (counts.all - counts.sockets - counts.pipes) / 32 + counts.pipes / 32 + counts.sockets / 8;
}

const char* plus_sign(int32_t delta) {
    return delta >= 1 ? "+" : "";
}

void print_history(FILE* status, const fd_counts (&history)[history_length],
                   const int (&labels)[history_length]) {
    for (int i = 0; i < history_length; i++) {
        fprintf(status, "%dh nr_fd=%d nr_sock=%d nr_pipe=%d\n", labels[i], history[i].all, history[i].sockets,
                history[i].pipes);
    }
}

void score_descriptors(process_record* record, FILE* status) {
    const int32_t score = fd_score(record->fds[0]);
    if (score > record->reported_fd_score + fd_report_step) {
        int32_t delta = score - record->previous_fd_score;
        record->reported_fd_score = score;
        fprintf(stderr, "pid %d name %s fd_score %d [%s%d] sk=%d\n", record->pid, record->name, score,
                plus_sign(delta), delta, record->fds[0].sockets);
    }
    record->previous_fd_score = score;
    if (status && score >= high_fd_score) {
        fprintf(status, "fdstats for pid=%ld score=%d:\n", static_cast<long>(record->pid), score);
        print_history(status, record->fds, fds_labels);
        print_history(status, record->averages, averages_labels);
    }
}

void report_children(const monitor* m, process_record* record, FILE* status) {
    const int32_t score = record->children;
    const int32_t step = proc_is_kernel_thread_at(m->root, record->pid) ? kernel_fork_step : fork_step;
    if (score >= step + record->reported_children) {
        int32_t delta = score - record->previous_children;
        record->reported_children = score;
        fprintf(stderr, "pid %d name %s fork_score %d [%s%d]\n", record->pid, record->name, score,
                plus_sign(delta), delta);
    }
    if (status && score >= step) {
        fprintf(status, "forkstats for pid=%ld: score=%d nr_childs=%d\n", static_cast<long>(record->pid),
                score, record->children);
    }
}

void score_children(const monitor* m, process_record* record, FILE* status) {
    // Below the smaller step nothing is printed for either kind of process.
    if (record->children >= fork_step) {
        report_children(m, record, status);
    }
    record->previous_children = record->children;
}

}  // namespace

void monitor_score(monitor* m, FILE* status) {
    ehash_iterator iterator = {};
    unique_malloc<process_record> gone;  // freed only after the iterator has left it
    while (void* next =
               ehash_iterate_e(m->table, &iterator, nullptr, nullptr, offsetof(process_record, node))) {
        process_record* record = static_cast<process_record*>(next);
        if (record->seen_round == m->round) {
            score_descriptors(record, status);
            score_children(m, record, status);
        } else {
            ehash_remove(m->table, &record->node);
            gone.reset(record);
        }
    }
}
