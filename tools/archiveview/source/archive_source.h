// Members of an archive as they stream, tar or compressed tar, also of one that is cut or damaged.
#pragma once

#include <stdint.h>

#include <memory>
#include <span>
#include <string>

#include "tools/archiveview/source/unpacker.h"

namespace archiveview {

struct source_member {
    std::string name;   // as in the archive, without bytes that are not printable
    uint64_t size = 0;  // as its header says
};

struct source_state {
    source_end end =
        source_end::none;  // whole: the file ends as its format says. That proves nothing about its members
    bool is_compressed = false;
    std::string reason;  // why it is cut or damaged: a part of a sentence, "its compressed data ends early"
    std::string cut_member;  // the member that was being read then, or empty
    uint64_t cut_member_bytes = 0;
    uint64_t members = 0;
    uint64_t bytes = 0;  // of members
};

class archive_source {
public:
    // `read` fills a buffer and returns how many bytes it took, 0 at the end. What it throws passes through.
    using byte_source = archiveview::byte_source;
    explicit archive_source(byte_source read);
    ~archive_source();
    archive_source(const archive_source&) = delete;
    archive_source& operator=(const archive_source&) = delete;

    // Goes to the next member that is a file. False at the end.
    bool next(source_member* member);
    // Reads the member's next bytes; 0 at its end, or if the archive ends before.
    size_t read(std::span<char> buffer);
    // Final after next() has returned false.
    const source_state& state() const;

private:
    struct implementation;
    std::unique_ptr<implementation> implementation_;
};

}  // namespace archiveview
