#include "tools/archiveview/facts/trace_calls.h"

namespace archiveview {

namespace {

constexpr struct {
    std::string_view call;
    transfer_direction direction;
} transfers[] = {
    {"pread64", transfer_direction::read},   {"preadv", transfer_direction::read},
    {"pwrite64", transfer_direction::write}, {"pwritev", transfer_direction::write},
    {"read", transfer_direction::read},      {"readv", transfer_direction::read},
    {"recv", transfer_direction::read},      {"recvfrom", transfer_direction::read},
    {"recvmsg", transfer_direction::read},   {"send", transfer_direction::write},
    {"sendfile", transfer_direction::write}, {"sendfile64", transfer_direction::write},
    {"sendmsg", transfer_direction::write},  {"sendto", transfer_direction::write},
    {"write", transfer_direction::write},    {"writev", transfer_direction::write},
};

constexpr std::string_view waits[] = {
    "_newselect",      "clock_nanosleep", "epoll_pwait",     "epoll_wait",
    "futex",           "nanosleep",       "pause",           "poll",
    "ppoll",           "pselect6",        "restart_syscall", "rt_sigsuspend",
    "rt_sigtimedwait", "select",          "sigsuspend",      "wait4",
    "waitid",          "waitpid",
};

}  // namespace

transfer_direction trace_direction_of(std::string_view call) {
    const auto found = std::ranges::find(transfers, call, [](const auto& known) { return known.call; });
    return found == std::end(transfers) ? transfer_direction::none : found->direction;
}

bool trace_is_wait(std::string_view call) {
    return trace_is_one_of(call, waits);
}

}  // namespace archiveview
