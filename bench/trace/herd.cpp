// bench_trace_herd PROCESSES READS TRACER [ARGUMENT...]: starts processes that each read one byte READS
// times, runs the tracer with "-p PID" for each of them, lets them begin when all are traced, and waits for
// the tracer.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

[[noreturn]] void read_when_told(int start_fd, long count) {
    char byte;
    int fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    (void)!read(start_fd, &byte, 1);  // returns when the pipe is closed
    while (count-- > 0) {
        if (read(fd, &byte, 1) != 1) {
            _exit(1);
        }
    }
    _exit(0);
}

bool is_traced(pid_t pid) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/status", pid);
    FILE* file = fopen(path, "re");
    char line[256];
    int tracer = 0;
    while (file && fgets(line, sizeof line, file)) {
        (void)sscanf(line, "TracerPid: %d", &tracer);
    }
    if (file) {
        fclose(file);
    }
    return tracer != 0;
}

pid_t start_tracer(char** words, const std::vector<pid_t>& pids) {
    std::vector<std::string> text;
    for (char** word = words; *word; word++) {
        text.emplace_back(*word);
    }
    for (pid_t pid : pids) {
        text.emplace_back("-p");
        text.push_back(std::to_string(pid));
    }
    std::vector<char*> argv;
    for (std::string& word : text) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t tracer = fork();
    if (tracer == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    return tracer;
}

}  // namespace

int main(int argc, char** argv) {
    int ends[2];
    if (argc < 4 || pipe2(ends, O_CLOEXEC) < 0) {
        return 2;
    }
    std::vector<pid_t> pids;
    for (long i = strtol(argv[1], nullptr, 10); i > 0; i--) {
        pids.push_back(fork());
        if (pids.back() == 0) {
            close(ends[1]);
            read_when_told(ends[0], strtol(argv[2], nullptr, 10));
        }
    }
    pid_t tracer = start_tracer(argv + 3, pids);
    for (pid_t pid : pids) {
        while (!is_traced(pid)) {
            usleep(200);
        }
    }
    usleep(20000);  // the last one is attached; both tracers get the same time to resume it
    close(ends[1]);
    int status = 0;
    for (pid_t pid : pids) {
        waitpid(pid, &status, 0);
    }
    waitpid(tracer, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
