// The kernel's oops records in a flash partition, and the applet that prints them.
//
// The partition is a ring of pages of 4096 bytes with one record each, all numbers little-endian: 4 bytes of
// sequence count (0xffffffff: erased), 4 bytes of magic, then text up to the first byte 0xff (erased flash)
// or to the end of the page.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string_view>

struct oops_page {
    uint32_t count = 0;
    bool is_erased = false;  // the count is that of erased flash: no record, even if the magic is right
    bool has_magic = false;
    std::string_view text;  // borrowed from the page's bytes
};

// Parses the 4096 bytes of a page.
oops_page oops_page_parse(const uint8_t* bytes);

// Where pages are read from. `read` fills `bytes` with the 4096 bytes of page number `page`, or returns false
// if that fails; such pages are skipped.
struct oops_ring {
    int64_t pages = 0;
    bool (*read)(const void* source, uint64_t page, uint8_t* bytes) = nullptr;
    const void* source = nullptr;
};

struct oops_newest {
    int64_t position = -1;  // page number; -1: no record
    uint32_t count = 0;
};

// Finds the record with the largest count, and the first one of equal counts. 0 comes after 0xfffffffe.
oops_newest oops_find_newest(const oops_ring& ring);

// Prints all records to `out`. With a `step` of 1 it begins after the position `newest` and goes upwards,
// from the oldest record to the newest. With -1 it begins before `newest` and goes downwards. Either way it
// wraps around and ends at `newest`.
void oops_print_ring(const oops_ring& ring, int64_t newest, int step, FILE* out);

// oopslog [-r] DEVICE: prints the records of the flash partition DEVICE (an MTD character device or a block
// device) on standard output, and the newest record's position on standard error. -r prints them backwards.
// Returns the exit status: 1 if the command line is wrong, or the device cannot be opened or has no size.
int run_oopslog(int argc, char** argv);
