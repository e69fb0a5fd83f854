#include "tools/rtraceview/record_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "monitor/rtrace_record.h"

namespace {

// A record and its header have to fit, and some more so that the source is read in large pieces.
constexpr size_t buffer_size = size_t{1} << 19;
constexpr uint32_t longest_data = rtrace_data_capacity + rtrace_pid_size;
static_assert(buffer_size >= rtrace_header_size + longest_data);

constexpr std::array<const char*, 14> type_names = {
    nullptr,  "iostat",  "smaps",    "status",       "group",   "followed", "smapstot",
    "filenr", "meminfo", "diskinfo", "pagetypeinfo", "pellora", "event",    "pidstat"};

bool is_of_a_process(uint32_t type) {
    return type == rtrace_type_smaps || type == rtrace_type_status;
}

std::string at(uint64_t offset) {
    return "offset " + std::to_string(offset) + ": ";
}

std::string cut(uint64_t offset, uint64_t there, uint64_t announced, const char* of_what) {
    return at(offset) + "the record is cut off after " + std::to_string(there) + " of " +
           std::to_string(announced) + " bytes of its " + of_what;
}

uint32_t swapped_bytes(uint32_t value) {
    return __builtin_bswap32(value);
}

}  // namespace

const char* record_type_name(uint32_t type) {
    return type < type_names.size() ? type_names[type] : nullptr;
}

record_reader::record_reader(byte_source source) : source_(std::move(source)), buffer_(buffer_size) {}

template <typename Number>
Number record_reader::number_at(const char* bytes) const {
    std::array<char, sizeof(Number)> raw;
    std::copy_n(bytes, raw.size(), raw.begin());
    if (swapped_) {
        std::reverse(raw.begin(), raw.end());
    }
    Number value;
    memcpy(&value, raw.data(), raw.size());
    return value;
}

// Whether `wanted` bytes (at most the buffer's size) are at begin_.
bool record_reader::fill(size_t wanted) {
    if (end_ - begin_ >= wanted) {
        return true;
    }
    memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= std::exchange(begin_, 0);
    while (end_ < wanted) {
        size_t got = source_(buffer_.data() + end_, buffer_.size() - end_);
        if (got == 0) {
            return false;
        }
        end_ += got;
    }
    return true;
}

void record_reader::consume(size_t size) {
    begin_ += size;
    offset_ += size;
}

bool record_reader::skip(uint64_t size) {
    while (size > 0) {
        if (!fill(1)) {
            return false;
        }
        size_t piece = static_cast<size_t>(std::min<uint64_t>(size, end_ - begin_));
        consume(piece);
        size -= piece;
    }
    return true;
}

bool record_reader::end(stream_state state, const std::string& complaint) {
    state_ = state;
    complaint_ = complaint;
    return false;
}

// Types are small numbers, so the order in which the first one is smaller is the stream's.
void record_reader::settle_byte_order(const char* header) {
    uint32_t type = number_at<uint32_t>(header);
    swapped_ = swapped_bytes(type) < type;
}

bool record_reader::read_header(record* next, uint32_t* length) {
    if (!fill(rtrace_header_size)) {
        size_t there = end_ - begin_;
        return there == 0 ? end(stream_state::whole, "")
                          : end(stream_state::cut_off, cut(offset_, there, rtrace_header_size, "header"));
    }
    const char* header = buffer_.data() + begin_;
    if (offset_ == 0) {
        settle_byte_order(header);
    }
    *next = {};
    next->offset = offset_;
    next->type = number_at<uint32_t>(header);
    *length = number_at<uint32_t>(header + 4);
    next->time_ms = number_at<int64_t>(header + 8);
    next->more = header[16] == 1;
    next->is_known = record_type_name(next->type) != nullptr;
    if (header[16] != 0 && header[16] != 1) {
        return end(stream_state::damaged, at(offset_ + 16) + "the mark for more is neither 0 nor 1");
    }
    if (memcmp(header + 17, "\0\0\0", 3) != 0) {
        return end(stream_state::damaged, at(offset_ + 17) + "bytes that have to be zero are not");
    }
    if (next->type == 0) {
        return end(stream_state::damaged, at(offset_) + "a record of type 0");
    }
    return true;
}

bool record_reader::take_data(record* next, uint32_t length) {
    uint32_t limit = is_of_a_process(next->type) ? longest_data : rtrace_data_capacity;
    if (length > limit) {
        return end(stream_state::damaged, at(offset_ + 4) + "a length of " + std::to_string(length) +
                                              ", but a record of " + record_type_name(next->type) +
                                              " has at most " + std::to_string(limit));
    }
    bool has_pid = is_of_a_process(next->type) && length > 0;
    if (has_pid && length < rtrace_pid_size) {
        return end(stream_state::damaged, at(offset_ + 4) + "a length of " + std::to_string(length) +
                                              " has no room for a process id");
    }
    if (!fill(rtrace_header_size + length)) {
        return end(stream_state::cut_off, cut(offset_, end_ - begin_ - rtrace_header_size, length, "data"));
    }
    next->data = std::string_view(buffer_.data() + begin_ + rtrace_header_size, length);
    if (has_pid) {
        next->pid = number_at<int32_t>(next->data.data());
        next->data.remove_prefix(rtrace_pid_size);
    }
    consume(rtrace_header_size + length);
    return true;
}

bool record_reader::pass_over(const record& next, uint32_t length) {
    consume(rtrace_header_size);
    uint64_t data_offset = offset_;
    if (!skip(length)) {
        return end(stream_state::cut_off,
                   cut(next.offset, offset_ - data_offset, length, "data of an unknown type"));
    }
    unknown_++;
    return true;
}

bool record_reader::next(record* next) {
    uint32_t length = 0;
    if (state_ != stream_state::more || !read_header(next, &length)) {
        return false;
    }
    return next->is_known ? take_data(next, length) : pass_over(*next, length);
}
