// The numbers and texts in the data of records.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/rtraceview/app_output.h"
#include "tools/rtraceview/key_sums.h"
#include "tools/rtraceview/record_reader.h"
#include "tools/rtraceview/sample_visitor.h"

class record_values {
public:
    explicit record_values(sample_visitor* visitor) : visitor_(visitor) {}  // borrows `visitor`

    // A file of the kernel's, in pieces that may end anywhere. Its fields go to the visitor in end_file(). A
    // new begin_file() drops a file without its end.
    void begin_file(const record& first);
    void add_piece(std::string_view data);
    void end_file();

    // The file systems, in one record.
    void add_disks(const record& disks);
    // Output of a program. A line may continue in the program's next record.
    void add_app(const record& output);

private:
    void visit_sums(std::string_view subject);
    void visit_filenr();
    void visit_report(const record& output, std::string_view source);

    sample_visitor* visitor_;
    uint32_t type_ = 0;  // of the file
    int32_t pid_ = -1;
    int64_t time_ms_ = 0;
    std::string head_;  // the beginning of the file, for files without keys
    // One for each type, since each has keys and programs of its own.
    key_sums sums_of_[14];
    line_splitter lines_of_[14];
    iostat_reports iostat_;
    pidstat_reports pidstat_;
};
