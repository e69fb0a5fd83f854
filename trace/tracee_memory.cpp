#include "trace/tracee_memory.h"

#include <string.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

#include "proc/proc_fd.h"
#include "trace/ptrace_data.h"

namespace {

constexpr size_t word_size = sizeof(long);

void* as_pointer(uint64_t address) {
    return ptrace_data(static_cast<int64_t>(address));
}

ssize_t read_process_block(const tracee_memory& memory, uint64_t address, void* out, size_t count) {
    iovec local = {out, count};
    iovec remote = {as_pointer(address), count};
    return process_vm_readv(memory.pid, &local, 1, &remote, 1, 0);
}

bool read_process_word(const tracee_memory& memory, uint64_t address, long* word) {
    errno = 0;
    long value = ptrace(PTRACE_PEEKDATA, memory.pid, as_pointer(address), nullptr);
    if (value == -1 && errno != 0) {
        return false;
    }
    *word = value;
    return true;
}

ssize_t read_process_file(const tracee_memory& memory, void* out, unsigned count, int64_t address) {
    return proc_mem_pread(memory.pid, out, count, address);
}

size_t read_block(const tracee_memory& memory, uint64_t address, void* out, size_t count) {
    return static_cast<size_t>(std::max<ssize_t>(memory.read_block(memory, address, out, count), 0));
}

}  // namespace

tracee_memory tracee_memory_of(pid_t pid) {
    return {pid, nullptr, read_process_block, read_process_word, read_process_file};
}

size_t tracee_text(const tracee_memory& memory, uint64_t address, unsigned char* out, size_t count) {
    unsigned char block[tracee_text_limit + word_size];
    count = std::min(count, tracee_text_limit);
    size_t wanted = count + word_size - 1;
    size_t got = read_block(memory, address, block, wanted);
    size_t readable = got >= word_size ? std::min(got - (word_size - 1), count) : 0;
    memcpy(out, block, readable);
    // A block ends at memory that only a debugger may read; single words do not.
    long word;
    while (readable < count && memory.read_word(memory, address + readable, &word)) {
        out[readable++] = static_cast<unsigned char>(word);
    }
    return readable;
}

tracee_words tracee_word_pair(const tracee_memory& memory, uint64_t address) {
    long words[2];
    if (read_block(memory, address, words, sizeof words) != sizeof words) {
        for (size_t i = 0; i < 2; i++) {
            words[i] = -1;  // a short block may have changed it
            (void)memory.read_word(memory, address + i * word_size, &words[i]);
        }
    }
    return {words[0], words[1]};
}
