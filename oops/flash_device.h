// A flash partition, seen through its MTD character device or through its block device.
#pragma once

#include <stdint.h>

#include "common/unique_fd.h"

// The kernel's oops logger writes in units of this size.
constexpr uint32_t flash_page_size = 4096;

struct flash_device {
    unique_fd fd;
    bool is_block = false;
    uint64_t size = 0;  // bytes
};

// Opens `path` for reading and learns its size. Returns null, or the name of the call that failed, with its
// errno: "open", "stat", "BLKGETSIZE" (block devices) or "MEMGETINFO" (everything else). After a failure
// `device` is as it was.
const char* flash_open(const char* path, flash_device& device);

// Reads page number `page` into `bytes` (flash_page_size of them). False when the page lies in a block that
// is marked bad, can't be read, or isn't there as a whole; `bytes` may have changed then.
bool flash_read_page(const flash_device& device, uint64_t page, uint8_t* bytes);
