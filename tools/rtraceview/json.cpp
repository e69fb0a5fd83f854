#include "tools/rtraceview/json.h"

void json_writer::begin(int64_t time_ms, uint64_t offset) {
    json_.begin_object();
    json_.key("time_ms");
    json_.number(time_ms);
    json_.key("offset");
    json_.number(offset);
    pass_on();
}

void json_writer::end_subject() {
    if (!subject_.empty()) {
        json_.end_object();
        subject_.clear();
    }
}

void json_writer::end_source() {
    end_subject();
    if (!source_.empty()) {
        json_.end_object();
        source_.clear();
    }
}

// Writes everything before the field's value.
void json_writer::begin_field(const sample_field& field) {
    if (field.source != source_) {
        end_source();
        source_ = field.source;
        json_.key(source_);
        json_.begin_object();
    }
    if (field.subject != subject_) {
        end_subject();
        subject_ = field.subject;
        if (!subject_.empty()) {
            json_.key(subject_);
            json_.begin_object();
        }
    }
    json_.key(field.key);
}

void json_writer::value(const sample_field& field, double number, int64_t /*time_ms*/) {
    begin_field(field);
    json_.number(number);
    pass_on();
}

void json_writer::text(const sample_field& field, std::string_view text, int64_t /*time_ms*/) {
    begin_field(field);
    json_.string(text);
    pass_on();
}

void json_writer::end() {
    end_source();
    json_.end_object();
    json_.end_line();
    pass_on();
}

void json_writer::pass_on() {
    out_->write(json_.text());
    json_.clear();
}
