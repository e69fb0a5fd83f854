// exec_chain COUNT: executes itself COUNT times, and then exits with status 5.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
    long count = argc > 1 ? strtol(argv[1], nullptr, 10) : 0;
    if (count == 0) {
        return 5;
    }
    char next[32];
    snprintf(next, sizeof next, "%ld", count - 1);
    execl(argv[0], argv[0], next, static_cast<char*>(nullptr));
    return 1;
}
