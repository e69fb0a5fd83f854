// The oops records that the kernel keeps in a flash partition, and the applet that prints them.
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
    bool erased = false;     // nothing was ever written here: no record, whatever the magic is
    bool has_magic = false;  // written by the oops logger
    std::string_view text;   // borrowed from the page's bytes
};

// Takes the 4096 bytes of a page apart.
oops_page oops_page_parse(const uint8_t* bytes);

// Where pages come from. `read` fills `bytes` with the 4096 of page number `page` and returns true, or
// returns false when that page can't be had; pages that can't are passed over.
struct oops_ring {
    int64_t pages = 0;
    bool (*read)(const void* source, uint64_t page, uint8_t* bytes) = nullptr;
    const void* source = nullptr;
};

struct oops_newest {
    int64_t position = -1;  // page number; -1: there is no record
    uint32_t count = 0;
};

// The record with the greatest count; a 0 comes after 0xfffffffe. Of equal ones the first.
oops_newest oops_find_newest(const oops_ring& ring);

// Prints every record to `out`, from the one after `newest` round the ring up to `newest` itself; step is 1
// for the order in which they were written, -1 for the order of positions downwards.
void oops_print_ring(const oops_ring& ring, int64_t newest, int step, FILE* out);

// oopslog [-r] DEVICE: the records of the flash partition DEVICE (an MTD character device, or a block device)
// on standard output, what was found on standard error. -r goes round the ring backwards. Returns the exit
// status: 1 after a wrong command line or when the device can't be opened and measured.
int run_oopslog(int argc, char** argv);
