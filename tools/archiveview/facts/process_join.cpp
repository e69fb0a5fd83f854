// Joins what the members of an archive say about each process.
#include <algorithm>
#include <utility>

#include "tools/archiveview/facts/processes.h"

namespace archiveview {

namespace {

constexpr int64_t assumed_page_kb = 4;

struct whole_list {
    uint64_t first_look_ticks = 0;  // since boot, at least: the latest start of a process in the first look
    int last_pid = 0;               // of the second look; the device visits pids in ascending order
    bool has_first_look = false;
    double span_seconds = 0;
};

whole_list examine(const process_list& list, double span_seconds) {
    whole_list whole;
    whole.span_seconds = span_seconds;
    for (const auto& [pid, evidence] : list.evidence) {
        const auto& [first, second] = evidence.looks;
        whole.has_first_look |= first.is_present;
        if (first.stat) {
            whole.first_look_ticks = std::max(whole.first_look_ticks, first.stat->start_ticks);
        }
        if (second.is_present) {
            whole.last_pid = pid;
        }
    }
    return whole;
}

// Joins the evidence of one process.
class process_join {
public:
    process_join(process_facts* process, process_evidence* evidence, const whole_list& whole)
        : process_(process),
          whole_(whole),
          first_(&evidence->looks[0]),
          second_(&evidence->looks[1]),
          map_(&evidence->map),
          map_name_(&evidence->map_name),
          row_(evidence->row ? &*evidence->row : nullptr) {
        process_->in_first_look = first_->is_present;
        process_->in_second_look = second_->is_present;
        const bool has_both = first_->stat && second_->stat;
        is_same_ = has_both && first_->stat->start_ticks == second_->stat->start_ticks;
        if (has_both && !is_same_) {
            *first_ = {};  // another process has its pid now
        }
    }

    void join() {
        add_row();
        add_look(first_);
        process_->first_state = first_->stat ? first_->stat->state : '?';
        add_look(second_);
        add_names();
        add_growth();
        add_processor_time();
        add_descriptors();
        add_threads();
        if (has_gone()) {
            process_->has_gone = true;
            process_->state = 'X';
        }
    }

private:
    // What the looks say is more exact and replaces it.
    void add_row() {
        if (!row_) {
            return;
        }
        process_->parent = row_->parent;
        process_->state = row_->state;
        process_->thread_count = row_->threads;
        process_->resident_kb = row_->resident_kb;
    }
    void add_look(process_look* look) {
        if (look->stat) {
            process_->parent = look->stat->ppid;
            process_->name = look->stat->name;
            process_->state = look->stat->state;
            process_->thread_count = look->stat->threads;
            process_->start_ticks = look->stat->start_ticks;
        }
        if (const int64_t resident_kb = resident_of(*look); resident_kb >= 0) {
            process_->resident_kb = resident_kb;
        }
        if (look->uid) {
            process_->user = std::to_string(*look->uid);
        }
        replace(&process_->command, &look->command);
        replace(&process_->program, &look->program);
        replace(&process_->wait_channel, &look->wait_channel);
        if (look->descriptor_bound != 0) {
            process_->descriptor_bound = look->descriptor_bound;
        }
        process_->is_kernel_thread |= is_kernel_thread(*look);
    }
    // The first text that is known, from the best source on.
    void add_names() {
        if (row_ && !row_->user.empty()) {
            process_->user = row_->user;
        }
        if (row_ && process_->name.empty()) {
            process_->name = row_->name;
        }
        if (process_->name.empty()) {
            process_->name = *map_name_;
        }
        if (row_ && process_->command.empty()) {
            process_->command = row_->command;
        }
    }
    void add_growth() {
        const int64_t before = resident_of(*first_);
        const int64_t now = resident_of(*second_);
        if (is_same_ && before >= 0 && now >= 0) {
            process_->resident_growth_kb = now - before;
        } else if (row_) {
            process_->resident_growth_kb = row_->resident_growth_kb;
        }
        const descriptor_list& old_links = first_->links;
        const descriptor_list& links = second_->links;
        if (is_same_ && is_whole(old_links) && is_whole(links)) {
            process_->descriptor_growth = int64_t{links.counts.total} - old_links.counts.total;
            process_->descriptor_growth_by_kind = descriptors_growth(old_links.counts, links.counts);
        } else if (row_) {
            process_->descriptor_growth = row_->descriptor_growth;
        }
    }
    // The device knows the time between its looks at a process more exactly than an archive's reader.
    void add_processor_time() {
        if (row_ && row_->was_in_both && row_->cpu_percent >= 0) {
            process_->cpu_percent = row_->cpu_percent;
            return;
        }
        const bool is_new = second_->stat && !first_->is_present && whole_.has_first_look &&
                            second_->stat->start_ticks >= whole_.first_look_ticks;
        if (!(is_same_ || is_new) || whole_.span_seconds <= 0) {
            return;
        }
        const uint64_t before = is_same_ ? first_->stat->cpu_ticks : 0;
        const uint64_t now = std::max(second_->stat->cpu_ticks, before);
        constexpr double percent = 100;
        process_->cpu_percent =
            static_cast<double>(now - before) * percent / (proc_ticks_per_second * whole_.span_seconds);
    }
    // The second look's list goes best with the growth. The map is of a later moment.
    void add_descriptors() {
        process_->first_sockets = std::move(first_->links.sockets);
        descriptor_list* const preferred[] = {&second_->links, map_, &first_->links};
        descriptor_list* best = nullptr;
        for (descriptor_list* list : preferred) {
            const bool is_better = list->is_present && (!best || (best->is_cut && !list->is_cut));
            best = is_better ? list : best;
        }
        if (!best) {
            return;
        }
        process_->descriptors = std::move(best->descriptors);
        process_->counts = best->counts;
        if (best->is_cut && row_ && row_->descriptors > process_->counts.total) {
            process_->counts.total = static_cast<unsigned>(row_->descriptors);
        }
    }
    void add_threads() {
        std::map<int, thread_facts>* before = &first_->threads;
        std::map<int, thread_facts>* now = &second_->threads;
        for (auto& [tid, thread] : now->empty() ? *before : *now) {
            const auto old = before->find(tid);
            const bool is_same = is_same_ && !now->empty() && old != before->end() &&
                                 old->second.start_ticks == thread.start_ticks;
            if (is_same && thread.ticks >= old->second.ticks) {
                thread.ticks_between = static_cast<int64_t>(thread.ticks - old->second.ticks);
            }
            process_->threads.push_back(std::move(thread));
        }
    }

    bool has_gone() const {
        if (!first_->is_present || second_->is_present) {
            return false;
        }
        return row_ ? row_->has_gone : process_->pid < whole_.last_pid;
    }
    static bool is_whole(const descriptor_list& list) { return list.is_present && !list.is_cut; }
    static void replace(std::string* text, std::string* newer) {
        if (!newer->empty()) {
            *text = std::move(*newer);
        }
    }
    static int64_t resident_of(const process_look& look) {
        if (look.resident_kb < 0 && look.stat) {
            return look.stat->resident_pages * assumed_page_kb;
        }
        return look.resident_kb;
    }
    // A process that has ended has no memory either.
    static bool is_kernel_thread(const process_look& look) {
        const bool can_tell =
            look.has_status && look.stat && look.stat->state != 'Z' && look.stat->state != 'X';
        return look.is_kernel_thread.value_or(can_tell && !look.has_memory);
    }

    process_facts* process_;
    const whole_list& whole_;
    process_look* first_;
    process_look* second_;
    descriptor_list* map_;
    const std::string* map_name_;
    const process_row* row_;
    bool is_same_;  // both looks saw it
};

void count_children(process_list* list) {
    for (auto& [pid, process] : list->by_pid) {
        const auto parent = list->by_pid.find(process.parent);
        if (!process.has_gone && parent != list->by_pid.end()) {
            parent->second.children++;
        }
    }
}

}  // namespace

void processes_finish(process_list* list, double span_seconds) {
    const whole_list whole = examine(*list, span_seconds);
    for (auto& [pid, evidence] : list->evidence) {
        process_join(&list->by_pid[pid], &evidence, whole).join();
    }
    list->evidence.clear();
    count_children(list);
}

}  // namespace archiveview
