// Picks words out of a core's memory while the core streams.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/core_elf.h"

namespace archiveview {

class core_memory {
public:
    // Asks for bytes. An address that was asked for before keeps the larger length. Call before begin().
    void want(uint64_t address, size_t length);

    // Finds out where in the file the wanted bytes are.
    void begin(std::vector<core_segment> segments);

    // Takes the file's bytes from `position` on. Positions only grow.
    void pass(uint64_t position, std::span<const char> bytes);

    // The bytes that were asked for at this address, as far as the core has all of the first ones.
    std::string_view at(uint64_t address) const;

private:
    struct wanted {
        std::string bytes;
        size_t seen = 0;  // how many of them, from the first on, have been copied
    };
    // A part of wanted bytes that lies together in the file.
    struct piece {
        uint64_t offset;
        size_t length;
        wanted* target;
        size_t place;  // in the target
    };
    void add_pieces(const std::vector<core_segment>& segments, uint64_t address, wanted* target);

    std::map<uint64_t, wanted> wanted_;
    std::vector<piece> pieces_;  // by offset
    size_t first_ = 0;           // pieces before this one have passed
};

}  // namespace archiveview
