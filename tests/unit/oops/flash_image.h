// Flash partitions in memory, and what oopslog prints of them.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "oops/flash_device.h"
#include "oops/oopslog.h"

constexpr uint32_t right_magic = 0x5d005d00;

inline void set_little_endian(uint8_t* at, uint32_t number) {
    for (int i = 0; i < 4; i++) {
        at[i] = static_cast<uint8_t>(number >> (8 * i));
    }
}

class flash_image {
public:
    explicit flash_image(size_t pages, uint8_t filler = 0xff)
        : bytes_(pages * flash_page_size, filler), pages_(pages) {}

    flash_image& record(size_t page, uint32_t count, std::string_view text, uint32_t magic = right_magic) {
        uint8_t* at = &bytes_.at(page * flash_page_size);
        set_little_endian(at, count);
        set_little_endian(at + 4, magic);
        std::copy(text.begin(), text.end(), at + 8);
        return *this;
    }
    flash_image& unreadable(size_t page) {
        unreadable_.insert(page);
        return *this;
    }
    oops_ring ring() const { return {static_cast<int64_t>(pages_), read_page, this}; }

private:
    static bool read_page(const void* source, uint64_t page, uint8_t* bytes) {
        const auto* image = static_cast<const flash_image*>(source);
        EXPECT_LT(page, image->pages_);
        if (image->unreadable_.count(page)) {
            std::fill_n(bytes, flash_page_size, uint8_t{0x41});  // must not be used after a failed read
            return false;
        }
        std::copy_n(&image->bytes_.at(page * flash_page_size), flash_page_size, bytes);
        return true;
    }
    std::vector<uint8_t> bytes_;
    size_t pages_;
    std::set<uint64_t> unreadable_;
};

// What oops_print_ring prints.
inline std::string printed(const oops_ring& ring, int64_t newest, int step) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    EXPECT_NE(out, nullptr);
    oops_print_ring(ring, newest, step, out);
    fclose(out);
    std::string all(text, size);
    free(text);
    return all;
}

// The positions of the records in the order in which they are printed.
inline std::vector<int> printed_positions(const oops_ring& ring, int64_t newest, int step) {
    std::vector<int> found;
    std::string text = printed(ring, newest, step);
    constexpr std::string_view mark = "(at position ";
    for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
        found.push_back(atoi(text.c_str() + at + mark.size()));
    }
    return found;
}
