#include "tools/rtraceview/json.h"

void json_writer::begin(int64_t time_ms, uint64_t offset) {
    json_.begin_object();
    json_.key("time_ms");
    json_.number(time_ms);
    json_.key("offset");
    json_.number(offset);
    pass_on();
}

void json_writer::close_subject() {
    if (!subject_.empty()) {
        json_.end_object();
        subject_.clear();
    }
}

void json_writer::close_source() {
    close_subject();
    if (!source_.empty()) {
        json_.end_object();
        source_.clear();
    }
}

// Leaves the output where the value of the key has to go.
void json_writer::open(const sample_place& place) {
    if (place.source != source_) {
        close_source();
        source_ = place.source;
        json_.key(source_);
        json_.begin_object();
    }
    if (place.subject != subject_) {
        close_subject();
        subject_ = place.subject;
        if (!subject_.empty()) {
            json_.key(subject_);
            json_.begin_object();
        }
    }
    json_.key(place.key);
}

void json_writer::value(const sample_place& place, double number, int64_t /*time_ms*/) {
    open(place);
    json_.number(number);
    pass_on();
}

void json_writer::text(const sample_place& place, std::string_view text, int64_t /*time_ms*/) {
    open(place);
    json_.string(text);
    pass_on();
}

void json_writer::end() {
    close_source();
    json_.end_object();
    json_.end_line();
    pass_on();
}

void json_writer::pass_on() {
    out_.put(json_.text());
    json_.clear();
}
