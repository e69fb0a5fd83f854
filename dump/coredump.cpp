#include "dump/coredump.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>

#include "common/fd_range.h"
#include "common/proc_path.h"
#include "common/safe_io.h"
#include "common/shared_object.h"
#include "common/sys_run.h"
#include "dump/dumper.h"

namespace {

// The result of a dump.
struct core_outcome {
    int64_t copied = 0;     // bytes; -1: the browser is gone
    bool is_good = false;   // the dumper exited with 0
    char reason[256] = "";  // the beginning of the dumper's messages as one line, or why there are none
};

bool write_to_browser(void* cookie, const void* data, size_t length) {
    return safe_write(*static_cast<const int*>(cookie), data, static_cast<unsigned>(length)) >= 0;
}

void read_reason(const dump_run& run, core_outcome* outcome) {
    char(&text)[sizeof outcome->reason] = outcome->reason;
    ssize_t length = run.messages ? pread(run.messages.get(), text, sizeof text - 1, 0) : 0;
    length = std::max<ssize_t>(length, 0);
    while (length > 0 && text[length - 1] == '\n') {
        length--;
    }
    text[length] = '\0';
    std::replace_if(
        text, text + length, [](unsigned char c) { return c < ' '; }, ' ');
    if (length == 0) {
        snprintf(text, sizeof text, "%s",
                 run.child < 0 ? "the dumper was not started" : "no message from the dumper");
    }
}

void stream_core(int fd, pid_t pid, core_outcome* outcome) {
    dump_run run;
    if (!dump_start(pid, &run)) {
        snprintf(outcome->reason, sizeof outcome->reason, "%s", strerror(errno));
        return;
    }
    outcome->copied = dump_copy_core(&run, {write_to_browser, &fd});
    dump_keep(&run);
    read_reason(run, outcome);
    outcome->is_good = dump_end(&run);
    if (!outcome->is_good) {
        fprintf(stderr, "dump error for pid %d\n", static_cast<int>(pid));
    }
}

bool is_own_thread(pid_t pid) {
    return faccessat(AT_FDCWD, proc_path(pid, "", "/proc/self/task").text, F_OK, 0) == 0;
}

// The dumper may stop this process until it has written the whole core. If this process read the core itself,
// each would wait for the other, so a child reads it.
void stream_own_core(int fd, pid_t pid, core_outcome* outcome) {
    shared_object<core_outcome> shared;
    fflush(stdout);
    pid_t child = shared ? fork() : -1;
    if (child < 0) {
        snprintf(outcome->reason, sizeof outcome->reason, "%s", strerror(errno));
        perror("fork");
        return;
    }
    if (child == 0) {
        constexpr int browser_fd = STDERR_FILENO + 1;
        dup2(fd, browser_fd);
        fcntl(browser_fd, F_SETFD, FD_CLOEXEC);
        fd_range_close_from(browser_fd + 1);
        dump_init();
        stream_core(browser_fd, pid, shared.get());
        _exit(0);
    }
    int status;
    (void)sys_wait_end(child, &status, 0);
    *outcome = *shared.get();
}

void log_failure(pid_t pid, const core_outcome& outcome) {
    if (outcome.copied == 0) {
        syslog(LOG_ERR, "No core of pid %d: %s", static_cast<int>(pid), outcome.reason);
    } else if (outcome.copied > 0 && !outcome.is_good) {
        syslog(LOG_ERR, "Core of pid %d is not complete: %s", static_cast<int>(pid), outcome.reason);
    }
}

}  // namespace

void coredump(int fd, int pid) {
    core_outcome outcome;
    (is_own_thread(pid) ? stream_own_core : stream_core)(fd, pid, &outcome);
    log_failure(pid, outcome);
}
