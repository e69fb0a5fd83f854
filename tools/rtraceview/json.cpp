#include "tools/rtraceview/json.h"

void json_writer::begin(int64_t time_ms, uint64_t offset) {
    out_.put("{\"time_ms\":");
    out_.put(std::to_string(time_ms));
    out_.put(",\"offset\":");
    out_.put(std::to_string(offset));
}

void json_writer::close_subject() {
    if (!subject_.empty()) {
        out_.put('}');
        subject_.clear();
        is_first_ = false;
    }
}

void json_writer::close_source() {
    close_subject();
    if (!source_.empty()) {
        out_.put('}');
        source_.clear();
    }
}

// Leaves the output where the value of the key has to go.
void json_writer::open(const sample_place& place) {
    if (place.source != source_) {
        close_source();
        source_ = place.source;
        out_.put(',');
        out_.put_json(source_);
        out_.put(":{");
        is_first_ = true;
    }
    if (place.subject != subject_) {
        close_subject();
        subject_ = place.subject;
        if (!subject_.empty()) {
            out_.put(is_first_ ? "" : ",");
            out_.put_json(subject_);
            out_.put(":{");
            is_first_ = true;
        }
    }
    out_.put(is_first_ ? "" : ",");
    is_first_ = false;
    out_.put_json(place.key);
    out_.put(':');
}

void json_writer::value(const sample_place& place, double number, int64_t /*time_ms*/) {
    open(place);
    out_.put_number(number);
}

void json_writer::text(const sample_place& place, std::string_view text, int64_t /*time_ms*/) {
    open(place);
    out_.put_json(text);
}

void json_writer::end() {
    close_source();
    out_.put("}\n");
}
