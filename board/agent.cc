// The board's side of board.py: takes requests from a virtio serial port, one at a time, and answers each.
// The port carries nothing else, is 8-bit clean, and does not appear in packet captures.
//
//     board-agent DEVICE     serve until the other side closes the port, then switch the board off
//     board-agent clock      print the board's clock as seconds since 1970 (64 bits, unlike busybox's date)
//
// Both directions carry frames: a 32-bit kind, a 32-bit length, then that many bytes. All numbers are
// little-endian, like the board.
//
//     to the board    run    u32 limit in ms, command for sh -c
//                     put    u32 mode, u32 length of the path, path, bytes of the file
//                     clock  i64 seconds since 1970
//     from the board  ready  empty; sent once
//                     out    bytes from the command's standard output
//                     err    bytes from the command's standard error
//                     done   u32 result (finish), u32 exit status, signal number or errno

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

enum request : uint32_t { request_run = 1, request_put = 2, request_clock = 3 };
enum answer : uint32_t { answer_ready = 1, answer_out = 2, answer_err = 3, answer_done = 4 };
enum finish : uint32_t { finish_exited = 0, finish_signalled = 1, finish_out_of_time = 2, finish_failed = 3 };

constexpr int port_wait_ms = 10000;          // the port appears soon after its driver
constexpr size_t pipe_room = 65536;          // capacity of a pipe
constexpr uint32_t command_limit = 1 << 20;  // longest command or path accepted

struct frame {
    uint32_t kind;
    uint32_t length;
};

int port = -1;

// The other side is gone or sends garbage: ends the agent.
[[noreturn]] void switch_off() {
    sync();
    (void)reboot(RB_POWER_OFF);
    _exit(1);
}

void take(void* to, size_t length) {
    for (size_t have = 0; have < length;) {
        const ssize_t got = read(port, static_cast<char*>(to) + have, length - have);
        if (got > 0) {
            have += static_cast<size_t>(got);
        } else if (got == 0 || errno != EINTR) {
            switch_off();
        }
    }
}

uint32_t take_u32() {
    uint32_t number = 0;
    take(&number, sizeof number);
    return number;
}

// The caller frees it.
char* take_text(uint32_t length) {
    if (length > command_limit) {
        switch_off();
    }
    char* text = static_cast<char*>(malloc(length + 1));
    if (text == nullptr) {
        switch_off();
    }
    take(text, length);
    text[length] = '\0';
    return text;
}

void give(const void* from, size_t length) {
    for (size_t done = 0; done < length;) {
        const ssize_t put = write(port, static_cast<const char*>(from) + done, length - done);
        if (put > 0) {
            done += static_cast<size_t>(put);
        } else if (put == 0 || errno != EINTR) {
            switch_off();
        }
    }
}

void give_frame(uint32_t kind, const void* bytes, size_t length) {
    const frame head = {kind, static_cast<uint32_t>(length)};
    give(&head, sizeof head);
    give(bytes, length);
}

void give_done(finish what, int detail) {
    const uint32_t both[2] = {what, static_cast<uint32_t>(detail)};
    give_frame(answer_done, both, sizeof both);
}

int64_t now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Forwards at most one full pipe of output: a command that writes without end must not keep the time limit
// from being checked. False at the end of the pipe.
bool pass_on(int pipe, uint32_t kind) {
    static char bytes[16384];
    for (size_t passed = 0; passed < pipe_room; passed += sizeof bytes) {
        const ssize_t got = read(pipe, bytes, sizeof bytes);
        if (got == 0) {
            return false;
        }
        if (got < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        give_frame(kind, bytes, static_cast<size_t>(got));
    }
    return true;
}

[[noreturn]] void become(const char* command, int out, int err) {
    setsid();  // so that the time limit applies to everything that the command started
    const int in = open("/dev/null", O_RDONLY);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
}

struct child {
    pid_t pid = -1;
    int watch = -1;  // readable once the process has ended
    int out = -1;
    int err = -1;
};

// 0, or an errno.
int start(const char* command, child& started) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        return errno;
    }
    started.pid = fork();
    if (started.pid == 0) {
        become(command, out[1], err[1]);
    }
    close(out[1]);
    close(err[1]);
    started.out = out[0];
    started.err = err[0];
    if (started.pid < 0) {
        return EAGAIN;
    }
    started.watch = static_cast<int>(syscall(SYS_pidfd_open, started.pid, 0));
    fcntl(started.out, F_SETFL, O_NONBLOCK);
    fcntl(started.err, F_SETFL, O_NONBLOCK);
    return 0;
}

// Forwards output until the command has ended, background processes aside. True if the limit came first.
bool follow(child& running, int64_t limit_ms) {
    const int64_t end = now_ms() + limit_ms;
    pollfd watched[3] = {{running.watch, POLLIN, 0}, {running.out, POLLIN, 0}, {running.err, POLLIN, 0}};
    for (;;) {
        const int64_t left = end - now_ms();
        if (left <= 0) {
            return true;
        }
        if (poll(watched, 3, static_cast<int>(left)) <= 0) {
            continue;
        }
        const bool ended = watched[0].revents != 0;
        if (!pass_on(running.out, answer_out)) {
            watched[1].fd = -1;
        }
        if (!pass_on(running.err, answer_err)) {
            watched[2].fd = -1;
        }
        if (ended) {
            return false;
        }
    }
}

void serve_run(uint32_t length) {
    const uint32_t limit_ms = take_u32();
    char* command = take_text(length - sizeof limit_ms);
    child running;
    if (const int error = start(command, running)) {
        give_done(finish_failed, error);
    } else {
        const bool late = follow(running, limit_ms);
        if (late) {
            kill(-running.pid, SIGKILL);
        }
        int status = 0;
        while (waitpid(running.pid, &status, 0) < 0 && errno == EINTR) {
        }
        (void)pass_on(running.out, answer_out);
        (void)pass_on(running.err, answer_err);
        if (late) {
            give_done(finish_out_of_time, 0);
        } else if (WIFSIGNALED(status)) {
            give_done(finish_signalled, WTERMSIG(status));
        } else {
            give_done(finish_exited, WEXITSTATUS(status));
        }
    }
    close(running.watch);
    close(running.out);
    close(running.err);
    free(command);
}

void make_parents(char* path) {
    for (char* slash = strchr(path + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        (void)mkdir(path, 0755);  // may exist already; open reports real failures
        *slash = '/';
    }
}

// 0, or an errno. Reads all bytes from the port in every case, to stay in step with the frames.
int put_bytes(int file, uint32_t length) {
    static char bytes[65536];
    int error = file < 0 ? errno : 0;
    while (length > 0) {
        const uint32_t now = length < sizeof bytes ? length : sizeof bytes;
        take(bytes, now);
        length -= now;
        for (uint32_t done = 0; error == 0 && done < now;) {
            const ssize_t put = write(file, bytes + done, now - done);
            if (put < 0) {
                error = errno;
            } else {
                done += static_cast<uint32_t>(put);
            }
        }
    }
    return error;
}

void serve_put(uint32_t length) {
    const uint32_t mode = take_u32();
    const uint32_t path_length = take_u32();
    char* path = take_text(path_length);
    make_parents(path);
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int error = put_bytes(file, length - 8 - path_length);
    // Files in /proc and /sys are written like any other, but keep their mode.
    if (file >= 0 && strncmp(path, "/proc/", 6) != 0 && strncmp(path, "/sys/", 5) != 0) {
        (void)fchmod(file, mode);
    }
    if (file >= 0 && close(file) != 0 && error == 0) {
        error = errno;
    }
    free(path);
    give_done(error == 0 ? finish_exited : finish_failed, error);
}

void serve_clock() {
    int64_t seconds = 0;
    take(&seconds, sizeof seconds);
    timespec when = {};
    when.tv_sec = seconds;
    const bool set = clock_settime(CLOCK_REALTIME, &when) == 0;
    give_done(set ? finish_exited : finish_failed, set ? 0 : errno);
}

[[noreturn]] void serve(const char* device) {
    for (int waited = 0; (port = open(device, O_RDWR | O_CLOEXEC)) < 0; waited += 10) {
        if (waited >= port_wait_ms) {
            fprintf(stderr, "board-agent: %s: %s\n", device, strerror(errno));
            _exit(1);
        }
        usleep(10000);
    }
    signal(SIGPIPE, SIG_DFL);
    give_frame(answer_ready, nullptr, 0);
    for (;;) {
        frame head;
        take(&head, sizeof head);
        switch (head.kind) {
            case request_run:
                serve_run(head.length);
                break;
            case request_put:
                serve_put(head.length);
                break;
            case request_clock:
                serve_clock();
                break;
            default:
                switch_off();
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "clock") == 0) {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        printf("%lld\n", static_cast<long long>(now.tv_sec));
        return 0;
    }
    if (argc == 2 && argv[1][0] == '/') {
        serve(argv[1]);
    }
    fprintf(stderr, "usage: board-agent DEVICE | clock\n");
    return 2;
}
