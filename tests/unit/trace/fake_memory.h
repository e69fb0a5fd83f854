// The memory of an invented process: pieces at addresses, nothing between them.
#pragma once

#include <string.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>

#include "trace/tracee_memory.h"

struct fake_memory {
    std::map<uint64_t, std::string> pieces;
    bool blocks = true;  // false: only single words can be read

    // The bytes from `address` to the end of its piece; empty outside of all pieces.
    std::string_view at(uint64_t address) const {
        auto next = pieces.upper_bound(address);
        if (next == pieces.begin()) {
            return {};
        }
        const auto& [start, bytes] = *std::prev(next);
        uint64_t offset = address - start;
        return offset < bytes.size() ? std::string_view(bytes).substr(offset) : std::string_view();
    }

    static const fake_memory& of(const tracee_memory& memory) {
        return *static_cast<const fake_memory*>(memory.cookie);
    }
    static ssize_t read_block(const tracee_memory& memory, uint64_t address, void* out, size_t count) {
        std::string_view bytes = of(memory).at(address).substr(0, count);
        if (!of(memory).blocks || bytes.empty()) {
            errno = EFAULT;
            return -1;
        }
        memcpy(out, bytes.data(), bytes.size());
        return static_cast<ssize_t>(bytes.size());
    }
    static bool read_word(const tracee_memory& memory, uint64_t address, long* word) {
        std::string_view bytes = of(memory).at(address);
        if (bytes.size() < sizeof *word) {
            return false;
        }
        memcpy(word, bytes.data(), sizeof *word);
        return true;
    }
    static ssize_t read_file(const tracee_memory& memory, void* out, unsigned count, int64_t address) {
        std::string_view bytes = of(memory).at(static_cast<uint64_t>(address)).substr(0, count);
        std::copy(bytes.begin(), bytes.end(), static_cast<char*>(out));
        return bytes.empty() ? -1 : static_cast<ssize_t>(bytes.size());
    }

    tracee_memory view() const { return {1, this, read_block, read_word, read_file}; }
};
