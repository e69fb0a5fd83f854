// bench_turns: runs commands in turn and prints the cost of each run.
//
// usage: bench_turns [-i FILE] [-p] ROUNDS -- COMMAND [ARGUMENT...] -- COMMAND [ARGUMENT...]...
//
// One round runs each command once, in the order given. A run is a fresh process (vfork and exec) with FILE
// or /dev/null as standard input. Its standard output is /dev/null or, with -p, a pipe that is read to its
// end. For each run, one line is printed: the command's number from 0, wall time in ns, user time in us,
// system time in us, bytes read from the pipe, exit status (128 + N after signal N). Wall time begins before
// the process is started and ends when the pipe is at its end and the process has been reaped.
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string_view>
#include <vector>

namespace {

struct turns_options {
    const char* input = "/dev/null";
    bool pipe_output = false;
    int rounds = 0;
    std::vector<char**> commands;  // each ends with null
};

struct turn_cost {
    int64_t wall_ns;
    int64_t user_us;
    int64_t system_us;
    uint64_t output_bytes;
    int status;
};

[[noreturn]] void give_up(const char* what) {
    perror(what);
    exit(1);
}

[[noreturn]] void show_usage() {
    fputs("usage: bench_turns [-i FILE] [-p] ROUNDS -- COMMAND [ARGUMENT...] -- ...\n", stderr);
    exit(2);
}

// Splits argv at each "--". The words before the first one are the caller's options.
std::vector<char**> split_commands(int argc, char** argv) {
    std::vector<char**> commands;
    for (int i = 1; i < argc; i++) {
        if (std::string_view(argv[i]) == "--") {
            argv[i] = nullptr;
            commands.push_back(argv + i + 1);
        }
    }
    return commands;
}

turns_options parse(int argc, char** argv) {
    turns_options options;
    options.commands = split_commands(argc, argv);
    char** word = argv + 1;
    for (; *word && (*word)[0] == '-'; word++) {
        if (strcmp(*word, "-p") == 0) {
            options.pipe_output = true;
        } else if (strcmp(*word, "-i") == 0 && word[1]) {
            options.input = *++word;
        } else {
            show_usage();
        }
    }
    options.rounds = *word ? atoi(*word) : 0;
    if (options.rounds < 1 || options.commands.empty()) {
        show_usage();
    }
    for (char** command : options.commands) {
        if (!*command) {
            show_usage();
        }
    }
    return options;
}

int64_t now_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int64_t microseconds(const timeval& time) {
    return static_cast<int64_t>(time.tv_sec) * 1000000 + time.tv_usec;
}

uint64_t drain(int fd) {
    static char buffer[1 << 16];
    uint64_t total = 0;
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
        total += static_cast<uint64_t>(got);
    }
    return total;
}

pid_t start(char** command, int input, int output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t pid;
    errno = posix_spawnp(&pid, command[0], &actions, nullptr, command, environ);
    if (errno != 0) {
        give_up(command[0]);
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

turn_cost run_once(const turns_options& options, char** command) {
    int input = open(options.input, O_RDONLY | O_CLOEXEC);
    if (input < 0) {
        give_up(options.input);
    }
    int ends[2] = {-1, -1};
    if (options.pipe_output ? pipe2(ends, O_CLOEXEC) < 0
                            : (ends[1] = open("/dev/null", O_WRONLY | O_CLOEXEC)) < 0) {
        give_up("output");
    }
    turn_cost cost = {};
    int64_t begin = now_ns();
    pid_t pid = start(command, input, ends[1]);
    close(ends[1]);
    cost.output_bytes = options.pipe_output ? drain(ends[0]) : 0;
    int status;
    rusage usage;
    if (wait4(pid, &status, 0, &usage) != pid) {
        give_up("wait4");
    }
    cost.wall_ns = now_ns() - begin;
    close(ends[0]);
    close(input);
    cost.user_us = microseconds(usage.ru_utime);
    cost.system_us = microseconds(usage.ru_stime);
    cost.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return cost;
}

}  // namespace

int main(int argc, char** argv) {
    turns_options options = parse(argc, argv);
    for (int round = 0; round < options.rounds; round++) {
        for (size_t i = 0; i < options.commands.size(); i++) {
            turn_cost cost = run_once(options, options.commands[i]);
            printf("%zu %lld %lld %lld %llu %d\n", i, static_cast<long long>(cost.wall_ns),
                   static_cast<long long>(cost.user_us), static_cast<long long>(cost.system_us),
                   static_cast<unsigned long long>(cost.output_bytes), cost.status);
        }
    }
    return 0;
}
