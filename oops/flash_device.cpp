#include "oops/flash_device.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t sector_size = 512;  // the unit of BLKGETSIZE, whatever the device's own sectors are

// Both return null, or the name of the request that failed.
const char* block_size(int fd, uint64_t& size) {
    unsigned long sectors = 0;
    if (ioctl(fd, BLKGETSIZE, &sectors) < 0) {
        return "BLKGETSIZE";
    }
    size = sectors * sector_size;
    return nullptr;
}

const char* mtd_size(int fd, uint64_t& size) {
    mtd_info_user info = {};
    if (ioctl(fd, MEMGETINFO, &info) < 0) {
        return "MEMGETINFO";
    }
    size = info.size;
    return nullptr;
}

// A device that can't say which of its blocks are bad has none, as far as anyone can tell.
bool is_in_bad_block(const flash_device& device, uint64_t offset) {
    auto at = static_cast<loff_t>(offset);
    return !device.is_block && ioctl(device.fd.get(), MEMGETBADBLOCK, &at) > 0;
}

}  // namespace

const char* flash_open(const char* path, flash_device& device) {
    flash_device opened;
    opened.fd = unique_fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!opened.fd) {
        return "open";
    }
    struct stat info;
    if (fstat(opened.fd.get(), &info) < 0) {
        return "stat";
    }
    opened.is_block = S_ISBLK(info.st_mode);
    const char* failed =
        opened.is_block ? block_size(opened.fd.get(), opened.size) : mtd_size(opened.fd.get(), opened.size);
    if (!failed) {
        device = std::move(opened);
    }
    return failed;
}

bool flash_read_page(const flash_device& device, uint64_t page, uint8_t* bytes) {
    uint64_t offset = page * flash_page_size;
    if (is_in_bad_block(device, offset)) {
        return false;
    }
    ssize_t got = pread(device.fd.get(), bytes, flash_page_size, static_cast<off_t>(offset));
    return got == static_cast<ssize_t>(flash_page_size);
}
