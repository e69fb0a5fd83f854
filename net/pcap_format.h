// The classic pcap file format, version 2.4: a file header, then records of a header and a frame each. All
// numbers are in the byte order of the machine that writes them; readers detect it by the magic number.
#pragma once

#include <stdint.h>

struct pcap_file_header {
    uint32_t magic = 0xa1b2c3d4;
    uint16_t version_major = 2;
    uint16_t version_minor = 4;
    int32_t thiszone = 0;
    uint32_t sigfigs = 0;
    uint32_t snaplen = 65535;  // even if the records are cut
    uint32_t linktype = 1;     // Ethernet
};
static_assert(sizeof(pcap_file_header) == 24);

struct pcap_record_header {
    uint32_t ts_sec;
    uint32_t ts_usec;
    uint32_t incl_len;  // bytes that follow in the file
    uint32_t orig_len;  // bytes of the frame
};
static_assert(sizeof(pcap_record_header) == 16);

// A stream is filled up to its promised size with records of zero bytes and timestamp 0. Returns the size of
// the next one, including its header, if `remaining` bytes are missing. No record is larger than 32767 bytes
// or leaves a remainder that is too small for a record header. A `remaining` that is smaller than a record
// header is returned unchanged; those bytes are zeros without a header.
constexpr uint32_t pcap_padding_size(uint32_t remaining) {
    constexpr uint32_t largest = 32767;
    if (remaining <= largest) {
        return remaining;
    }
    return remaining - largest < sizeof(pcap_record_header) ? largest / 2 : largest;
}
