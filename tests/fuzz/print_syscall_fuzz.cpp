// Prints a system call with any registers and any memory: the output stays within its buffer. If it fits, it
// begins with the process, has the call's name, and ends as a line of an entry or of an exit does.
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "tests/fuzz/require.h"
#include "trace/print_syscall.h"
#include "trace/syscall_names.h"

namespace {

// Memory that repeats the input at every address. A read stops at the end of the input.
struct random_memory {
    std::string_view bytes;

    size_t readable(uint64_t address) const {
        return bytes.empty() ? 0 : bytes.size() - address % bytes.size();
    }
    static const random_memory& of(const tracee_memory& memory) {
        return *static_cast<const random_memory*>(memory.cookie);
    }
    static ssize_t read_block(const tracee_memory& memory, uint64_t address, void* out, size_t count) {
        const random_memory& self = of(memory);
        size_t got = std::min(count, self.readable(address));
        if (got > 0) {
            memcpy(out, self.bytes.data() + address % self.bytes.size(), got);
        }
        return got > 0 ? static_cast<ssize_t>(got) : -1;
    }
    static bool read_word(const tracee_memory& memory, uint64_t address, long* word) {
        return read_block(memory, address, word, sizeof *word) == static_cast<ssize_t>(sizeof *word);
    }
    static ssize_t read_file(const tracee_memory& memory, void* out, unsigned count, int64_t address) {
        return read_block(memory, static_cast<uint64_t>(address), out, count);
    }
};

int describe(const syscall_view& view, int fd, char* buf, size_t len) {
    const random_memory& memory = *static_cast<const random_memory*>(view.cookie);
    size_t count = std::min({len - 1, memory.bytes.size(), static_cast<size_t>(fd & 0xff)});
    memcpy(buf, memory.bytes.data(), count);
    buf[count] = '\0';
    return static_cast<int>(strlen(buf));
}

void check(const syscall_view& view, syscall_record call, bool entry, size_t size) {
    std::vector<char> buffer(size + 1, '#');
    int length = print_syscall(view, &call, entry, buffer.data(), static_cast<int>(size));
    require(buffer[size] == '#' && length > 0);
    size_t shown = strnlen(buffer.data(), size);
    require(shown < size && shown <= static_cast<size_t>(length));
    if (static_cast<size_t>(length) < size) {
        std::string_view line(buffer.data(), shown);
        require(line.size() == static_cast<size_t>(length));
        require(line.starts_with("[42 name] ["));
        require(call.number == 4102 ||
                line.find(syscall_names[static_cast<size_t>(call.number - o32_first)]) != line.npos);
        require(entry ? line.ends_with(')') : line.ends_with('\n'));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    syscall_record call = {};
    size_t used = std::min(size, sizeof call);
    memcpy(static_cast<void*>(&call), data, used);
    call.number = o32_first + static_cast<int64_t>(static_cast<uint64_t>(call.number) % syscall_count);
    random_memory bytes = {std::string_view(reinterpret_cast<const char*>(data) + used, size - used)};
    tracee_memory memory = {42, &bytes, random_memory::read_block, random_memory::read_word,
                            random_memory::read_file};
    syscall_view view = {42, "name", &memory, describe, nullptr, &bytes};
    for (bool entry : {true, false}) {
        for (size_t buffer_size : {1, 40, 130, 4096}) {
            check(view, call, entry, buffer_size);
        }
    }
    return 0;
}
