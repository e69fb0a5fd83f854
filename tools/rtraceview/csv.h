// Samples as a table for a spreadsheet, one number a line: time, source, subject, key, value, unit.
#pragma once

#include "tools/rtraceview/output.h"
#include "tools/rtraceview/sample_visitor.h"

class csv_writer : public sample_visitor {
public:
    // Writes the heading. Borrows `out`.
    explicit csv_writer(text_output* out);

    void begin(int64_t time_ms, uint64_t offset) override;
    void value(const sample_field& field, double number, int64_t time_ms) override;
    void text(const sample_field& field, std::string_view text, int64_t time_ms) override;  // skips it
    void end() override;

private:
    text_output* out_;
};
