#include "tools/files/files.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "common/replace_file.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void write_all(int fd, const std::string& name, std::string_view text) {
    while (!text.empty()) {
        ssize_t written = write(fd, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR) {
            fail(name);
        }
    }
}

struct stat status_of(int fd, const std::string& name) {
    struct stat status = {};
    if (fstat(fd, &status) < 0) {
        fail(name);
    }
    return status;
}

// True if both are the same file, perhaps under different names.
bool is_same_file(const struct stat& one, const struct stat& other) {
    return S_ISREG(one.st_mode) && one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

void refuse_same_file(const files_input& input, const struct stat& output) {
    if (is_same_file(status_of(files_descriptor(input), input.name), output)) {
        throw std::runtime_error("the output would overwrite the " + input.kind);
    }
}

// Returns the permissions of the existing file, or those of a new one.
mode_t mode_for(const struct stat* existing) {
    if (existing) {
        return existing->st_mode & 0777;
    }
    mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

files_input files_open(const std::string& name, const std::string& kind) {
    files_input input = {name, kind, {}};
    if (name != "-") {
        input.file = unique_fd(open(name.c_str(), O_RDONLY | O_CLOEXEC));
        if (!input.file) {
            fail(name);
        }
    }
    return input;
}

int files_descriptor(const files_input& input) {
    return input.file ? input.file.get() : STDIN_FILENO;
}

size_t files_read(const files_input& input, std::span<char> to) {
    for (;;) {
        ssize_t got = read(files_descriptor(input), to.data(), to.size());
        if (got >= 0) {
            return static_cast<size_t>(got);
        }
        if (errno != EINTR) {
            fail(input.name);
        }
    }
}

void files_write_standard_output(const files_input& input,
                                 const std::function<void(const files_sink&)>& produce) {
    const std::string name = "standard output";
    refuse_same_file(input, status_of(STDOUT_FILENO, name));
    produce([&name](std::string_view text) { write_all(STDOUT_FILENO, name, text); });
}

void files_write(const std::string& path, const files_input& input,
                 const std::function<void(const files_sink&)>& produce) {
    struct stat existing = {};
    bool exists = stat(path.c_str(), &existing) == 0;
    if (exists && !S_ISREG(existing.st_mode)) {
        unique_fd to(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (!to) {
            fail(path);
        }
        produce([&](std::string_view text) { write_all(to.get(), path, text); });
        return;
    }
    if (exists) {
        refuse_same_file(input, existing);
    }
    std::string whole;
    produce([&whole](std::string_view text) { whole.append(text); });
    unique_malloc<char> real(exists ? realpath(path.c_str(), nullptr) : nullptr);
    if (replace_file(real ? real.get() : path.c_str(), whole, mode_for(exists ? &existing : nullptr)) < 0) {
        fail(path);
    }
}
