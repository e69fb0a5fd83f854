// A small reader of pcap streams in this machine's byte order, written from the format's documentation.
#pragma once

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

struct pcap_record {
    uint32_t ts_sec = 0;
    uint32_t ts_usec = 0;
    uint32_t orig_len = 0;
    std::string data;  // incl_len bytes

    bool is_padding() const {
        return ts_sec == 0 && ts_usec == 0 && orig_len == data.size() && data == std::string(orig_len, '\0');
    }
    uint64_t time_us() const { return uint64_t{ts_sec} * 1000000 + ts_usec; }
};

struct pcap_content {
    std::string file_header;  // its 24 bytes
    std::vector<pcap_record> records;
    std::string rest;  // after the last whole record

    // The records without the padding.
    std::vector<pcap_record> frames() const {
        std::vector<pcap_record> found;
        for (const pcap_record& record : records) {
            if (!record.is_padding()) {
                found.push_back(record);
            }
        }
        return found;
    }
    std::vector<std::string> frame_bytes() const {
        std::vector<std::string> all;
        for (const pcap_record& frame : frames()) {
            all.push_back(frame.data);
        }
        return all;
    }
    std::vector<size_t> padding_sizes() const {
        std::vector<size_t> sizes;
        for (const pcap_record& record : records) {
            if (record.is_padding()) {
                sizes.push_back(16 + record.data.size());
            }
        }
        return sizes;
    }
};

inline uint32_t pcap_word(const std::string& bytes, size_t at) {
    uint32_t word = 0;
    memcpy(&word, bytes.data() + at, sizeof word);
    return word;
}

inline pcap_content pcap_read(const std::string& stream) {
    pcap_content content;
    content.file_header = stream.substr(0, 24);
    size_t at = content.file_header.size();
    while (at + 16 <= stream.size() && at + 16 + pcap_word(stream, at + 8) <= stream.size()) {
        pcap_record record;
        record.ts_sec = pcap_word(stream, at);
        record.ts_usec = pcap_word(stream, at + 4);
        record.orig_len = pcap_word(stream, at + 12);
        record.data = stream.substr(at + 16, pcap_word(stream, at + 8));
        at += 16 + record.data.size();
        content.records.push_back(record);
    }
    content.rest = stream.substr(at);
    return content;
}

// The header that every stream must have, byte for byte on a little-endian machine.
inline std::string pcap_expected_file_header() {
    std::string header(24, '\0');
    auto set = [&header](size_t at, auto number) { memcpy(header.data() + at, &number, sizeof number); };
    set(0, uint32_t{0xa1b2c3d4});
    set(4, uint16_t{2});
    set(6, uint16_t{4});
    set(16, uint32_t{65535});
    set(20, uint32_t{1});
    return header;
}
