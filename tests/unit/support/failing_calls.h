// System calls that fail, as on a kernel without them or on a machine that is short of something.
#pragma once

#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <initializer_list>
#include <vector>

struct failing_call {
    long number;  // SYS_...
    int error;
};

// Makes these calls fail for the rest of this thread's life, and for what it starts: for a child of a test.
// Returns false where the kernel filters no calls.
inline bool fail_calls(std::initializer_list<failing_call> calls) {
    std::vector<sock_filter> steps = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const failing_call& call : calls) {
        steps.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call.number), 0, 1));
        steps.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(call.error)));
    }
    steps.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog program = {static_cast<unsigned short>(steps.size()), steps.data()};
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
