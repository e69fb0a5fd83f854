#include "monitor/monitor.h"

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>

#include "common/proc_path.h"
#include "common/unique_fd.h"
#include "monitor/ehash.h"
#include "monitor/process_record.h"
#include "monitor/sample.h"
#include "monitor/score.h"
#include "monitor/status_report.h"

namespace {

constexpr const char* daemon_status_path = "/var/run/dbg-cgi/dbg-monitor.txt";
constexpr int daemon_interval_ms = 3600000;
constexpr uint32_t table_hint = 512;

}  // namespace

monitor* monitor_create(const char* path) {
    return monitor_create_at(proc_root, path);
}

monitor* monitor_create_at(const char* root, const char* path) {
    unique_malloc<monitor> m = calloc_one<monitor>();
    ehash* table = m ? ehash_new(table_hint) : nullptr;
    if (!table) {
        return nullptr;
    }
    *m = {root, path, table, 1};
    return m.release();
}

void monitor_run(monitor* m) {
    status_report status;
    // If memory runs out, this round writes no status file.
    if (m->status_path && status_report_begin(&status)) {
        fprintf(status.stream, "Debug monitor status round=%lx\n\n", static_cast<unsigned long>(m->round));
    }
    monitor_sample(m);
    monitor_score(m, status.stream);
    m->round++;
    if (status.stream) {
        // A failed replacement is ignored; the next round tries again.
        (void)status_report_publish(&status, m->status_path);
    }
}

void monitor_destroy(monitor* m) {
    if (!m) {
        return;
    }
    for (;;) {
        ehash_iterator first = {};
        void* found = ehash_iterate_e(m->table, &first, nullptr, nullptr, offsetof(process_record, node));
        if (!found) {
            break;
        }
        process_record* record = static_cast<process_record*>(found);
        ehash_remove(m->table, &record->node);
        free(record);
    }
    ehash_free(m->table);
    free(m);
}

void* monitor_thread_run(void* /*unused*/) {
    const sched_param priority = {};
    errno = pthread_setschedparam(pthread_self(), SCHED_IDLE, &priority);
    if (errno != 0) {
        perror("setschedparam");
        return nullptr;
    }
    monitor* m = monitor_create(daemon_status_path);
    while (m) {
        monitor_run(m);
        poll(nullptr, 0, daemon_interval_ms);
    }
    return nullptr;
}
