// System calls that fail, as on a kernel without them or on a machine that has run out of a resource.
#pragma once

#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <initializer_list>
#include <optional>
#include <vector>

struct failing_call {
    long number;  // SYS_...
    int error;
    std::optional<uint32_t> first = {};  // fails only if the low 32 bits of its first argument are these
};

// Makes these calls fail for the rest of this thread's life, and in its children. For the child of a test.
// Returns false if the kernel cannot filter system calls.
inline bool fail_calls(std::initializer_list<failing_call> calls) {
    constexpr size_t low_half = offsetof(seccomp_data, args);  // on a little-endian machine
    std::vector<sock_filter> steps;
    for (const failing_call& call : calls) {
        steps.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
        const uint8_t rest = call.first ? 3 : 1;
        steps.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(call.number), 0, rest));
        if (call.first) {
            steps.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, low_half));
            steps.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, *call.first, 0, 1));
        }
        steps.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(call.error)));
    }
    steps.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program = {static_cast<unsigned short>(steps.size()), steps.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Makes every close_range(2) fail as on a kernel that lacks it.
inline bool take_close_range_away() {
#ifdef SYS_close_range
    return fail_calls({{SYS_close_range, ENOSYS}});
#else
    return true;
#endif
}
