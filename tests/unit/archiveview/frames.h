// Frames and captures for tests.
#pragma once

#include <stdint.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace frames {

inline std::string number(uint64_t value, int bytes) {
    std::string text;
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
        text += static_cast<char>(value >> shift);
    }
    return text;
}

inline std::string ethernet(uint16_t type, std::string_view body) {
    return std::string(12, '\2') + number(type, 2) + std::string(body);
}

// 10.0.0.`host`
inline std::string address(uint8_t host) {
    return number(0x0a000000u + host, 4);
}

struct packet {
    uint8_t from = 1, to = 2;
    uint16_t id = 1;
    uint16_t fragment = 0;  // with its flags
};

inline std::string ipv4(const packet& p, uint8_t protocol, std::string_view body) {
    const std::string head = number(0x4500, 2) + number(20 + body.size(), 2) + number(p.id, 2) +
                             number(p.fragment, 2) + '\x40' + static_cast<char>(protocol) + number(0, 2);
    return ethernet(0x800, head + address(p.from) + address(p.to) + std::string(body));
}

// 2001:db8::`host`
inline std::string address6(uint8_t host) {
    return number(0x20010db8, 4) + std::string(11, '\0') + static_cast<char>(host);
}

inline std::string ipv6(uint8_t from, uint8_t to, uint8_t next_header, std::string_view body) {
    return ethernet(0x86dd, number(0x60000000, 4) + number(body.size(), 2) + static_cast<char>(next_header) +
                                '\xff' + address6(from) + address6(to) + std::string(body));
}

inline std::string udp(uint16_t from, uint16_t to, std::string_view data) {
    return number(from, 2) + number(to, 2) + number(8 + data.size(), 2) + number(0, 2) + std::string(data);
}

constexpr uint8_t fin = 1, syn = 2, rst = 4, ack = 16;

struct segment {
    uint16_t from = 1000, to = 80;
    uint32_t sequence = 0, acknowledged = 0;
    uint8_t flags = ack;
    uint16_t window = 500;
};

inline std::string tcp(const segment& s, std::string_view data = "") {
    return number(s.from, 2) + number(s.to, 2) + number(s.sequence, 4) + number(s.acknowledged, 4) + '\x50' +
           static_cast<char>(s.flags) + number(s.window, 2) + number(0, 4) + std::string(data);
}

constexpr uint8_t icmp = 1, tcp_number = 6, udp_number = 17, fragment_header = 44, icmp6 = 58;

// A capture file of a little-endian device.
class capture {
public:
    explicit capture(uint32_t stored = 0) : stored_(stored) {}

    // `ms` after the first second.
    capture& add(double ms, std::string_view frame) {
        const uint64_t us = 1000000 + static_cast<uint64_t>(ms * 1000);
        const size_t size = stored_ == 0 ? frame.size() : stored_;
        add_number(static_cast<uint32_t>(us / 1000000 + 1000));
        add_number(static_cast<uint32_t>(us % 1000000));
        add_number(static_cast<uint32_t>(size));
        add_number(static_cast<uint32_t>(frame.size()));
        text_ += frame;
        text_.append(size - frame.size(), '\0');
        return *this;
    }

    // Fills the capture up, as the device does.
    capture& pad(size_t size) {
        while (text_.size() < size) {
            const size_t left = size - text_.size();
            const size_t body = left < 16 ? left : std::min<size_t>(left - 16, 32751);
            if (left >= 16) {
                text_.append(8, '\0');
                add_number(static_cast<uint32_t>(body));
                add_number(static_cast<uint32_t>(body));
            }
            text_.append(body, '\0');
        }
        return *this;
    }

    const std::string& text() const { return text_; }

private:
    void add_number(uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) {
            text_ += static_cast<char>(value >> shift);
        }
    }

    uint32_t stored_;  // bytes of each record; 0: as many as the frame has
    std::string text_ = std::string("\xd4\xc3\xb2\xa1\2\0\4\0\0\0\0\0\0\0\0\0\xff\xff\0\0\1\0\0\0", 24);
};

}  // namespace frames
