#include "tools/archiveview/facts/capture_records.h"

#include <string.h>

#include <algorithm>

#include "net/frame.h"
#include "net/pcap_format.h"

namespace archiveview {

namespace {

constexpr size_t member_bytes = 512000;  // of a whole capture, with its padding

// A capture ends early if the next frame and this many bytes do not fit any more.
constexpr size_t reserved_bytes = 48;

constexpr uint32_t ethernet = 1;

uint32_t swapped(uint32_t number) {
    return __builtin_bswap32(number);
}

bool is_zero(std::string_view bytes) {
    return bytes.find_first_not_of('\0') == std::string_view::npos;
}

}  // namespace

uint32_t capture_records::number_at(size_t at) const {
    uint32_t number = 0;
    memcpy(&number, bytes_.data() + at, sizeof number);
    return is_swapped_ ? swapped(number) : number;
}

bool capture_records::end(std::string_view damage) {
    damage_ = damage;
    at_ = bytes_.size();
    return false;
}

capture_records::capture_records(std::string_view bytes) : bytes_(bytes) {
    constexpr uint32_t magic = pcap_file_header().magic;
    if (bytes.size() < sizeof(pcap_file_header)) {
        end("It ends before its first packet.");
        return;
    }
    is_swapped_ = number_at(0) == swapped(magic);
    if (number_at(0) != magic) {
        end(is_zero(bytes) ? "It holds only zeros: the device could not capture." : "It is no capture.");
        return;
    }
    if (number_at(offsetof(pcap_file_header, linktype)) != ethernet) {
        end("Its frames are not those of Ethernet.");
        return;
    }
    at_ = frames_end_ = sizeof(pcap_file_header);
}

bool capture_records::next(capture_record* record) {
    while (bytes_.size() - at_ >= sizeof(pcap_record_header)) {
        const uint32_t s = number_at(at_ + offsetof(pcap_record_header, ts_sec));
        const uint32_t us = number_at(at_ + offsetof(pcap_record_header, ts_usec));
        const uint32_t stored = number_at(at_ + offsetof(pcap_record_header, incl_len));
        const uint32_t length = number_at(at_ + offsetof(pcap_record_header, orig_len));
        const bool is_padding = s == 0 && us == 0;
        const size_t begin = at_ + sizeof(pcap_record_header);
        if (stored > bytes_.size() - begin) {
            return is_padding ? end("") : end("It ends in the middle of a packet.");
        }
        at_ = begin + stored;
        if (is_padding) {
            continue;
        }
        frames_end_ = at_;
        has_true_lengths_ = has_true_lengths_ || stored != pcap_frame_limit || length > stored;
        const auto* frame = static_cast<const uint8_t*>(static_cast<const void*>(bytes_.data() + begin));
        *record = {int64_t{s} * 1000000 + us, {frame, std::min(stored, length)}, length};
        return true;
    }
    return is_zero(bytes_.substr(at_)) ? false : end("It ends in the middle of a packet.");
}

bool capture_records::is_full() const {
    return damage_.empty() && bytes_.size() >= member_bytes &&
           bytes_.size() - frames_end_ <= pcap_frame_limit + reserved_bytes;
}

}  // namespace archiveview
