#include "tools/dcore/residence.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <span>

#include "tools/dcore/proc_text.h"

namespace {

// In <linux/fs.h> since Linux 6.7; declared here for older headers.
struct scan_request {
    uint64_t size, flags, start, end, walk_end, regions, region_count, max_pages;
    uint64_t inverted, all_of, any_of, returned;
};
struct scan_region {
    uint64_t start, end, categories;
};
static_assert(sizeof(scan_request) == 96 && sizeof(scan_region) == 24);
constexpr unsigned long scan_command = _IOWR('f', 16, scan_request);
constexpr uint64_t is_present = 1 << 3, is_swapped = 1 << 4, is_zero_page = 1 << 5;
constexpr size_t regions_at_once = 256;

// The bits of an entry of pagemap, and the number of entries that one call reads.
constexpr uint64_t entry_has_content = 3ull << 62;  // present, swapped
constexpr size_t entries_at_once = 2048;

uint64_t page_size() {
    return static_cast<uint64_t>(getpagesize());
}

// Returns the end of the scanned part: the mapping's end, or an address before it if the kernel cannot scan.
uint64_t scan(const page_map& map, const core_mapping& mapping, range_taker take, void* cookie) {
    scan_region regions[regions_at_once];
    uint64_t at = mapping.start;
    while (at < mapping.end) {
        scan_request request = {};
        request.size = sizeof request;
        request.start = at;
        request.end = mapping.end;
        request.regions = reinterpret_cast<uintptr_t>(regions);
        request.region_count = regions_at_once;
        request.inverted = request.all_of = is_zero_page;
        request.any_of = request.returned = is_present | is_swapped;
        int count = ioctl(map.file.get(), scan_command, &request);
        if (count < 0 || request.walk_end <= at) {
            return at;
        }
        for (const scan_region& region : std::span(regions, static_cast<size_t>(count))) {
            take(region.start, region.end, cookie);
        }
        at = request.walk_end;
    }
    return at;
}

// Reads the entry of every page. Pages whose entry cannot be read count as having content.
void walk_pages(const page_map& map, uint64_t from, uint64_t end, range_taker take, void* cookie) {
    uint64_t entries[entries_at_once];
    uint64_t page = page_size();
    while (from < end) {
        size_t count = static_cast<size_t>(std::min<uint64_t>((end - from) / page, entries_at_once));
        ssize_t got = pread64(map.file.get(), entries, count * sizeof entries[0],
                              static_cast<off64_t>(from / page * sizeof entries[0]));
        if (got < static_cast<ssize_t>(sizeof entries[0])) {
            take(from, end, cookie);
            return;
        }
        count = static_cast<size_t>(got) / sizeof entries[0];
        for (size_t i = 0; i < count; i++) {
            size_t first = i;
            while (i < count && (entries[i] & entry_has_content)) {
                i++;
            }
            if (i > first) {
                take(from + first * page, from + i * page, cookie);
            }
        }
        from += count * page;
    }
}

// Finds the ranges of the mapped file that have data. In shared memory, any process may have written them.
// Returns false if the file cannot be opened.
bool walk_file(pid_t tid, const core_mapping& mapping, range_taker take, void* cookie) {
    char name[64];
    snprintf(name, sizeof name, "map_files/%llx-%llx", static_cast<unsigned long long>(mapping.start),
             static_cast<unsigned long long>(mapping.end));
    unique_fd file = proc_open(tid, name);
    if (!file) {
        return false;
    }
    uint64_t page = page_size(), length = mapping.end - mapping.start;
    for (uint64_t at = 0; at < length;) {
        off64_t data = lseek64(file.get(), static_cast<off64_t>(mapping.offset + at), SEEK_DATA);
        if (data < 0) {
            return errno == ENXIO;  // no more data
        }
        off64_t hole = lseek64(file.get(), data, SEEK_HOLE);
        uint64_t from = (static_cast<uint64_t>(data) - mapping.offset) / page * page;
        uint64_t to = hole < data ? length : static_cast<uint64_t>(hole) - mapping.offset;
        to = std::min((to + page - 1) / page * page, length);
        if (from >= to) {
            return true;
        }
        take(mapping.start + from, mapping.start + to, cookie);
        at = to;
    }
    return true;
}

bool is_empty(const core_mapping& mapping) {
    return mapping.has_details && !mapping.is_huge && mapping.resident_kb + mapping.swapped_kb == 0;
}

}  // namespace

page_map residence_open(pid_t tid) {
    page_map map;
    map.tid = tid;
    map.file = proc_open(tid, "pagemap");
    return map;
}

void residence_walk(page_map* map, const core_mapping& mapping, range_taker take, void* cookie) {
    if (mapping.shared && walk_file(map->tid, mapping, take, cookie)) {
        return;
    }
    if (!mapping.shared && is_empty(mapping)) {
        return;
    }
    if (!map->file) {
        take(mapping.start, mapping.end, cookie);
        return;
    }
    uint64_t done = map->can_scan ? scan(*map, mapping, take, cookie) : mapping.start;
    map->can_scan = map->can_scan && done == mapping.end;
    walk_pages(*map, done, mapping.end, take, cookie);
}
