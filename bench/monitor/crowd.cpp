// bench_crowd: sleeping processes with many descriptors.
//
// usage: bench_crowd PROCESSES DESCRIPTORS
//
// Each process has DESCRIPTORS descriptors, a quarter of them sockets and a quarter pipes. Prints "ready"
// when all processes have them. At the end of standard input, it exits, and all of them with it.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int open_one(int number) {
    int ends[2];
    switch (number % 4) {
        case 0:
            return socket(AF_UNIX, SOCK_STREAM, 0);
        case 1:
            if (pipe(ends) != 0) {
                return -1;
            }
            close(ends[0]);
            return ends[1];
        default:
            return open("/dev/null", O_RDONLY);
    }
}

[[noreturn]] void hold(int descriptors, int ready) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char done = '.';
    for (int number = 0; number < 3; number++) {
        close(number);
    }
    for (int number = 0; number < descriptors; number++) {
        if (number != ready && open_one(number) < 0) {
            done = '!';
        }
    }
    (void)!write(ready, &done, 1);
    close(ready);
    (void)open_one(ready);
    for (;;) {
        pause();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fputs("usage: bench_crowd PROCESSES DESCRIPTORS\n", stderr);
        return 2;
    }
    const int processes = atoi(argv[1]);
    int ready[2];
    if (pipe(ready) != 0) {
        perror("pipe");
        return 1;
    }
    for (int i = 0; i < processes; i++) {
        pid_t pid = fork();
        if (pid < 0) {
            perror("fork");
            return 1;
        }
        if (pid == 0) {
            close(ready[0]);
            hold(atoi(argv[2]), ready[1]);
        }
    }
    for (int i = 0; i < processes; i++) {
        char done;
        if (read(ready[0], &done, 1) != 1 || done != '.') {
            fputs("bench_crowd: a process has too few descriptors\n", stderr);
            return 1;
        }
    }
    puts("ready");
    fflush(stdout);
    char ignored;
    while (read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    return 0;
}
