#include "tools/rtraceview/samples.h"

#include "monitor/rtrace_record.h"
#include "tools/rtraceview/output.h"

namespace {

// Records appear in this order within a sample. Those of programs come last, in any order.
constexpr int app_rank = 9;
int rank_of(const record& next) {
    switch (next.type) {
        case rtrace_type_group:
            return next.more ? 0 : 3;
        case rtrace_type_smaps:
            return 1;
        case rtrace_type_status:
            return 2;
        case rtrace_type_followed:
        case rtrace_type_smapstot:
            return 4;
        case rtrace_type_filenr:
            return 5;
        case rtrace_type_meminfo:
            return 6;
        case rtrace_type_diskinfo:
            return 7;
        case rtrace_type_pagetypeinfo:
            return 8;
        default:
            return app_rank;
    }
}

bool is_of_process(uint32_t type) {
    return type == rtrace_type_smaps || type == rtrace_type_status;
}

}  // namespace

bool sample_builder::begins_sample(const record& next) const {
    int rank = rank_of(next);
    if (last_rank_ < 0 || rank < last_rank_) {
        return true;
    }
    if (rank > last_rank_) {
        return false;
    }
    if (rank == app_rank) {
        return (seen_apps_ & 1U << next.type) != 0;
    }
    // A sample has one file of each kind, in one or more pieces, except for files of processes.
    return !is_of_process(next.type) && open_type_ == 0;
}

void sample_builder::check_time(const record& next) {
    if (next.time_ms < last_time_ms_ && times_back_++ == 0) {
        first_back_offset_ = next.offset;
    }
    last_time_ms_ = next.time_ms;
    if (!is_plausible_time(next.time_ms) && far_times_++ == 0) {
        first_far_offset_ = next.offset;
    }
}

void sample_builder::begin_sample(const record& first) {
    finish();
    visitor_->begin(first.time_ms, first.offset);
    samples_++;
    seen_apps_ = 0;
    seen_processes_.clear();
}

void sample_builder::add(const record& next) {
    if (!next.is_known) {
        return;
    }
    check_time(next);
    if (open_type_ != 0 && (next.type != open_type_ || (next.more && next.pid != open_pid_))) {
        abandon_file();
    }
    bool is_closing = open_type_ != 0 && !next.more;
    if (!is_closing && begins_sample(next)) {
        begin_sample(next);
    }
    last_rank_ = rank_of(next);
    if (last_rank_ == app_rank) {
        seen_apps_ |= 1U << next.type;
        values_.add_app(next);
    } else if (next.type == rtrace_type_diskinfo) {
        values_.add_disks(next);
    } else if (next.type != rtrace_type_group) {
        add_piece(next);
    }
}

void sample_builder::finish() {
    if (open_type_ != 0) {
        abandon_file();
    }
    if (last_rank_ >= 0) {
        visitor_->end();
    }
    last_rank_ = -1;
}

void sample_builder::add_piece(const record& next) {
    if (!next.more) {
        // A closing header without a file is ignored.
        if (open_type_ != 0) {
            close_file();
        }
        return;
    }
    if (open_type_ == 0) {
        open_type_ = next.type;
        open_pid_ = next.pid;
        values_.begin_file(next);
    }
    values_.add_piece(next.data);
}

void sample_builder::abandon_file() {
    unfinished_++;
    open_type_ = 0;
}

void sample_builder::close_file() {
    if (is_of_process(open_type_) && is_repeated_process()) {
        repeated_++;
    } else {
        values_.end_file();
    }
    open_type_ = 0;
}

// A process id can be reused while the trace goes through the processes.
bool sample_builder::is_repeated_process() {
    uint64_t mark = uint64_t{open_type_} << 32 | static_cast<uint32_t>(open_pid_);
    return seen_processes_.size() >= processes_limit || !seen_processes_.insert(mark).second;
}
