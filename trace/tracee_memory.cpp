#include "trace/tracee_memory.h"

#include <string.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

#include "proc/proc_fd.h"

namespace {

constexpr size_t word_size = sizeof(long);

// An address of the tracee in the place of a pointer; the upper half is dropped where addresses have none.
void* as_pointer(uint64_t address) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(address));  // NOLINT(performance-no-int-to-ptr)
}

ssize_t block_of_process(const tracee_memory& memory, uint64_t address, void* out, size_t count) {
    iovec here = {out, count};
    iovec there = {as_pointer(address), count};
    return process_vm_readv(memory.pid, &here, 1, &there, 1, 0);
}

bool word_of_process(const tracee_memory& memory, uint64_t address, long* word) {
    errno = 0;
    *word = ptrace(PTRACE_PEEKDATA, memory.pid, as_pointer(address), nullptr);
    return *word != -1 || errno == 0;
}

ssize_t file_of_process(const tracee_memory& memory, void* out, unsigned count, int64_t address) {
    return proc_mem_pread(memory.pid, out, count, address);
}

size_t read_block(const tracee_memory& memory, uint64_t address, void* out, size_t count) {
    return static_cast<size_t>(std::max<ssize_t>(memory.read_block(memory, address, out, count), 0));
}

}  // namespace

tracee_memory tracee_memory_of(pid_t pid) {
    return {pid, nullptr, block_of_process, word_of_process, file_of_process};
}

size_t tracee_text(const tracee_memory& memory, uint64_t address, unsigned char* out, size_t count) {
    unsigned char block[tracee_text_limit + word_size];
    count = std::min(count, tracee_text_limit);
    size_t wanted = count + word_size - 1;
    size_t got = read_block(memory, address, block, wanted);
    size_t readable = got >= word_size ? std::min(got - (word_size - 1), count) : 0;
    memcpy(out, block, readable);
    // Memory that only a debugger may read is left to the words.
    long word;
    while (readable < count && memory.read_word(memory, address + readable, &word)) {
        out[readable++] = static_cast<unsigned char>(word);
    }
    return readable;
}

void tracee_word_pair(const tracee_memory& memory, uint64_t address, int64_t (&out)[2]) {
    long words[2];
    if (read_block(memory, address, words, sizeof words) != sizeof words) {
        for (size_t i = 0; i < 2; i++) {
            if (!memory.read_word(memory, address + i * word_size, &words[i])) {
                words[i] = -1;
            }
        }
    }
    out[0] = words[0];
    out[1] = words[1];
}
