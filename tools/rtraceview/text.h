// Records as text for a terminal.
#pragma once

#include "tools/rtraceview/output.h"
#include "tools/rtraceview/record_reader.h"

class text_writer {
public:
    explicit text_writer(text_output* out) : out_(out) {}  // borrows `out`

    // Writes the record's data below a heading of time, type and offset. Only the first piece of a file has a
    // heading. '.' replaces control characters.
    void add(const record& next);

private:
    void write_heading(const record& next);
    void write_data(std::string_view data);

    text_output* out_;
    uint32_t open_type_ = 0;  // of a file that may have more pieces
    int32_t open_pid_ = -1;
};
