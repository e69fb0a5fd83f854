// Paths of the files of one process.
#pragma once

#include <stddef.h>
#include <sys/types.h>

// Where the kernel's process file system is mounted.
constexpr const char* proc_root = "/proc";

// "ROOT/PID/NAME". A path that is too long is empty, so opening it fails with ENOENT.
struct proc_path {
    static constexpr size_t capacity = 128;

    proc_path(pid_t pid, const char* name, const char* root = proc_root);

    explicit operator bool() const { return text[0] != '\0'; }

    char text[capacity];
};
