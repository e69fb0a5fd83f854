// The memory of a stopped tracee.
//
// What is readable is what PTRACE_PEEKDATA, one word at each address, would read; it takes one system call
// where that is possible.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// How the memory is reached. Tests put their own in the place of a process.
struct tracee_memory {
    pid_t pid;
    const void* cookie;
    // Reads up to `count` bytes at once. Returns how many of the first bytes were read; below 1 for none.
    ssize_t (*read_block)(const tracee_memory& memory, uint64_t address, void* out, size_t count);
    // Reads one word of the processor; false when any byte of it is out of reach.
    bool (*read_word)(const tracee_memory& memory, uint64_t address, long* word);
    // Reads `count` bytes from the process's memory file. Returns how many were read, or -1.
    ssize_t (*read_file)(const tracee_memory& memory, void* out, unsigned count, int64_t address);
};

// The memory of process `pid`, which the calling thread traces.
tracee_memory tracee_memory_of(pid_t pid);

// Reads the bytes at `address` and on, up to `count` and at most tracee_text_limit. Returns how many could be
// read: each is the low byte of the word that begins at its address, so the last ones before an unmapped page
// are not readable.
constexpr size_t tracee_text_limit = 64;
size_t tracee_text(const tracee_memory& memory, uint64_t address, unsigned char* out, size_t count);

// Reads two words that follow each other. One that can't be read is -1.
void tracee_word_pair(const tracee_memory& memory, uint64_t address, int64_t (&out)[2]);
