// System calls that fail.
#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <initializer_list>
#include <vector>

// Makes these system calls fail with `error` in this thread and what it starts, until it ends: for forked
// children. False where the kernel has no filters for system calls.
inline bool refuse_calls(std::initializer_list<long> numbers, int error) {
    const uint32_t refusal = SECCOMP_RET_ERRNO | static_cast<uint32_t>(error);
    std::vector<sock_filter> lines = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (long number : numbers) {
        lines.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1));
        lines.push_back(BPF_STMT(BPF_RET | BPF_K, refusal));
    }
    lines.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program = {static_cast<unsigned short>(lines.size()), lines.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}
