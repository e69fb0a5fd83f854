// Failures that pass by themselves.
#pragma once

#include <errno.h>

// True for the errno of a call that found no free descriptor or no memory in the kernel. The same call may
// succeed later, when others have released theirs.
constexpr bool is_exhaustion(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}
