#include "tools/rtraceview/record_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "monitor/rtrace_record.h"

namespace {

// Holds more than one record with its header, so that the source is read in large pieces.
constexpr size_t buffer_size = size_t{1} << 19;
constexpr uint32_t longest_data = rtrace_data_capacity + rtrace_pid_size;
static_assert(buffer_size >= rtrace_header_size + longest_data);

constexpr std::array<const char*, 14> type_names = {
    nullptr,  "iostat",  "smaps",    "status",       "group",   "followed", "smapstot",
    "filenr", "meminfo", "diskinfo", "pagetypeinfo", "pellora", "event",    "pidstat"};

bool is_of_process(uint32_t type) {
    return type == rtrace_type_smaps || type == rtrace_type_status;
}

std::string at(uint64_t offset) {
    return "offset " + std::to_string(offset) + ": ";
}

std::string cut_after(uint64_t bytes, uint64_t announced, const char* part, uint64_t offset) {
    return at(offset) + "record cut off after " + std::to_string(bytes) + " of " + std::to_string(announced) +
           " bytes of its " + part;
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

// Reads until `wanted` bytes (at most the buffer's size) are at begin_. Returns false at the end of the
// source.
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

// Types are small numbers: the byte order that makes the first type smaller is right.
void record_reader::detect_byte_order(const char* header) {
    uint32_t type = number_at<uint32_t>(header);
    swapped_ = swapped_bytes(type) < type;
}

bool record_reader::read_header(record* next, uint32_t* length) {
    if (!fill(rtrace_header_size)) {
        size_t rest = end_ - begin_;
        return rest == 0 ? end(stream_state::whole, "")
                         : end(stream_state::cut_off, cut_after(rest, rtrace_header_size, "header", offset_));
    }
    const char* header = buffer_.data() + begin_;
    if (offset_ == 0) {
        detect_byte_order(header);
    }
    *next = {};
    next->offset = offset_;
    next->type = number_at<uint32_t>(header);
    *length = number_at<uint32_t>(header + 4);
    next->time_ms = number_at<int64_t>(header + 8);
    next->more = header[16] == 1;
    next->is_known = record_type_name(next->type) != nullptr;
    return is_valid_header(header);
}

bool record_reader::is_valid_header(const char* header) {
    constexpr size_t more_offset = 16, zeros_offset = 17;
    if (header[more_offset] != 0 && header[more_offset] != 1) {
        return end(stream_state::damaged,
                   at(offset_ + more_offset) + "the byte for more pieces is neither 0 nor 1");
    }
    if (memcmp(header + zeros_offset, "\0\0\0", 3) != 0) {
        return end(stream_state::damaged, at(offset_ + zeros_offset) + "reserved bytes are not zero");
    }
    if (number_at<uint32_t>(header) == 0) {
        return end(stream_state::damaged, at(offset_) + "record of type 0");
    }
    return true;
}

bool record_reader::take_data(record* next, uint32_t length) {
    uint32_t limit = is_of_process(next->type) ? longest_data : rtrace_data_capacity;
    if (length > limit) {
        return end(stream_state::damaged, at(offset_ + 4) + "length " + std::to_string(length) +
                                              " is above the limit of " + std::to_string(limit) + " for " +
                                              record_type_name(next->type));
    }
    bool has_pid = is_of_process(next->type) && length > 0;
    if (has_pid && length < rtrace_pid_size) {
        return end(stream_state::damaged,
                   at(offset_ + 4) + "length " + std::to_string(length) + " is too short for a process id");
    }
    if (!fill(rtrace_header_size + length)) {
        return end(stream_state::cut_off,
                   cut_after(end_ - begin_ - rtrace_header_size, length, "data", offset_));
    }
    next->data = std::string_view(buffer_.data() + begin_ + rtrace_header_size, length);
    if (has_pid) {
        next->pid = number_at<int32_t>(next->data.data());
        next->data.remove_prefix(rtrace_pid_size);
    }
    consume(rtrace_header_size + length);
    return true;
}

bool record_reader::skip_data(const record& next, uint32_t length) {
    consume(rtrace_header_size);
    uint64_t data_offset = offset_;
    if (!skip(length)) {
        return end(stream_state::cut_off,
                   cut_after(offset_ - data_offset, length, "data, of an unknown type", next.offset));
    }
    unknown_++;
    return true;
}

bool record_reader::next(record* next) {
    uint32_t length = 0;
    if (state_ != stream_state::more || !read_header(next, &length)) {
        return false;
    }
    return next->is_known ? take_data(next, length) : skip_data(*next, length);
}
