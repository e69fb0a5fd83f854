#include "oops/oopslog.h"

#include <string.h>

#include <algorithm>

#include "common/ascii.h"
#include "oops/flash_device.h"

namespace {

constexpr uint32_t erased_count = 0xffffffff;
constexpr uint32_t last_count = erased_count - 1;  // the next one is 0
constexpr uint32_t record_magic = 0x5d005d00;
constexpr size_t text_offset = 8;
constexpr uint8_t erased_byte = 0xff;

uint32_t little_endian(const uint8_t* bytes) {
    return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

bool is_newer(const oops_page& page, const oops_newest& newest) {
    if (newest.position < 0) {
        return true;
    }
    return page.count == 0 ? newest.count == last_count : page.count > newest.count;
}

int64_t next_position(int64_t position, int step, int64_t pages) {
    position += step;
    if (position >= pages) {
        return 0;
    }
    return position < 0 ? pages - 1 : position;
}

void print_record(const oops_page& page, int64_t position, FILE* out) {
    // Counts of 2^31 and more are printed as negative numbers. This is deliberate.
    fprintf(out, "Log Entry %d (at position %d)\n", static_cast<int>(page.count), static_cast<int>(position));
    for (char each : page.text) {
        fprintf(out, "%c", is_ascii_printable(each) || is_ascii_blank(each) ? each : '.');
    }
}

struct options {
    const char* device = nullptr;  // null if the command line does not name one
    int step = 1;
};

options parse(int argc, char** argv) {
    if (argc < 2) {
        return {};
    }
    const bool is_reverse = strcmp(argv[1], "-r") == 0;
    return {argv[is_reverse ? 2 : 1], is_reverse ? -1 : 1};
}

bool read_flash(const void* source, uint64_t page, uint8_t* bytes) {
    return flash_read_page(*static_cast<const flash_device*>(source), page, bytes);
}

}  // namespace

oops_page oops_page_parse(const uint8_t* bytes) {
    oops_page page;
    page.count = little_endian(bytes);
    page.is_erased = page.count == erased_count;
    page.has_magic = little_endian(bytes + 4) == record_magic;
    const uint8_t* text = bytes + text_offset;
    const uint8_t* end = std::find(text, bytes + flash_page_size, erased_byte);
    page.text = {reinterpret_cast<const char*>(text), static_cast<size_t>(end - text)};
    return page;
}

oops_newest oops_find_newest(const oops_ring& ring) {
    uint8_t bytes[flash_page_size];
    oops_newest newest;
    for (int64_t position = 0; position < ring.pages; position++) {
        if (!ring.read(ring.source, static_cast<uint64_t>(position), bytes)) {
            continue;
        }
        oops_page page = oops_page_parse(bytes);
        if (!page.is_erased && page.has_magic && is_newer(page, newest)) {
            newest = {position, page.count};
        }
    }
    return newest;
}

void oops_print_ring(const oops_ring& ring, int64_t newest, int step, FILE* out) {
    uint8_t bytes[flash_page_size];
    int64_t position = newest;
    for (int64_t done = 0; done < ring.pages; done++) {
        position = next_position(position, step, ring.pages);
        if (!ring.read(ring.source, static_cast<uint64_t>(position), bytes)) {
            continue;
        }
        oops_page page = oops_page_parse(bytes);
        if (!page.is_erased && page.has_magic) {
            print_record(page, position, out);
        }
    }
}

int run_oopslog(int argc, char** argv) {
    const options wanted = parse(argc, argv);
    if (!wanted.device) {
        puts("USAGE: oopslog [options] mtdblock-device\n");
        return 1;
    }
    const flash_opened opened = flash_open(wanted.device);
    if (opened.failed_call) {
        perror(opened.failed_call);
        return 1;
    }
    const flash_device& device = opened.device;
    const oops_ring ring = {static_cast<int64_t>(device.size / flash_page_size), read_flash, &device};
    const oops_newest newest = oops_find_newest(ring);
    if (newest.position < 0) {
        fputs("No logs present\n", stderr);
        return 0;
    }
    fprintf(stderr, "Last log is at position %d with count %d\n", static_cast<int>(newest.position),
            static_cast<int>(newest.count));
    oops_print_ring(ring, newest.position, wanted.step, stdout);
    return 0;
}
