#include "tools/archiveview/facts/core_debugger.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "common/monotonic.h"
#include "tools/archiveview/facts/core_bytes.h"
#include "tools/archiveview/limits.h"

namespace archiveview {
namespace {

constexpr char name[] = "gdb-multiarch";
constexpr size_t frames_limit = 64;
constexpr rlim_t memory_limit = rlim_t{2} << 30;
constexpr int first_passed = 3;  // the descriptors after the standard ones

// Settings that come before anything is read.
constexpr std::string_view settings[] = {
    "set auto-load off",
    "set debuginfod enabled off",
    "set sysroot /dev/null",  // no file is taken by its name
    "set auto-solib-add off",
    "set pagination off",
    "set confirm off",
    "set width 0",
    "set style enabled off",
    "set print frame-arguments presence",
    "set print entry-values no",
    "set print address on",
    "set trust-readonly-sections on",
};

std::string passed_file(size_t index) {
    return "/proc/self/fd/" + std::to_string(static_cast<size_t>(first_passed) + index);
}

// The core is the first of the passed files, and the programs and libraries follow.
std::vector<std::string> command_line(const std::string& debugger, const std::vector<local_file>& files,
                                      const std::vector<std::string>& folders) {
    std::vector<std::string> words = {debugger, "-nx", "-nh", "-batch"};
    for (const std::string_view setting : settings) {
        words.insert(words.end(), {"-iex", std::string(setting)});
    }
    // Separate debug files are found by build id.
    std::string debug_folders;
    for (const std::string& folder : folders) {
        debug_folders += (debug_folders.empty() ? "" : ":") + folder + "/usr/lib/debug";
    }
    words.insert(words.end(), {"-iex", "set debug-file-directory " + debug_folders});
    words.insert(words.end(), {"-ex", "core-file " + passed_file(0)});
    for (size_t i = 0; i < files.size(); i++) {
        words.insert(words.end(),
                     {"-ex", "add-symbol-file " + passed_file(i + 1) + " -o " + hexadecimal(files[i].base)});
    }
    words.insert(words.end(), {"-ex", "thread apply all -s backtrace " + std::to_string(frames_limit)});
    return words;
}

void limit(int resource, rlim_t most) {
    const rlimit both = {most, most};
    setrlimit(resource, &both);
}

// Puts `fd` at `place`, which no other descriptor that is still needed has.
bool place_at(int fd, int place) {
    return dup2(fd, place) == place;
}

// In the child. All that allocates was done before.
[[noreturn]] void become(char* const* words, char* const* environment, const std::vector<int>& descriptors,
                         pid_t parent, int64_t limit_ms) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(1);
    }
    constexpr int64_t ms_per_s = 1000;
    limit(RLIMIT_CPU, static_cast<rlim_t>(limit_ms / ms_per_s + 1));
    limit(RLIMIT_AS, memory_limit);
    limit(RLIMIT_FSIZE, 0);
    limit(RLIMIT_CORE, 0);
    signal(SIGPIPE, SIG_DFL);
    sigset_t nothing;
    sigemptyset(&nothing);
    sigprocmask(SIG_SETMASK, &nothing, nullptr);
    for (size_t i = 0; i < descriptors.size(); i++) {
        if (!place_at(descriptors[i], static_cast<int>(i))) {
            _exit(1);
        }
    }
    close_range(static_cast<unsigned>(descriptors.size()), ~0u, 0);
    execve(words[0], words, environment);
    _exit(1);
}

// Copies of the descriptors above all places that they are put at, so that none is overwritten too early.
std::vector<unique_fd> copies_above(const std::vector<int>& descriptors) {
    std::vector<unique_fd> copies;
    copies.reserve(descriptors.size());
    for (const int fd : descriptors) {
        copies.emplace_back(fcntl(fd, F_DUPFD_CLOEXEC, static_cast<int>(descriptors.size())));
    }
    return copies;
}

std::vector<char*> pointers_to(std::vector<std::string>* words) {
    std::vector<char*> pointers;
    for (std::string& word : *words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

pid_t start(std::vector<std::string> words, const std::vector<int>& descriptors, int64_t limit_ms) {
    const std::vector<unique_fd> copies = copies_above(descriptors);
    std::vector<int> placed;
    for (const unique_fd& copy : copies) {
        if (!copy) {
            return -1;
        }
        placed.push_back(copy.get());
    }
    std::vector<std::string> variables = {"PATH=/usr/bin:/bin", "LC_ALL=C", "HOME=/nonexistent", "TERM=dumb"};
    const std::vector<char*> arguments = pointers_to(&words), environment = pointers_to(&variables);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        become(arguments.data(), environment.data(), placed, parent, limit_ms);
    }
    return child;
}

// Reads until the end, the time limit, or as much as is kept.
std::string read_text(int fd, int64_t until_ms) {
    std::string text;
    std::array<char, 65536> bytes;
    while (text.size() < stack_text_limit) {
        const int64_t left_ms = until_ms - monotonic_ms();
        pollfd ready = {fd, POLLIN, 0};
        if (left_ms <= 0 || poll(&ready, 1, static_cast<int>(left_ms)) <= 0) {
            break;
        }
        const ssize_t length = read(fd, bytes.data(), std::min(bytes.size(), stack_text_limit - text.size()));
        if (length <= 0) {
            break;
        }
        text.append(bytes.data(), static_cast<size_t>(length));
    }
    return text;
}

}  // namespace

std::string debugger_path() {
    const char* variable = getenv("PATH");
    std::string_view folders = variable ? variable : "";
    while (!folders.empty()) {
        const size_t length = std::min(folders.find(':'), folders.size());
        std::string path = std::string(folders.substr(0, length)) + "/" + name;
        if (path.starts_with('/') && access(path.c_str(), X_OK) == 0) {
            return path;
        }
        folders.remove_prefix(std::min(length + 1, folders.size()));
    }
    return {};
}

std::string debugger_stacks(const std::string& debugger, int core, const std::vector<local_file>& files,
                            const std::vector<std::string>& folders, int64_t limit_ms) {
    const int64_t until_ms = monotonic_ms() + limit_ms;
    unique_fd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    int ends[2];
    if (!nothing || pipe2(ends, O_CLOEXEC) != 0) {
        return {};
    }
    unique_fd reading(ends[0]), writing(ends[1]);
    std::vector<int> descriptors = {nothing.get(), writing.get(), nothing.get(), core};
    for (const local_file& file : files) {
        descriptors.push_back(file.file.get());
    }
    const pid_t child = start(command_line(debugger, files, folders), descriptors, limit_ms);
    writing.reset();
    if (child < 0) {
        return {};
    }
    std::string text = read_text(reading.get(), until_ms);
    // The child may not have made its group yet.
    kill(-child, SIGKILL);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return text;
}

}  // namespace archiveview
