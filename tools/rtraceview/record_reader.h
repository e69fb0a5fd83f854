// A stream of resource-trace records, one after the other, in constant memory (monitor/rtrace_record.h has
// the layout). The stream may be in either byte order, cut off anywhere, or damaged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct record {
    uint64_t offset = 0;  // of its header in the stream
    uint32_t type = 0;
    int64_t time_ms = 0;
    bool more = false;
    bool is_known = false;  // the type is one of the 13; the data of others is skipped
    int32_t pid = -1;       // of the records of processes that have data
    std::string_view data;  // without the process id; valid until the next call
};

// "meminfo", "smaps"...; null for a type that is not known.
const char* record_type_name(uint32_t type);

// How reading ended.
enum class stream_state {
    more,       // it has not ended
    whole,      // with the last byte of a record
    cut_off,    // in the middle of a record, as a download that was stopped does
    damaged,    // with something that can't be a record
    unreadable  // with an error of the source
};

class record_reader {
public:
    // Reads up to `size` bytes; 0 at the end. May throw std::system_error, which next passes on.
    using byte_source = std::function<size_t(char* to, size_t size)>;

    explicit record_reader(byte_source source);

    // Fills `*next` with the next whole record. False when there is none; state() and complaint() say why.
    bool next(record* next);

    stream_state state() const { return state_; }
    // What is wrong and at which offset; empty unless cut off or damaged.
    const std::string& complaint() const { return complaint_; }
    // Records of unknown types that were passed over.
    uint64_t unknown_records() const { return unknown_; }
    uint64_t offset() const { return offset_; }
    bool is_swapped() const { return swapped_; }  // the stream's byte order is not this machine's

private:
    bool fill(size_t wanted);
    void consume(size_t size);
    bool skip(uint64_t size);
    bool end(stream_state state, const std::string& complaint);
    void settle_byte_order(const char* header);
    bool read_header(record* next, uint32_t* length);
    bool take_data(record* next, uint32_t length);
    bool pass_over(const record& next, uint32_t length);
    template <typename Number>
    Number number_at(const char* bytes) const;

    byte_source source_;
    std::vector<char> buffer_;
    size_t begin_ = 0;
    size_t end_ = 0;
    uint64_t offset_ = 0;  // of begin_
    uint64_t unknown_ = 0;
    bool swapped_ = false;
    stream_state state_ = stream_state::more;
    std::string complaint_;
};
