#include <sys/syscall.h>

#include <algorithm>

#include "tools/dcore/arch.h"

namespace {

// signal(7) lists the calls that a stop interrupts. A call that fails with EINTR has done nothing, so it can
// be repeated; only its timeout starts from the beginning.
constexpr long kept_calls[] = {
#ifdef SYS_epoll_wait
    SYS_epoll_wait,
#endif
    SYS_epoll_pwait,
#ifdef SYS_epoll_pwait2
    SYS_epoll_pwait2,
#endif
#ifdef SYS_semop
    SYS_semop,
#endif
#ifdef SYS_semtimedop
    SYS_semtimedop,
#endif
#ifdef SYS_semtimedop_time64
    SYS_semtimedop_time64,
#endif
    SYS_rt_sigtimedwait,
#ifdef SYS_rt_sigtimedwait_time64
    SYS_rt_sigtimedwait_time64,
#endif
    SYS_io_getevents,
#ifdef SYS_io_pgetevents
    SYS_io_pgetevents,
#endif
#ifdef SYS_io_pgetevents_time64
    SYS_io_pgetevents_time64,
#endif
#ifdef SYS_io_uring_enter
    SYS_io_uring_enter,
#endif
#ifdef SYS_ipc
    SYS_ipc,  // semaphores, on processors where they have no calls of their own
#endif
// Sockets with a timeout of their own.
#ifdef SYS_socketcall
    SYS_socketcall,
#endif
#ifdef SYS_recv
    SYS_recv,
    SYS_send,
#endif
#ifdef SYS_recvmmsg_time64
    SYS_recvmmsg_time64,
#endif
#ifdef SYS_sendfile64
    SYS_sendfile64,
#endif
#ifdef SYS_preadv2
    SYS_preadv2,
    SYS_pwritev2,
#endif
    SYS_accept,
    SYS_accept4,
    SYS_connect,
    SYS_read,
    SYS_readv,
    SYS_recvfrom,
    SYS_recvmsg,
    SYS_recvmmsg,
    SYS_sendfile,
    SYS_sendmmsg,
    SYS_sendmsg,
    SYS_sendto,
    SYS_splice,
    SYS_write,
    SYS_writev,
};

}  // namespace

bool arch_call_can_be_kept(long number) {
    return std::ranges::find(kept_calls, number) != std::end(kept_calls);
}
