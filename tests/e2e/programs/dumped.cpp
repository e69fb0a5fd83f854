// A process to be dumped; the tests build it themselves, for this machine and for the board.
//
// usage: dumped KIND [NUMBER]; says what there is to know in one line, then goes on until its input ends.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

// What the debugger is asked for.
extern "C" {
volatile int known_global = 0x1234567;
volatile double known_double = 2.5;
std::atomic<int> parked;

__attribute__((noinline)) void parked_inner(volatile int* depth) {
    parked++;
    for (*depth = *depth + 1;;) {
        pause();
    }
}
__attribute__((noinline)) void parked_outer() {
    volatile int depth = 41;
    parked_inner(&depth);
    depth = 0;
}
__attribute__((noinline)) void main_waits() {
    char byte;
    while (read(STDIN_FILENO, &byte, 1) == 1) {
    }
}
}

namespace {

const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));

void tell_and_wait(const char* text) {
    puts(text);
    fflush(stdout);
    main_waits();
}

unsigned char* map(size_t length, int flags = MAP_PRIVATE | MAP_ANONYMOUS, int fd = -1) {
    void* memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, flags, fd, 0);
    if (memory == MAP_FAILED) {
        perror("mmap");
        exit(1);
    }
    return static_cast<unsigned char*>(memory);
}

void with_threads(long count) {
    for (long i = 0; i < count; i++) {
        std::thread(parked_outer).detach();
    }
    while (parked < count) {
        sched_yield();
    }
    tell_and_wait("ready");
}

// Reserves NUMBER MB, of which every 1/1280 has one page.
void sparse(long megabytes) {
    size_t length = static_cast<size_t>(megabytes) << 20;
    unsigned char* memory = map(length, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE);
    for (size_t i = 0; i < 1280; i++) {
        memset(memory + length / 1280 / page * page * i, static_cast<int>(i % 255 + 1), page);
    }
    char line[64];
    snprintf(line, sizeof line, "%lx", reinterpret_cast<unsigned long>(memory));
    tell_and_wait(line);
}

// 60,000 mappings, and every second page of one of 30,000: more segments than an ELF header can count.
void many() {
    unsigned char *mappings = map(60000 * page), *scattered = map(30000 * page);
    madvise(scattered, 30000 * page, MADV_NOHUGEPAGE);
    for (size_t i = 0; i < 30000; i++) {
        mprotect(mappings + 2 * i * page, page, PROT_READ);
    }
    for (size_t i = 0; i < 30000; i += 2) {
        scattered[i * page] = static_cast<unsigned char>(i / 2);
    }
    char line[64];
    snprintf(line, sizeof line, "%lx", reinterpret_cast<unsigned long>(scattered));
    tell_and_wait(line);
}

// NUMBER MB with its own content.
void full(long megabytes) {
    size_t length = static_cast<size_t>(megabytes) << 20;
    unsigned char* memory = map(length);
    for (size_t i = 0; i < length; i++) {
        memory[i] = static_cast<unsigned char>(i / page + i);
    }
    char line[64];
    snprintf(line, sizeof line, "%lx", reinterpret_cast<unsigned long>(memory));
    tell_and_wait(line);
}

// Two pages of each kind: left out by request; out of the process's own reach; shared, written by a child;
// of a file that is no longer as long; of a file, the first of them written to.
void kinds() {
    char name[] = "/tmp/dumpedXXXXXX";
    int file = mkstemp(name);
    unlink(name);
    if (ftruncate(file, static_cast<off_t>(2 * page)) != 0) {
        exit(1);
    }
    unsigned char *secret = map(2 * page), *closed = map(2 * page);
    unsigned char* shared = map(2 * page, MAP_SHARED | MAP_ANONYMOUS);
    unsigned char* cut = map(2 * page, MAP_PRIVATE, file);
    unsigned char* written = map(2 * page, MAP_PRIVATE, open("/proc/self/exe", O_RDONLY));
    memset(secret, 's', 2 * page);
    memset(closed, 'c', 2 * page);
    memset(cut, 'x', page);
    written[0] = 'w';
    madvise(secret, 2 * page, MADV_DONTDUMP);
    mprotect(closed, 2 * page, PROT_NONE);
    pid_t child = fork();
    if (child == 0) {
        memset(shared, 'S', page);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    if (ftruncate(file, static_cast<off_t>(page)) != 0) {
        exit(1);
    }
    char line[128];
    snprintf(line, sizeof line, "%p %p %p %p %p", static_cast<void*>(secret), static_cast<void*>(closed),
             static_cast<void*>(shared), static_cast<void*>(cut), static_cast<void*>(written));
    tell_and_wait(line);
}

// Counts as fast as it can in one word of each of its NUMBER MB's pages, the first first.
void counts(long megabytes) {
    size_t pages = (static_cast<size_t>(megabytes) << 20) / page;
    unsigned char* memory = map(pages * page);
    for (uint32_t number = 1;; number++) {
        for (size_t i = 0; i < pages; i++) {
            memcpy(memory + i * page, &number, sizeof number);
        }
        if (number == 1) {
            printf("%lx\n", reinterpret_cast<unsigned long>(memory));
            fflush(stdout);
        }
    }
}

// Threads come and go.
void churns() {
    puts("ready");
    fflush(stdout);
    for (;;) {
        std::thread([] { sched_yield(); }).join();
    }
}

void* outlives(void*) {
    parked_outer();
    return nullptr;
}
void first_ends() {
    pthread_t thread;
    pthread_create(&thread, nullptr, outlives, nullptr);
    while (parked < 1) {
        sched_yield();
    }
    puts("ready");
    fflush(stdout);
    pthread_exit(nullptr);
}

// The child holds its parent up until the input ends.
void vforks() {
    pid_t child = vfork();
    if (child == 0) {
        char byte;
        (void)!write(STDOUT_FILENO, "ready\n", 6);
        while (read(STDIN_FILENO, &byte, 1) == 1) {
        }
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    puts("went on");
}

// One signal waits, as it is blocked.
void has_pending() {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    kill(getpid(), SIGUSR2);
    tell_and_wait("ready");
    siginfo_t info;
    printf("%s\n",
           sigwaitinfo(&blocked, &info) == SIGUSR2 && info.si_pid == getpid() ? "still there" : "lost");
}

// Calls that wait, and what they say in the end. What wakes them is a byte of input or, where there is no
// way, time: more than a machine that is short of it takes for the dumps.
int waits_epoll() {
    int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event = {};
    event.events = EPOLLIN;
    epoll_ctl(epoll, EPOLL_CTL_ADD, STDIN_FILENO, &event);
    return epoll_wait(epoll, &event, 1, -1);
}
int waits_poll() {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    return poll(&input, 1, 60000);
}
int waits_read() {
    char byte;
    return static_cast<int>(read(STDIN_FILENO, &byte, 1));
}
int waits_sleep() {
    timespec time = {5, 0};
    return nanosleep(&time, nullptr) == 0 ? 1 : -1;
}
// Runs `wake` on a thread of its own as soon as there is a byte of input.
template <typename wake_call>
void on_input(wake_call wake) {
    std::thread([wake] {
        char byte;
        if (read(STDIN_FILENO, &byte, 1) == 1) {
            wake();
        }
    }).detach();
}
int waits_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    on_input([] { kill(getpid(), SIGUSR2); });
    timespec time = {60, 0};
    return sigtimedwait(&set, nullptr, &time) == SIGUSR2 ? 1 : -1;
}
int waits_receive() {
    int pair[2];
    char byte;
    socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
    timeval time = {60, 0};
    setsockopt(pair[0], SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    on_input([other = pair[1]] { (void)!write(other, "x", 1); });
    return static_cast<int>(recv(pair[0], &byte, 1, 0));
}
int waits_semaphore() {
    int set = semget(IPC_PRIVATE, 1, 0600);
    sembuf take = {0, -1, 0};
    on_input([set] {
        sembuf give = {0, 1, 0};
        semop(set, &give, 1);
    });
    int result = semop(set, &take, 1) == 0 ? 1 : -1;
    int error = errno;
    semctl(set, 0, IPC_RMID);
    errno = error;
    return result;
}

constexpr struct {
    const char* name;
    int (*wait)();
} waits[] = {
    {"epoll", waits_epoll},         {"poll", waits_poll},     {"read", waits_read},
    {"sleep", waits_sleep},         {"signal", waits_signal}, {"receive", waits_receive},
    {"semaphore", waits_semaphore},
};

constexpr struct {
    const char* name;
    void (*run)(long number);
} kinds_of_process[] = {
    {"threads", with_threads},          {"sparse", sparse},
    {"many", [](long) { many(); }},     {"full", full},
    {"kinds", [](long) { kinds(); }},   {"counts", counts},
    {"churns", [](long) { churns(); }}, {"first_ends", [](long) { first_ends(); }},
    {"vforks", [](long) { vforks(); }}, {"pending", [](long) { has_pending(); }},
};

}  // namespace

int main(int argc, char** argv) {
    const char* wanted = argc > 1 ? argv[1] : "";
    long number = argc > 2 ? strtol(argv[2], nullptr, 10) : 0;
    for (const auto& each : kinds_of_process) {
        if (strcmp(wanted, each.name) == 0) {
            each.run(number);
            return 0;
        }
    }
    for (const auto& each : waits) {
        if (strcmp(wanted, each.name) == 0) {
            puts("ready");
            fflush(stdout);
            int result = each.wait();
            printf("%d %d\n", result, result < 0 ? errno : 0);
            return 0;
        }
    }
    return 2;
}
