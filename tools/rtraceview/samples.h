// Records as samples: what was seen of a machine in one round of a resource trace, as named numbers.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "tools/rtraceview/app_output.h"
#include "tools/rtraceview/key_sums.h"
#include "tools/rtraceview/record_reader.h"

// Where a number or a text belongs.
struct sample_place {
    std::string_view source;   // "meminfo", "smaps", "iostat"...
    std::string_view subject;  // a process id, a mount, a device, "COMMAND PID"; empty where there is but one
    std::string_view key;      // as the kernel or the program names it
    std::string_view unit;     // "KiB", "%" or empty
};

// What is called for each sample: begin, then everything that it holds, source by source and subject by
// subject, then end.
struct sample_visitor {
    virtual ~sample_visitor() = default;
    virtual void begin(int64_t time_ms, uint64_t offset) = 0;
    virtual void value(const sample_place& place, double number, int64_t time_ms) = 0;
    virtual void text(const sample_place& place, std::string_view text, int64_t time_ms) = 0;
    virtual void end() = 0;
};

class sample_builder {
public:
    explicit sample_builder(sample_visitor& visitor) : visitor_(visitor) {}

    void add(const record& next);
    void finish();  // ends the last sample

    uint64_t samples() const { return samples_; }
    // Files whose closing header did not come; their numbers are left out.
    uint64_t unfinished_files() const { return unfinished_; }
    // How often the clock went back, and the first record where it did.
    uint64_t times_back() const { return times_back_; }
    uint64_t first_back_offset() const { return first_back_offset_; }
    // Records whose time is no date (text_output::put_time), and the first of them.
    uint64_t far_times() const { return far_times_; }
    uint64_t first_far_offset() const { return first_far_offset_; }
    // Files of processes that the sample had already, or that were more than it may have; left out.
    uint64_t repeated_processes() const { return repeated_; }

    static constexpr size_t processes_limit = 131072;  // files of processes in one sample

private:
    struct open_file {
        uint32_t type = 0;  // 0: none
        int32_t pid = -1;
        int64_t time_ms = 0;
        std::string head;  // the beginning of the text, for what is no number
    };

    bool begins_sample(const record& next) const;
    void note_time(const record& next);
    void add_piece(const record& next);
    void close_file();
    void give_up_file();
    void close_process();
    void visit_sums(std::string_view subject);
    void visit_filenr();
    void visit_disks(const record& next);
    void visit_app(const record& next);
    void visit_report(const record& next, std::string_view source);

    sample_visitor& visitor_;
    open_file file_;
    // One for each kind, since each has keys of its own.
    key_sums sums_of_[14];
    line_splitter lines_of_[14];
    iostat_reports iostat_;
    pidstat_reports pidstat_;
    int last_rank_ = -1;
    uint32_t seen_apps_ = 0;  // bits of the types that this sample has
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
