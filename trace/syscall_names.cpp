#include "trace/syscall_names.h"

#include <stdint.h>

#include <iterator>
#include <string_view>

namespace {

// Each name once.
constexpr std::string_view distinct_names[] = {
#include "trace/syscall_names.inc"
};

// For each call the index of its name above.
constexpr uint16_t name_indexes[] = {
#include "trace/syscall_name_indexes.inc"
};
static_assert(std::size(name_indexes) == syscall_count);

constexpr std::string_view name_at(size_t index) {
    return distinct_names[name_indexes[index]];
}
static_assert(name_at(0) == "syscall");
static_assert(name_at(o32_calls - 1) == "perf_counter_open");
static_assert(name_at(o32_calls) == "Linux_syscalls");
static_assert(name_at(syscall_count - 1) == "N32_Linux_syscalls");

constexpr size_t packed_size = [] {
    size_t size = 0;
    for (std::string_view name : distinct_names) {
        size += name.size() + 1;
    }
    return size;
}();
static_assert(packed_size <= UINT16_MAX);

// The names, and where that of each call begins. Offsets of two bytes take half the space of pointers.
struct packed_names {
    char text[packed_size] = {};
    uint16_t offset[syscall_count] = {};
};

constexpr packed_names packed = [] {
    packed_names all;
    uint16_t begin[std::size(distinct_names)] = {};
    size_t used = 0;
    for (size_t i = 0; i < std::size(distinct_names); i++) {
        begin[i] = static_cast<uint16_t>(used);
        used += distinct_names[i].copy(all.text + used, distinct_names[i].size()) + 1;
    }
    for (size_t i = 0; i < syscall_count; i++) {
        all.offset[i] = begin[name_indexes[i]];
    }
    return all;
}();

// The names, followed by "" up to the end.
constexpr std::array<const char*, socketcall_count> pad_socketcalls() {
    constexpr const char* names[] = {
        "",           "socket",  "bind",    "connect", "listen",   "accept",   "getsockname", "getpeername",
        "socketpair", "send",    "recv",    "sendto",  "recvfrom", "shutdown", "setsockopt",  "getsockopt",
        "sendmsg",    "recvmsg", "accept4",
    };
    static_assert(std::size(names) == 19);
    std::array<const char*, socketcall_count> all;
    for (size_t i = 0; i < all.size(); i++) {
        all[i] = i < std::size(names) ? names[i] : "";
    }
    return all;
}

}  // namespace

const char* syscall_name_table::operator[](size_t index) const {
    return packed.text + packed.offset[index];
}

constexpr std::array<const char*, socketcall_count> socketcall_names = pad_socketcalls();
