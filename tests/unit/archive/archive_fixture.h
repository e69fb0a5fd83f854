// What the tests of the archive share: archives in memory, inflating, and a private world for everything that
// looks at all processes.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>

#include "archive/tar.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/tar_reader.h"

// Seconds left of the phase's time limit.
inline long limit_left() {
    itimerval now = {};
    getitimer(ITIMER_REAL, &now);
    return now.it_value.tv_sec;
}

// As the program does at its start: a write to a reader that has gone fails instead of killing.
inline void ignore_broken_pipes() {
    signal(SIGPIPE, SIG_IGN);
}

// Bytes that do not compress; the same ones at every call.
inline std::string noise(size_t size) {
    std::mt19937 random(20);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

// What a stream of exactly one gzip member holds, checked by zlib; nothing when it is anything else.
inline std::optional<std::string> gunzip(const std::string& packed) {
    z_stream stream = {};
    constexpr int gzip_only = 15 + 16;
    if (inflateInit2(&stream, gzip_only) != Z_OK) {
        return std::nullopt;
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    stream.avail_in = static_cast<uInt>(packed.size());
    std::string all;
    std::string block(65536, '\0');
    int result;
    do {
        stream.next_out = reinterpret_cast<Bytef*>(block.data());
        stream.avail_out = static_cast<uInt>(block.size());
        result = inflate(&stream, Z_NO_FLUSH);
        all.append(block, 0, block.size() - stream.avail_out);
    } while (result == Z_OK);
    bool whole = result == Z_STREAM_END && stream.avail_in == 0;
    inflateEnd(&stream);
    return whole ? std::optional(all) : std::nullopt;
}

// Whether `text` is `shape`, in which each '9' stands for any digit.
inline bool has_shape(const std::string& text, const std::string& shape) {
    return std::equal(text.begin(), text.end(), shape.begin(), shape.end(), [](char is, char wanted) {
        return wanted == '9' ? is >= '0' && is <= '9' : is == wanted;
    });
}

// An archive in memory.
class test_archive {
public:
    explicit test_archive(const char* prefix = nullptr)
        : file_(memory_file()), handle_(tar_new(file_.get(), prefix)) {}
    test_archive(const test_archive&) = delete;
    test_archive& operator=(const test_archive&) = delete;
    ~test_archive() {
        if (handle_) {
            tar_abandon(handle_);
        }
    }

    tar_handle* handle() const { return handle_; }
    int fd() const { return file_.get(); }
    std::string bytes() const { return content_of(file_.get()); }

    // Closes the archive and reads it back.
    tar_listing finish() {
        if (handle_) {
            tar_close(handle_);
            handle_ = nullptr;
        }
        return tar_read(bytes());
    }

private:
    unique_fd file_;
    tar_handle* handle_;
};

// Exit code of a private world that could not be made.
constexpr int no_private_world = 77;

// The machine's folders that a private world has to itself, empty at first.
inline bool mount_private_folders() {
    for (const char* folder : {"/tmp", "/etc", "/usr/sbin", "/var/run"}) {
        if (mount("tmpfs", folder, "tmpfs", 0, "mode=0755") != 0) {
            return false;
        }
    }
    return mount("proc", "/proc", "proc", 0, nullptr) == 0;
}

// Runs `work` as process 2 of new PID, mount and network namespaces: it sees itself, its parent and what it
// starts, but nothing of the machine, whose files stay as they are. Returns the pid to wait for; its exit
// code is what `work` returned, or no_private_world. All of it dies with its parent.
template <typename Work>
pid_t start_in_private_world(Work work) {
    return fork_child([&work] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (unshare(CLONE_NEWPID | CLONE_NEWNS | CLONE_NEWNET) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return no_private_world;
        }
        int status = run_in_child([&work] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (!mount_private_folders()) {
                return no_private_world;
            }
            int inner = run_in_child(work);
            return WIFEXITED(inner) ? WEXITSTATUS(inner) : 128 + WTERMSIG(inner);
        });
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    });
}

// The exit code of `work`, run and waited for in a private world.
template <typename Work>
int run_in_private_world(Work work) {
    int status = wait_status(start_in_private_world(work));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline bool private_world_works() {
    static const bool works = geteuid() == 0 && run_in_private_world([] { return 0; }) == 0;
    return works;
}

#define SKIP_WITHOUT_PRIVATE_WORLD()                                                \
    do {                                                                            \
        if (!private_world_works()) {                                               \
            GTEST_SKIP() << "needs root and private PID, mount and net namespaces"; \
        }                                                                           \
    } while (false)

#define SKIP_WITHOUT_ROOT()               \
    do {                                  \
        if (geteuid() != 0) {             \
            GTEST_SKIP() << "needs root"; \
        }                                 \
    } while (false)

// In a private world: a script that is run as `path`.
inline bool install_script(const char* path, const std::string& body) {
    unique_fd file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755));
    std::string text = "#!/bin/sh\n" + body;
    return file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// In a private world: a file with `text`, its folders made as needed.
inline bool install_file(const std::string& path, const std::string& text) {
    for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
        mkdir(path.substr(0, at).c_str(), 0755);
    }
    unique_fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Both standard outputs into files of the test, for the rest of this process's life.
inline void redirect_outputs(int out_fd, int err_fd) {
    dup2(out_fd, STDOUT_FILENO);
    dup2(err_fd, STDERR_FILENO);
}
