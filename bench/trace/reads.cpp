// bench_trace_reads COUNT: reads one byte at a time.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
    long count = argc > 1 ? strtol(argv[1], nullptr, 10) : 0;
    int fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    for (long i = 0; i < count; i++) {
        char byte;
        if (read(fd, &byte, 1) != 1) {
            return 1;
        }
    }
    return 0;
}
