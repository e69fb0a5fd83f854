// A flash partition, opened through its MTD character device or its block device.
#pragma once

#include <stdint.h>

#include "common/unique_fd.h"

// The kernel's oops logger writes one record into each page of this size.
constexpr uint32_t flash_page_size = 4096;

struct flash_device {
    unique_fd fd;
    bool is_block = false;
    uint64_t size = 0;  // bytes
};

struct flash_opened {
    flash_device device;                // empty on failure
    const char* failed_call = nullptr;  // "open", "stat", "BLKGETSIZE" (block devices) or "MEMGETINFO"
};

// Opens `path` for reading and reads its size. On failure, errno is that of the failed call.
flash_opened flash_open(const char* path);

// Reads page number `page` into `bytes`, which has flash_page_size. Returns false if the page is in a block
// that is marked bad, or if the whole page could not be read; `bytes` may have changed then.
bool flash_read_page(const flash_device& device, uint64_t page, uint8_t* bytes);
