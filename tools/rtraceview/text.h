// Records as text for a terminal.
#pragma once

#include "tools/rtraceview/output.h"
#include "tools/rtraceview/record_reader.h"

class text_writer {
public:
    explicit text_writer(text_output& out) : out_(out) {}

    // A heading of time, type and offset before the first piece of a file, the data as it stands; control
    // characters become '.'.
    void add(const record& next);

private:
    void put_heading(const record& next);
    void put_data(std::string_view data);

    text_output& out_;
    uint32_t open_type_ = 0;  // of a file of which more pieces may come
    int32_t open_pid_ = -1;
};
