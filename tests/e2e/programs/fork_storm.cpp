// fork_storm COUNT: starts COUNT children, sixteen at a time, and waits for all of them.
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    long count = argc > 1 ? strtol(argv[1], nullptr, 10) : 0;
    constexpr int at_once = 16;
    int running = 0;
    int failed = 0;
    for (long i = 0; i < count || running > 0;) {
        if (i < count && running < at_once) {
            pid_t pid = fork();
            if (pid == 0) {
                _exit(0);
            }
            failed += pid < 0;
            running += pid > 0;
            i++;
            continue;
        }
        int status = 0;
        failed += wait(&status) < 0 || status != 0;
        running--;
    }
    return failed == 0 ? 0 : 1;
}
