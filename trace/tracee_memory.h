// The memory of a stopped tracee.
//
// Gives the same bytes as PTRACE_PEEKDATA, which reads one word at an address, with fewer system calls.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// How to read the memory. Tests supply functions of their own.
struct tracee_memory {
    pid_t pid;
    const void* cookie;
    // Reads up to `count` bytes in one call. Returns how many of them were read, from the first one on; below
    // 1 for none.
    ssize_t (*read_block)(const tracee_memory& memory, uint64_t address, void* out, size_t count);
    // Reads one word of the processor. False, with `*word` unchanged, if any byte of it is unreadable.
    bool (*read_word)(const tracee_memory& memory, uint64_t address, long* word);
    // Reads `count` bytes from the process's memory file. Returns how many were read, or -1.
    ssize_t (*read_file)(const tracee_memory& memory, void* out, unsigned count, int64_t address);
};

// The memory of process `pid`, which the calling thread traces.
tracee_memory tracee_memory_of(pid_t pid);

// Reads up to `count` bytes, at most tracee_text_limit, from `address` on. Returns how many were readable.
// Each is the low byte of the word that begins at its address, so the last bytes before an unmapped page do
// not count as readable.
constexpr size_t tracee_text_limit = 64;
size_t tracee_text(const tracee_memory& memory, uint64_t address, unsigned char* out, size_t count);

// Reads two consecutive words. An unreadable one is -1.
struct tracee_words {
    int64_t first;
    int64_t second;
};
tracee_words tracee_word_pair(const tracee_memory& memory, uint64_t address);
