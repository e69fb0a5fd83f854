// A process to be dumped. The tests compile it themselves, for this machine and for the board.
//
// usage: dumped KIND [NUMBER]; prints one line that describes the process, and runs until its input ends.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
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
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#if __has_include(<linux/io_uring.h>)
#include <linux/io_uring.h>
#endif

// The tests ask the debugger for these.
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

void print_and_wait(const char* text) {
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
    print_and_wait("ready");
}

// Reserves NUMBER MB, and touches 1280 pages at equal distances.
void sparse(long megabytes) {
    size_t length = static_cast<size_t>(megabytes) << 20;
    unsigned char* memory = map(length, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE);
    for (size_t i = 0; i < 1280; i++) {
        memset(memory + length / 1280 / page * page * i, static_cast<int>(i % 255 + 1), page);
    }
    char line[64];
    snprintf(line, sizeof line, "%lx", reinterpret_cast<unsigned long>(memory));
    print_and_wait(line);
}

// Makes 60,000 mappings, and touches every second page of 30,000: more segments than an ELF header can count.
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
    print_and_wait(line);
}

// Fills NUMBER MB.
void full(long megabytes) {
    size_t length = static_cast<size_t>(megabytes) << 20;
    unsigned char* memory = map(length);
    for (size_t i = 0; i < length; i++) {
        memory[i] = static_cast<unsigned char>(i / page + i);
    }
    char line[64];
    snprintf(line, sizeof line, "%lx", reinterpret_cast<unsigned long>(memory));
    print_and_wait(line);
}

// Maps two pages of each kind: MADV_DONTDUMP; PROT_NONE; shared, written by a child; of a file that has been
// truncated; of a file, with the first page written to; shared, of a file with a name.
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
    char name_of_shared[] = "/tmp/dumpedXXXXXX";
    int with_name = mkstemp(name_of_shared);
    if (ftruncate(with_name, static_cast<off_t>(2 * page)) != 0) {
        exit(1);
    }
    unsigned char* of_file = map(2 * page, MAP_SHARED, with_name);
    memset(of_file, 'f', 2 * page);
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
    snprintf(line, sizeof line, "%p %p %p %p %p %p", static_cast<void*>(secret), static_cast<void*>(closed),
             static_cast<void*>(shared), static_cast<void*>(cut), static_cast<void*>(written),
             static_cast<void*>(of_file));
    print_and_wait(line);
    unlink(name_of_shared);
}

// Fills huge pages: a private and a shared reserved one, or (nil) if none are reserved, and a transparent
// one.
unsigned char* huge_page(int flags, int content) {
    constexpr size_t length = 2 << 20;
    void* memory = mmap(nullptr, 2 * length, PROT_READ | PROT_WRITE, flags | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto aligned = (reinterpret_cast<uintptr_t>(memory) + length - 1) / length * length;
    auto* start = static_cast<unsigned char*>(memory) + (aligned - reinterpret_cast<uintptr_t>(memory));
    madvise(start, length, MADV_HUGEPAGE);
    memset(start, content, page);
    memset(start + length - page, content, page);
    return start;
}
void huge() {
    char line[128];
    snprintf(line, sizeof line, "%p %p %p", static_cast<void*>(huge_page(MAP_PRIVATE | MAP_HUGETLB, 'p')),
             static_cast<void*>(huge_page(MAP_SHARED | MAP_HUGETLB, 's')),
             static_cast<void*>(huge_page(MAP_PRIVATE, 't')));
    print_and_wait(line);
}

// Increments one word in each page of NUMBER MB in turn, as fast as it can.
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

// Starts threads, which end at once.
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

// vfork: the child delays its parent until the input ends.
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

// Each image starts NUMBER threads, and any one of them executes the program again, until the input ends.
void* run_again(void* number) {
    execl("/proc/self/exe", "dumped", "execs", static_cast<char*>(number), "again",
          static_cast<char*>(nullptr));
    _exit(1);
}
void execs(char* number, bool is_first) {
    pollfd input = {STDIN_FILENO, 0, 0};
    if (poll(&input, 1, 0) > 0) {
        _exit(0);
    }
    if (is_first) {
        puts("ready");
        fflush(stdout);
    }
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    long count = strtol(number, nullptr, 10);
    long chosen = now.tv_nsec / 64 % (count + 1);
    for (long i = 0; i < count; i++) {
        pthread_t thread;
        // No thread can be started during the exec of another thread, which also ends this one.
        pthread_create(&thread, nullptr, i == chosen ? run_again : outlives, number);
    }
    if (chosen == count) {
        run_again(number);
    }
    main_waits();
    pause();
}

// Has a blocked, pending signal.
void has_pending() {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    kill(getpid(), SIGUSR2);
    print_and_wait("ready");
    siginfo_t info;
    printf("%s\n",
           sigwaitinfo(&blocked, &info) == SIGUSR2 && info.si_pid == getpid() ? "still there" : "lost");
}

// Fills NUMBER MB, and counts the signals that it handles.
volatile sig_atomic_t usual_signals, queued_signals;
void count_usual(int) {
    usual_signals = usual_signals + 1;
}
void count_queued(int) {
    queued_signals = queued_signals + 1;
}
void counts_signals(long megabytes) {
    struct sigaction action = {};
    action.sa_flags = SA_RESTART;
    action.sa_handler = count_usual;
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = count_queued;
    sigaction(SIGRTMIN, &action, nullptr);
    memset(map(static_cast<size_t>(megabytes) << 20), 'm', static_cast<size_t>(megabytes) << 20);
    print_and_wait("ready");
    printf("%d %d\n", static_cast<int>(usual_signals), static_cast<int>(queued_signals));
}

// Executes itself when there is a byte of input, while other threads are waiting.
void execs_when_told(long count) {
    for (long i = 0; i < count; i++) {
        std::thread(parked_outer).detach();
    }
    puts("ready");
    fflush(stdout);
    char byte;
    if (read(STDIN_FILENO, &byte, 1) == 1) {
        execl("/proc/self/exe", "dumped", "read", static_cast<char*>(nullptr));
    }
}

// Has known values in the floating-point and vector registers during a blocking call. Byte I of vector
// register N is N * 7 + I + 1; floating-point register N is N + 0.5.
#if defined(__x86_64__)
void has_registers() {
    alignas(64) static unsigned char rows[17][64];
    static double floats[8];
    for (unsigned row = 0; row < 17; row++) {
        for (unsigned i = 0; i < 64; i++) {
            rows[row][i] = static_cast<unsigned char>(row * 7 + i + 1);
        }
    }
    for (int i = 0; i < 8; i++) {
        floats[i] = i + 0.5;
    }
    int level = __builtin_cpu_supports("avx512f") ? 2 : __builtin_cpu_supports("avx") ? 1 : 0;
    puts(level == 2 ? "avx512" : level == 1 ? "avx" : "sse");
    fflush(stdout);
    static char byte;
    long result = SYS_read;
    asm volatile(
        "finit\n"
        ".irp n, 7,6,5,4,3,2,1,0\n fldl 8*\\n(%[floats])\n .endr\n"
        "cmp $1, %[level]\n jb 10f\n je 11f\n"
        ".irp n, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16\n vmovups 64*\\n(%[rows]), %%zmm\\n\n .endr\n"
        "mov $0x1234, %%ecx\n kmovw %%ecx, %%k1\n jmp 12f\n"
        "11: .irp n, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15\n vmovups 64*\\n(%[rows]), %%ymm\\n\n .endr\n"
        "jmp 12f\n"
        "10: .irp n, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15\n movups 64*\\n(%[rows]), %%xmm\\n\n .endr\n"
        "12: syscall\n finit\n"
        : "+a"(result)
        : "D"(0L), "S"(&byte), "d"(1L), [rows] "r"(rows), [floats] "r"(floats), [level] "r"(level)
        : "rcx", "r11", "memory", "cc", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7",
          "xmm8", "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
}
#else
void has_registers() {
    static double floats[16];
    for (int i = 0; i < 16; i++) {
        floats[i] = 2 * i + 0.5;
    }
    puts("fpu");
    fflush(stdout);
    static char byte;
    asm volatile(
        ".irp n, 0,2,4,6,8,10,12,14,16,18,20,22,24,26,28,30\n ldc1 $f\\n, 4*\\n(%[floats])\n .endr\n"
        "li $4, 0\n move $5, %[byte]\n li $6, 1\n li $2, %[number]\n syscall\n"
        :
        : [floats] "r"(floats), [byte] "r"(&byte), [number] "i"(SYS_read)
        : "$2", "$3", "$4", "$5", "$6", "$7", "$8", "$9", "$10", "$11", "$12", "$13", "$14", "$15", "$24",
          "$25", "memory", "$f0", "$f2", "$f4", "$f6", "$f8", "$f10", "$f12", "$f14", "$f16", "$f18", "$f20",
          "$f22", "$f24", "$f26", "$f28", "$f30");
}
#endif

// Blocking calls, whose results are printed at the end. A byte of input wakes them. Calls that it
// cannot wake time out, but not before the dumps have ended on a busy machine.
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
// Calls `wake` on a thread of its own when there is a byte of input.
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

// Two ends of a connection with small buffers.
void connect_pair(int (&pair)[2]) {
    int listener = socket(AF_INET, SOCK_STREAM, 0), small = 4096;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* where = reinterpret_cast<sockaddr*>(&address);
    pair[0] = socket(AF_INET, SOCK_STREAM, 0);
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    bind(listener, where, length);
    listen(listener, 1);
    getsockname(listener, where, &length);
    connect(pair[0], where, length);
    pair[1] = accept(listener, nullptr, nullptr);
}

// A socket with a timeout, which stays full until there is a byte of input. It counts as full when it has
// been full for a while, because at first the kernel moves data from one of its two buffers to the other.
int full_socket() {
    int pair[2];
    connect_pair(pair);
    timeval time = {60, 0};
    setsockopt(pair[0], SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
    char block[4096] = {};
    for (int full = 0; full < 10; full++) {
        while (send(pair[0], block, sizeof block, MSG_DONTWAIT) > 0 ||
               send(pair[0], block, 1, MSG_DONTWAIT) > 0) {
            full = 0;
        }
        // By the wall clock: beside many other processes, one that yields gets hardly any processor time.
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
        while (std::chrono::steady_clock::now() < end) {
            sched_yield();  // a sleep would look to the test like the blocking call
        }
    }
    on_input([other = pair[1]] {
        char taken[4096];
        while (read(other, taken, sizeof taken) > 0) {
        }
    });
    return pair[0];
}
int waits_send_many() {
    char byte = 'x';
    iovec piece = {&byte, 1};
    mmsghdr message = {};
    message.msg_hdr.msg_iov = &piece;
    message.msg_hdr.msg_iovlen = 1;
    return sendmmsg(full_socket(), &message, 1, 0);
}
int waits_send_file() {
    return static_cast<int>(sendfile(full_socket(), open("/proc/self/exe", O_RDONLY), nullptr, 1));
}
int waits_splice() {
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], "x", 1) != 1) {
        return -1;
    }
    return static_cast<int>(splice(ends[0], nullptr, full_socket(), nullptr, 1, 0));
}

#ifdef IORING_SETUP_CQSIZE
// Waits for a completion in an io_uring, which comes with a byte of input. Returns -2 if the kernel
// does not support io_uring.
int waits_uring() {
    io_uring_params params = {};
    int ring = static_cast<int>(syscall(SYS_io_uring_setup, 1, &params));
    if (ring < 0) {
        return -2;
    }
    on_input([=] {
        auto at = [ring](size_t length, off_t what) {
            return static_cast<unsigned char*>(
                mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, ring, what));
        };
        unsigned char* queue = at(params.sq_off.array + sizeof(unsigned), IORING_OFF_SQ_RING);
        at(sizeof(io_uring_sqe), IORING_OFF_SQES);  // all zeros: a request that does nothing
        unsigned one = 1;
        memcpy(queue + params.sq_off.tail, &one, sizeof one);
        syscall(SYS_io_uring_enter, ring, 1, 0, 0, nullptr, 0);
    });
    return syscall(SYS_io_uring_enter, ring, 0, 1, IORING_ENTER_GETEVENTS, nullptr, 0) == 0 ? 1 : -1;
}
#else
int waits_uring() {
    return -2;
}
#endif

constexpr struct {
    const char* name;
    int (*wait)();
} waits[] = {
    {"epoll", waits_epoll},         {"poll", waits_poll},           {"read", waits_read},
    {"sleep", waits_sleep},         {"signal", waits_signal},       {"receive", waits_receive},
    {"semaphore", waits_semaphore}, {"send_many", waits_send_many}, {"send_file", waits_send_file},
    {"splice", waits_splice},       {"uring", waits_uring},
};

constexpr struct {
    const char* name;
    void (*run)(long number);
} kinds_of_process[] = {
    {"threads", with_threads},           {"sparse", sparse},
    {"many", [](long) { many(); }},      {"full", full},
    {"kinds", [](long) { kinds(); }},    {"counts", counts},
    {"churns", [](long) { churns(); }},  {"first_ends", [](long) { first_ends(); }},
    {"vforks", [](long) { vforks(); }},  {"pending", [](long) { has_pending(); }},
    {"huge", [](long) { huge(); }},      {"signals", counts_signals},
    {"exec_when_told", execs_when_told}, {"registers", [](long) { has_registers(); }},
};

}  // namespace

int main(int argc, char** argv) {
    const char* wanted = argc > 1 ? argv[1] : "";
    long number = argc > 2 ? strtol(argv[2], nullptr, 10) : 0;
    if (strcmp(wanted, "execs") == 0 && argc > 2) {
        execs(argv[2], argc == 3);
        return 0;
    }
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
