#include "trace/syscall_names.h"

#include <iterator>
#include <string_view>

namespace {

constexpr const char* generated_names[] = {
#include "trace/syscall_names.inc"
};
static_assert(std::size(generated_names) == syscall_count);
static_assert(std::string_view(generated_names[0]) == "syscall");
static_assert(std::string_view(generated_names[o32_calls - 1]) == "perf_counter_open");
static_assert(std::string_view(generated_names[o32_calls]) == "Linux_syscalls");
static_assert(std::string_view(generated_names[syscall_count - 1]) == "N32_Linux_syscalls");

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

constexpr std::array<const char*, syscall_count> syscall_names = std::to_array(generated_names);
constexpr std::array<const char*, socketcall_count> socketcall_names = pad_socketcalls();
