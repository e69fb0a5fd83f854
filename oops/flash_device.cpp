#include "oops/flash_device.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace {

constexpr uint64_t sector_size = 512;  // the unit of BLKGETSIZE, even if the device has larger sectors

// Both return the name of the request that failed, or null and the size in bytes.
const char* get_block_size(int fd, uint64_t* size) {
    unsigned long sectors = 0;
    if (ioctl(fd, BLKGETSIZE, &sectors) < 0) {
        return "BLKGETSIZE";
    }
    *size = sectors * sector_size;
    return nullptr;
}

const char* get_mtd_size(int fd, uint64_t* size) {
    mtd_info_user info = {};
    if (ioctl(fd, MEMGETINFO, &info) < 0) {
        return "MEMGETINFO";
    }
    *size = info.size;
    return nullptr;
}

// A device that cannot report bad blocks is taken to have none.
bool is_in_bad_block(const flash_device& device, uint64_t offset) {
    auto at = static_cast<loff_t>(offset);
    return !device.is_block && ioctl(device.fd.get(), MEMGETBADBLOCK, &at) > 0;
}

}  // namespace

flash_opened flash_open(const char* path) {
    flash_device device;
    device.fd = unique_fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!device.fd) {
        return {{}, "open"};
    }
    const int fd = device.fd.get();
    struct stat info;
    if (fstat(fd, &info) < 0) {
        return {{}, "stat"};
    }
    device.is_block = S_ISBLK(info.st_mode);
    if (const char* failed_call =
            device.is_block ? get_block_size(fd, &device.size) : get_mtd_size(fd, &device.size)) {
        return {{}, failed_call};
    }
    return {std::move(device), nullptr};
}

bool flash_read_page(const flash_device& device, uint64_t page, uint8_t* bytes) {
    uint64_t offset = page * flash_page_size;
    if (is_in_bad_block(device, offset)) {
        return false;
    }
    ssize_t got = pread(device.fd.get(), bytes, flash_page_size, static_cast<off_t>(offset));
    return got == static_cast<ssize_t>(flash_page_size);
}
