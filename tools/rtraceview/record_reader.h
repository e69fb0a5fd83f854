// Reads the records of a resource trace in constant memory. monitor/rtrace_record.h describes the layout. The
// stream may have either byte order, and may be cut off anywhere, or damaged.
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
    bool is_known = false;  // one of the 13 types; the data of others is skipped
    int32_t pid = -1;       // for records of processes that have data
    std::string_view data;  // without the process id; valid until the next call
};

// "meminfo", "smaps"...; null for an unknown type.
const char* record_type_name(uint32_t type);

enum class stream_state {
    more,     // not at its end yet
    whole,    // ends with the last byte of a record
    cut_off,  // ends in the middle of a record, as a stopped download does
    damaged,  // contains bytes that cannot be a record
};

class record_reader {
public:
    // Reads up to `size` bytes. Returns 0 at the end. next() lets its exceptions through.
    using byte_source = std::function<size_t(char* to, size_t size)>;

    explicit record_reader(byte_source source);

    // Fills `*next` with the next whole record. Returns false when there is none; state() and complaint()
    // then give the reason.
    bool next(record* next);

    stream_state state() const { return state_; }
    // What is wrong and at which offset; empty unless the stream is cut off or damaged.
    const std::string& complaint() const { return complaint_; }
    uint64_t unknown_records() const { return unknown_; }  // of unknown types
    uint64_t offset() const { return offset_; }
    bool is_swapped() const { return swapped_; }  // the stream does not have this machine's byte order

private:
    bool fill(size_t wanted);
    void consume(size_t size);
    bool skip(uint64_t size);
    bool end(stream_state state, const std::string& complaint);
    void detect_byte_order(const char* header);
    bool read_header(record* next, uint32_t* length);
    bool is_valid_header(const char* header);
    bool take_data(record* next, uint32_t length);
    bool skip_data(const record& next, uint32_t length);
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
