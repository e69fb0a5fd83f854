#include "tools/dcore/thread_events.h"

#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>

#include <string>

#include "tools/dcore/proc_text.h"

namespace {

constexpr long event_patience_ns = 10'000'000;

}  // namespace

thread_event thread_poll(pid_t tid, int* status) {
    constexpr int at_once = WEXITED | WNOHANG | __WALL;
    siginfo_t event = {};
    if (waitid(P_PID, static_cast<id_t>(tid), &event, at_once | WSTOPPED | WNOWAIT) != 0) {
        return thread_event::gone;
    }
    if (event.si_pid == 0) {
        return thread_event::none;
    }
    if (event.si_code == CLD_TRAPPED || event.si_code == CLD_STOPPED) {
        *status = event.si_status;
        return thread_event::stopped;
    }
    (void)waitid(P_PID, static_cast<id_t>(tid), &event, at_once);
    return thread_event::gone;
}

bool thread_await_event() {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    timespec patience = {0, event_patience_ns};
    return sigtimedwait(&child, nullptr, &patience) == SIGCHLD;
}

bool thread_has_ended(pid_t tid) {
    std::string stat = proc_text(tid, "stat", 512);
    size_t name_end = stat.rfind(") ");
    return name_end == stat.npos || name_end + 2 == stat.size() || strchr("ZXx", stat[name_end + 2]);
}
