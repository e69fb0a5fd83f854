#include "proc/ps_stream.h"

#include <unistd.h>

#include "common/sys_run.h"

void stream_ps(int fd) {
    char program[] = "/bin/ps";
    char* const argv[] = {program, nullptr};
    (void)sys_run(program, argv, STDIN_FILENO, fd, fd, 0);
}
