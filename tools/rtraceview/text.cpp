#include "tools/rtraceview/text.h"

#include <algorithm>

#include "monitor/rtrace_record.h"

namespace {

bool is_shown(char character) {
    unsigned char byte = static_cast<unsigned char>(character);
    return (byte >= 0x20 && byte != 0x7f) || byte == '\n' || byte == '\t';
}

}  // namespace

void text_writer::put_heading(const record& next) {
    out_.put("=== ");
    out_.put_time(next.time_ms);
    out_.put(' ');
    const char* name = record_type_name(next.type);
    out_.put(name ? name : "unknown type " + std::to_string(next.type));
    if (next.pid >= 0) {
        out_.put(" of process " + std::to_string(next.pid));
    }
    if (next.type == rtrace_type_group) {
        out_.put(next.more ? " begins" : " ends");
    }
    out_.put(", offset " + std::to_string(next.offset) + "\n");
}

void text_writer::put_data(std::string_view data) {
    while (!data.empty()) {
        size_t shown =
            static_cast<size_t>(std::find_if_not(data.begin(), data.end(), is_shown) - data.begin());
        out_.put(data.substr(0, shown));
        data.remove_prefix(shown);
        if (!data.empty()) {
            out_.put('.');
            data.remove_prefix(1);
        }
    }
}

void text_writer::add(const record& next) {
    bool is_closing = !next.more && open_type_ != 0 && next.type == open_type_;
    bool goes_on = next.more && next.type == open_type_ && next.pid == open_pid_;
    if (!is_closing && !goes_on) {
        put_heading(next);
    }
    put_data(next.data);
    if (!next.data.empty() && next.data.back() != '\n' && !next.more) {
        out_.put('\n');
    }
    bool stays_open = next.more && next.type != rtrace_type_group;
    open_type_ = stays_open ? next.type : 0;
    open_pid_ = next.pid;
}
