#include "tools/rtraceview/text.h"

#include <algorithm>

#include "monitor/rtrace_record.h"

namespace {

bool is_printable(char character) {
    unsigned char byte = static_cast<unsigned char>(character);
    return (byte >= 0x20 && byte != 0x7f) || byte == '\n' || byte == '\t';
}

}  // namespace

void text_writer::write_heading(const record& next) {
    out_->write("=== ");
    out_->write_time(next.time_ms);
    out_->write(' ');
    const char* name = record_type_name(next.type);
    out_->write(name ? name : "unknown type " + std::to_string(next.type));
    if (next.pid >= 0) {
        out_->write(" of process " + std::to_string(next.pid));
    }
    if (next.type == rtrace_type_group) {
        out_->write(next.more ? " begins" : " ends");
    }
    out_->write(", offset " + std::to_string(next.offset) + "\n");
}

void text_writer::write_data(std::string_view data) {
    while (!data.empty()) {
        size_t shown =
            static_cast<size_t>(std::find_if_not(data.begin(), data.end(), is_printable) - data.begin());
        out_->write(data.substr(0, shown));
        data.remove_prefix(shown);
        if (!data.empty()) {
            out_->write('.');
            data.remove_prefix(1);
        }
    }
}

void text_writer::add(const record& next) {
    bool is_closing = !next.more && open_type_ != 0 && next.type == open_type_;
    bool is_next_piece = next.more && next.type == open_type_ && next.pid == open_pid_;
    if (!is_closing && !is_next_piece) {
        write_heading(next);
    }
    write_data(next.data);
    if (!next.data.empty() && next.data.back() != '\n' && !next.more) {
        out_->write('\n');
    }
    bool stays_open = next.more && next.type != rtrace_type_group;
    open_type_ = stays_open ? next.type : 0;
    open_pid_ = next.pid;
}
