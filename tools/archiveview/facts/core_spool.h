// Keeps the bytes of a core in a file without a name, for a debugger.
#pragma once

#include <stddef.h>

#include <memory>
#include <span>
#include <string>

#include "common/unique_fd.h"
#include "tools/archiveview/facts/core.h"

namespace archiveview {

class core_spool {
public:
    explicit core_spool(std::shared_ptr<core_budget> budget) : budget_(std::move(budget)) {}
    ~core_spool() { drop({}); }
    core_spool(const core_spool&) = delete;
    core_spool& operator=(const core_spool&) = delete;

    // Adds bytes, unless the core is too large or something failed; what is kept is dropped then.
    void add(std::span<const char> bytes);

    // The file, or -1.
    int fd() const { return file_.get(); }
    // Why there is no file: a sentence. Empty if there is one.
    const std::string& remark() const { return remark_; }

private:
    void drop(std::string why);
    bool write_all(std::span<const char> bytes) const;

    std::shared_ptr<core_budget> budget_;
    unique_fd file_;
    size_t size_ = 0;
    std::string remark_;
};

}  // namespace archiveview
