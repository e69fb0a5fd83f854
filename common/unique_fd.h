// Owners, which release what they own at the end of their life.
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

// Owns a descriptor, or nothing if it is -1. Closing keeps errno.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd&& from) noexcept : fd_(from.release()) {}
    unique_fd& operator=(unique_fd&& from) noexcept {
        reset(from.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        int old = std::exchange(fd_, fd);
        if (old >= 0 && old != fd) {
            int saved = errno;
            close(old);
            errno = saved;
        }
    }

private:
    int fd_ = -1;
};

struct dir_closer {
    void operator()(DIR* dir) const { closedir(dir); }
};
using unique_dir = std::unique_ptr<DIR, dir_closer>;

struct file_closer {
    void operator()(FILE* file) const { fclose(file); }
};
using unique_file = std::unique_ptr<FILE, file_closer>;

struct malloc_freer {
    void operator()(void* memory) const { free(memory); }
};
// Memory from malloc, for allocations whose failure must be handled: one object (or a text), and an array.
template <typename T>
using unique_malloc = std::unique_ptr<T, malloc_freer>;
template <typename T>
using malloc_array = std::unique_ptr<T[], malloc_freer>;

// One zeroed object, and an array of `count` of them. Empty if memory runs out.
template <typename T>
unique_malloc<T> calloc_one() {
    return unique_malloc<T>(static_cast<T*>(calloc(1, sizeof(T))));
}
template <typename T>
malloc_array<T> calloc_array(size_t count) {
    return malloc_array<T>(static_cast<T*>(calloc(count, sizeof(T))));
}
