#include "tools/rtraceview/csv.h"

csv_writer::csv_writer(text_output* out) : out_(out) {
    out_->write("time,source,subject,key,value,unit\n");
}

void csv_writer::begin(int64_t /*time_ms*/, uint64_t /*offset*/) {}

void csv_writer::value(const sample_field& field, double number, int64_t time_ms) {
    out_->write_time(time_ms);
    for (std::string_view part : {field.source, field.subject, field.key}) {
        out_->write(',');
        out_->write_csv(part);
    }
    out_->write(',');
    out_->write_number(number);
    out_->write(',');
    out_->write(field.unit);
    out_->write('\n');
}

void csv_writer::text(const sample_field& /*field*/, std::string_view /*text*/, int64_t /*time_ms*/) {}

void csv_writer::end() {}
