// Socket filters of the capture: classic BPF over Ethernet frames.
#pragma once

#include <linux/filter.h>
#include <stdint.h>

#include <array>
#include <cstddef>

// One line of a program as documentation writes it: jumps name the line they go to.
struct bpf_line {
    uint16_t code;
    uint32_t k;
    size_t if_true = 0;  // line numbers; only jumps have them
    size_t if_false = 0;
};

constexpr bpf_line bpf_ldb(uint32_t offset) {
    return {BPF_LD | BPF_B | BPF_ABS, offset};
}
constexpr bpf_line bpf_ldh(uint32_t offset) {
    return {BPF_LD | BPF_H | BPF_ABS, offset};
}
constexpr bpf_line bpf_ld(uint32_t offset) {
    return {BPF_LD | BPF_W | BPF_ABS, offset};
}
constexpr bpf_line bpf_ldh_x(uint32_t offset) {
    return {BPF_LD | BPF_H | BPF_IND, offset};
}
constexpr bpf_line bpf_ld_x(uint32_t offset) {
    return {BPF_LD | BPF_W | BPF_IND, offset};
}
// X becomes 4 * (byte & 15): the length of the IPv4 header that begins at `offset`.
constexpr bpf_line bpf_ldxb(uint32_t offset) {
    return {BPF_LDX | BPF_B | BPF_MSH, offset};
}
constexpr bpf_line bpf_jeq(uint32_t value, size_t if_true, size_t if_false) {
    return {BPF_JMP | BPF_JEQ | BPF_K, value, if_true, if_false};
}
constexpr bpf_line bpf_jset(uint32_t bits, size_t if_true, size_t if_false) {
    return {BPF_JMP | BPF_JSET | BPF_K, bits, if_true, if_false};
}
constexpr bpf_line bpf_ret(uint32_t accepted_bytes) {
    return {BPF_RET | BPF_K, accepted_bytes};
}

// Not defined, so that a program that jumps backwards or too far does not compile.
uint8_t bpf_impossible_jump();

// The distance that an instruction holds for a jump from line `from` to line `to`.
constexpr uint8_t bpf_distance(size_t from, size_t to) {
    size_t distance = to - from - 1;
    return distance <= UINT8_MAX ? static_cast<uint8_t>(distance) : bpf_impossible_jump();
}

template <size_t count>
consteval std::array<sock_filter, count> bpf_program(const bpf_line (&lines)[count]) {
    std::array<sock_filter, count> program = {};
    for (size_t i = 0; i < count; i++) {
        const bpf_line& line = lines[i];
        bool jumps = BPF_CLASS(line.code) == BPF_JMP;
        program[i] = {line.code, jumps ? bpf_distance(i, line.if_true) : uint8_t{0},
                      jumps ? bpf_distance(i, line.if_false) : uint8_t{0}, line.k};
    }
    return program;
}

// Returns a program that drops the traffic of the connection `sock` and accepts everything else; the caller
// frees it. Stores the number of its instructions in `*count` unless that is null. Returns null if `sock` is
// not a connected IPv4 or IPv6 socket, or if an allocation failed.
//
// Only ports are compared: traffic between other machines on the same two ports is dropped too.
sock_filter* filter_me(int sock, int* count);

// Drops traffic from or to port 22 over TCP, UDP and SCTP, and accepts everything else. IPv4 fragments after
// the first have no ports and are accepted; so are IPv6 packets with extension headers.
constexpr size_t bpf_port_program_size = 24;
extern const std::array<sock_filter, bpf_port_program_size> bpf_port_program;

// Where bpf_port_program compares the ports of an IPv4 packet.
constexpr size_t bpf_port_ipv4_tests[] = {19, 21};
