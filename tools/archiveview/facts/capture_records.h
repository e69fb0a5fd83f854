// The records of a capture in pcap format.
#pragma once

#include <stdint.h>

#include <span>
#include <string>
#include <string_view>

namespace archiveview {

struct capture_record {
    int64_t us = 0;                  // its timestamp, in microseconds since 1970
    std::span<const uint8_t> frame;  // the bytes that were recorded, without filler
    uint32_t length = 0;             // of the frame on the wire, as far as the record tells
};

class capture_records {
public:
    explicit capture_records(std::string_view bytes);

    // Takes the next record of a frame. False at the end; padding is skipped.
    bool next(capture_record* record);

    // Final after next() has returned false.
    const std::string& damage() const { return damage_; }
    bool has_true_lengths() const { return has_true_lengths_; }
    bool is_full() const;

private:
    uint32_t number_at(size_t at) const;
    bool end(std::string_view damage);

    std::string_view bytes_;
    size_t at_ = 0;
    size_t frames_end_ = 0;  // the end of the last record of a frame
    bool is_swapped_ = false;
    bool has_true_lengths_ = false;
    std::string damage_;
};

}  // namespace archiveview
