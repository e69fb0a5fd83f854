// Parses and builds the records of a resource trace, for tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "monitor/rtrace_record.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

struct trace_record {
    uint32_t type = 0;
    uint32_t length = 0;
    int64_t time_ms = 0;
    int more = 0;
    std::string data;
};

template <typename Number>
Number number_at(std::string_view bytes, size_t offset) {
    Number value = 0;
    if (offset + sizeof value > bytes.size()) {
        ADD_FAILURE() << "no number at " << offset << " of " << bytes.size() << " bytes";
    } else {
        memcpy(&value, bytes.data() + offset, sizeof value);
    }
    return value;
}

template <typename Number>
std::string bytes_of(Number value) {
    std::string bytes(sizeof value, '\0');
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// The records of a stream. Fails the test unless the stream consists of whole records.
inline std::vector<trace_record> records_of(std::string_view stream) {
    std::vector<trace_record> records;
    while (!stream.empty()) {
        trace_record record;
        record.type = number_at<uint32_t>(stream, 0);
        record.length = number_at<uint32_t>(stream, 4);
        record.time_ms = number_at<int64_t>(stream, 8);
        record.more = number_at<uint8_t>(stream, 16);
        size_t end = size_t{20} + record.length;
        if (end > stream.size()) {
            ADD_FAILURE() << "a record of " << end << " bytes in " << stream.size();
            return records;
        }
        EXPECT_EQ(stream.substr(17, 3), std::string_view("\0\0\0", 3));
        record.data = stream.substr(20, record.length);
        records.push_back(record);
        stream.remove_prefix(end);
    }
    return records;
}

// "type:length:more" of each record.
inline std::vector<std::string> outline_of(std::string_view stream) {
    std::vector<std::string> lines;
    for (const trace_record& record : records_of(stream)) {
        lines.push_back(std::to_string(record.type) + ":" + std::to_string(record.length) + ":" +
                        std::to_string(record.more));
    }
    return lines;
}

using outline = std::vector<std::string>;

// The bytes of a record with this timestamp.
inline std::string record_bytes(uint32_t type, std::string_view data, int more, int64_t time_ms) {
    std::string bytes = bytes_of(type) + bytes_of(static_cast<uint32_t>(data.size())) + bytes_of(time_ms);
    bytes += static_cast<char>(more);
    bytes += std::string(3, '\0');
    return bytes.append(data);
}

// Compares a stream with records byte by byte, except for the timestamps.
inline void expect_records(std::string_view stream, const std::vector<trace_record>& wanted) {
    std::string expected;
    std::vector<trace_record> got = records_of(stream);
    ASSERT_EQ(got.size(), wanted.size());
    for (size_t i = 0; i < wanted.size(); i++) {
        expected += record_bytes(wanted[i].type, wanted[i].data, wanted[i].more, got[i].time_ms);
    }
    EXPECT_EQ(stream, expected);
}

inline trace_record record_of(uint32_t type, std::string data, int more) {
    trace_record record;
    record.type = type;
    record.more = more;
    record.data = std::move(data);
    return record;
}

// A sink that collects its stream. A thread reads the pipe, so writers never block for long.
class collected_sink {
public:
    collected_sink() : buffer_(rtrace_sink::buffer_size, 'X'), reader_(unique_fd(pipe_.out.release())) {}
    collected_sink(const collected_sink&) = delete;
    collected_sink& operator=(const collected_sink&) = delete;
    ~collected_sink() { pipe_.in.reset(); }

    rtrace_sink sink() { return {pipe_.in.get(), buffer_.data()}; }

    // Ends the stream and returns it.
    const std::string& stream() {
        pipe_.in.reset();
        return reader_.text();
    }

private:
    test_pipe pipe_;
    std::string buffer_;
    reader_thread reader_;
};

// A sink whose reader has closed its end.
class closed_sink {
public:
    closed_sink() : buffer_(rtrace_sink::buffer_size, 'X') {
        signal(SIGPIPE, SIG_IGN);
        pipe_.out.reset();
    }
    rtrace_sink sink() { return {pipe_.in.get(), buffer_.data()}; }

private:
    test_pipe pipe_;
    std::string buffer_;
};

// An executable shell script at `name` in the folder.
inline void put_script(const temp_dir& folder, std::string_view name, std::string_view text) {
    std::string path = folder.write_file(name, "#!/bin/sh\n" + std::string(text));
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
}
