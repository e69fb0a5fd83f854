// Groups the records of a resource trace into samples. A sample is one round of a trace: all that it recorded
// about the machine at one time.
#pragma once

#include <cstdint>
#include <unordered_set>

#include "tools/rtraceview/record_reader.h"
#include "tools/rtraceview/record_values.h"
#include "tools/rtraceview/sample_visitor.h"

class sample_builder {
public:
    // Borrows `visitor`.
    explicit sample_builder(sample_visitor* visitor) : visitor_(visitor), values_(visitor) {}

    void add(const record& next);
    void finish();  // ends the last sample

    uint64_t samples() const { return samples_; }
    // Files without their closing header. Their numbers are skipped.
    uint64_t unfinished_files() const { return unfinished_; }
    // How often the time went back, and the first record where it did.
    uint64_t times_back() const { return times_back_; }
    uint64_t first_back_offset() const { return first_back_offset_; }
    // Records with an implausible time (is_plausible_time), and the first of them.
    uint64_t far_times() const { return far_times_; }
    uint64_t first_far_offset() const { return first_far_offset_; }
    // Skipped files of processes: a process was in the sample already, or the sample has too many.
    uint64_t repeated_processes() const { return repeated_; }

    static constexpr size_t processes_limit = 131072;  // files of processes in one sample

private:
    bool begins_sample(const record& next) const;
    void check_time(const record& next);
    void begin_sample(const record& first);
    void add_piece(const record& next);
    void abandon_file();
    void close_file();
    bool is_repeated_process();

    sample_visitor* visitor_;
    record_values values_;
    uint32_t open_type_ = 0;  // of the open file; 0: none
    int32_t open_pid_ = -1;
    int last_rank_ = -1;
    uint32_t seen_apps_ = 0;  // bits of the programs' types in this sample
    int64_t last_time_ms_ = INT64_MIN;
    uint64_t samples_ = 0;
    uint64_t unfinished_ = 0;
    uint64_t times_back_ = 0;
    uint64_t first_back_offset_ = 0;
    uint64_t far_times_ = 0;
    uint64_t first_far_offset_ = 0;
    std::unordered_set<uint64_t> seen_processes_;  // types and process ids of this sample
    uint64_t repeated_ = 0;
};
