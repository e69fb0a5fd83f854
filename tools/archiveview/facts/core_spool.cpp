#include "tools/archiveview/facts/core_spool.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "common/temp_file.h"
#include "tools/archiveview/limits.h"

namespace archiveview {
namespace {

unique_fd open_file() {
    const char* folder = getenv("TMPDIR");
    return temp_file_unlinked((std::string(folder ? folder : "/tmp") + "/archiveview.XXXXXX").c_str());
}

}  // namespace

void core_spool::drop(std::string why) {
    budget_->spool_bytes += size_;
    size_ = 0;
    file_.reset();
    remark_ = std::move(why);
}

bool core_spool::write_all(std::span<const char> bytes) const {
    while (!bytes.empty()) {
        const ssize_t written = write(file_.get(), bytes.data(), bytes.size());
        if (written <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<size_t>(written));
    }
    return true;
}

void core_spool::add(std::span<const char> bytes) {
    if (bytes.empty() || !remark_.empty()) {
        return;
    }
    if (bytes.size() > spooled_core_limit - size_) {
        return drop("The core is too large to be shown to a debugger here.");
    }
    if (bytes.size() > budget_->spool_bytes) {
        return drop("The cores of this archive are together too large to be shown to a debugger here.");
    }
    if (!file_) {
        file_ = open_file();
    }
    if (!file_ || !write_all(bytes)) {
        return drop("The core could not be stored for a debugger.");
    }
    size_ += bytes.size();
    budget_->spool_bytes -= bytes.size();
}

}  // namespace archiveview
