#include "tools/rtraceview/csv.h"

csv_writer::csv_writer(text_output& out) : out_(out) {
    out_.put("time,source,subject,key,value,unit\n");
}

void csv_writer::begin(int64_t /*time_ms*/, uint64_t /*offset*/) {}

void csv_writer::value(const sample_place& place, double number, int64_t time_ms) {
    out_.put_time(time_ms);
    for (std::string_view part : {place.source, place.subject, place.key}) {
        out_.put(',');
        out_.put_csv(part);
    }
    out_.put(',');
    out_.put_number(number);
    out_.put(',');
    out_.put(place.unit);
    out_.put('\n');
}

void csv_writer::text(const sample_place& /*place*/, std::string_view /*text*/, int64_t /*time_ms*/) {}

void csv_writer::end() {}
