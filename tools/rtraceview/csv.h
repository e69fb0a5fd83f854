// Samples as a table for a spreadsheet, a number a line: time, source, subject, key, value, unit.
#pragma once

#include "tools/rtraceview/output.h"
#include "tools/rtraceview/samples.h"

class csv_writer : public sample_visitor {
public:
    // Writes the heading.
    explicit csv_writer(text_output& out);

    void begin(int64_t time_ms, uint64_t offset) override;
    void value(const sample_place& place, double number, int64_t time_ms) override;
    // Texts are no series.
    void text(const sample_place& place, std::string_view text, int64_t time_ms) override;
    void end() override;

private:
    text_output& out_;
};
