// The classic pcap file format, version 2.4: a file header, then records of a header and a frame each. All
// numbers are in the byte order of the machine that writes them; readers tell it from the magic number.
#pragma once

#include <stdint.h>

struct pcap_file_header {
    uint32_t magic = 0xa1b2c3d4;
    uint16_t version_major = 2;
    uint16_t version_minor = 4;
    int32_t thiszone = 0;
    uint32_t sigfigs = 0;
    uint32_t snaplen = 65535;  // the same whatever the records are cut to
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

// A stream that is short of its promised size is filled up with records of zero bytes, dated 1970. Returns
// the size of the next one, header included, when `remaining` bytes are missing. No record is larger than
// 32767 bytes, and none leaves a rest that would be too small for a record header. A `remaining` below the
// size of a record header is returned as it is: those bytes can only be bare zeros.
constexpr uint32_t pcap_padding_size(uint32_t remaining) {
    constexpr uint32_t largest = 32767;
    if (remaining <= largest) {
        return remaining;
    }
    return remaining - largest < sizeof(pcap_record_header) ? largest / 2 : largest;
}
