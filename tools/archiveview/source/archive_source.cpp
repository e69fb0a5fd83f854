#include "tools/archiveview/source/archive_source.h"

#include <archive.h>
#include <archive_entry.h>
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "tools/archiveview/limits.h"
#include "tools/archiveview/source/printable.h"

namespace archiveview {

namespace {

// Zeros that may follow the last member; tar fills up a record with them.
constexpr uint64_t filler_limit = uint64_t{16} << 20;

bool is_file(archive_entry* entry) {
    return archive_entry_filetype(entry) == AE_IFREG && !archive_entry_hardlink(entry);
}

std::string name_of(archive_entry* entry) {
    const char* name = archive_entry_pathname(entry);
    return name ? printable(std::string_view(name, strnlen(name, name_limit))) : "";
}

// The size without the zeros at the end.
size_t used_size(std::span<const char> bytes) {
    const auto last = std::find_if(bytes.rbegin(), bytes.rend(), [](char byte) { return byte != 0; });
    return static_cast<size_t>(bytes.rend() - last);
}

}  // namespace

struct archive_source::implementation {
    explicit implementation(byte_source read);
    ~implementation() { archive_read_free(tar); }
    implementation(const implementation&) = delete;
    implementation& operator=(const implementation&) = delete;

    static la_ssize_t give_bytes(archive* tar, void* context, const void** buffer);
    bool is_right(int result);
    void end(source_end kind, std::string reason);
    void end_early();
    void end_after_members();
    bool has_only_filler();
    bool enter(archive_entry* entry, source_member* member);
    bool next(source_member* member);
    size_t read(std::span<char> buffer);
    bool next_block();

    unpacker bytes;
    archive* tar;
    source_state state;
    std::exception_ptr thrown;      // by the byte source: libarchive, which is C, must not see it
    uint64_t last_used = 0;         // the place after the last byte given to libarchive that is not zero
    bool has_asked_beyond = false;  // libarchive wanted more than the file has
    bool is_open = false;
    bool has_member = false;
    std::string name;  // of the current member
    uint64_t member_bytes = 0;
    std::span<const char> block;  // of the current member, not read yet
};

archive_source::implementation::implementation(byte_source read)
    : bytes(std::move(read)), tar(archive_read_new()) {
    if (!tar) {
        throw std::bad_alloc();
    }
    archive_read_support_format_tar(tar);
}

la_ssize_t archive_source::implementation::give_bytes(archive* tar, void* context, const void** buffer) {
    implementation* source = static_cast<implementation*>(context);
    std::span<const char> given;
    try {
        const uint64_t given_at = source->bytes.unpacked();
        given = source->bytes.next();
        if (const size_t used = used_size(given); used > 0) {
            source->last_used = given_at + used;
        }
    } catch (...) {
        source->thrown = std::current_exception();
        archive_set_error(tar, EIO, "not readable");
        return -1;
    }
    source->has_asked_beyond = source->has_asked_beyond || given.empty();
    *buffer = given.data();
    return static_cast<la_ssize_t>(given.size());
}

// True if a call of libarchive had a result to work with. If not, the archive ends here.
bool archive_source::implementation::is_right(int result) {
    if (thrown) {
        std::rethrow_exception(std::exchange(thrown, nullptr));
    }
    if (result == ARCHIVE_OK || result == ARCHIVE_WARN) {
        return true;
    }
    if (result == ARCHIVE_FATAL && archive_errno(tar) == ENOMEM) {
        throw std::bad_alloc();
    }
    end_early();
    return false;
}

void archive_source::implementation::end(source_end kind, std::string reason) {
    state.end = kind;
    state.reason = std::move(reason);
    if (kind != source_end::whole && has_member) {
        state.cut_member = name;
        state.cut_member_bytes = member_bytes;
    }
}

void archive_source::implementation::end_early() {
    const bool is_damaged = bytes.end() == source_end::damaged;
    if (is_damaged || bytes.end() == source_end::cut) {
        end(bytes.end(), bytes.reason());
    } else if (state.members == 0) {
        end(source_end::damaged, bytes.unpacked() == 0 ? "it is empty" : "it is not a tar archive");
    } else if (has_asked_beyond) {
        end(source_end::cut, has_member ? "it ends within a member" : "it ends within a member's header");
    } else {
        end(source_end::damaged, "what follows " + name + " is not a member's header");
    }
}

// True if only zeros follow the last member.
bool archive_source::implementation::has_only_filler() {
    const uint64_t consumed = static_cast<uint64_t>(std::max<int64_t>(archive_filter_bytes(tar, 0), 0));
    if (last_used > consumed) {
        return false;
    }
    const uint64_t limit = bytes.unpacked() + filler_limit;
    for (std::span<const char> more = bytes.next(); !more.empty(); more = bytes.next()) {
        if (used_size(more) > 0 || bytes.unpacked() > limit) {
            return false;
        }
    }
    return true;
}

void archive_source::implementation::end_after_members() {
    const bool is_end = has_only_filler();
    if (state.members == 0) {
        end(source_end::damaged, "it has no members");
    } else if (is_end) {
        end(bytes.end(), bytes.reason());
    } else {
        end(source_end::damaged, "what follows " + name + " is not a member's header");
    }
}

// Takes the header that was read. False if it is not that of a file.
bool archive_source::implementation::enter(archive_entry* entry, source_member* member) {
    state.members++;
    name = name_of(entry);
    member_bytes = 0;
    has_member = true;
    member->name = name;
    member->size = static_cast<uint64_t>(std::max<int64_t>(archive_entry_size(entry), 0));
    return is_file(entry);
}

// Reads the next block of the current member. False at its end.
bool archive_source::implementation::next_block() {
    const void* start = nullptr;
    size_t size = 0;
    int64_t offset = 0;
    while (size == 0) {
        const int result = archive_read_data_block(tar, &start, &size, &offset);
        if (result == ARCHIVE_EOF || !is_right(result)) {
            has_member = result != ARCHIVE_EOF;
            return false;
        }
    }
    block = std::span(static_cast<const char*>(start), size);
    member_bytes += size;
    state.bytes += size;
    return true;
}

bool archive_source::implementation::next(source_member* member) {
    if (!is_open) {
        is_open = true;
        if (!is_right(archive_read_open(tar, this, nullptr, give_bytes, nullptr))) {
            return false;
        }
    }
    while (state.end == source_end::none) {
        block = {};
        while (has_member && state.end == source_end::none && next_block()) {
        }
        if (state.end != source_end::none) {
            break;
        }
        if (state.members == member_limit) {
            end(source_end::damaged,
                "it has more than " + std::to_string(member_limit) + " members, and the rest was not read");
            break;
        }
        archive_entry* entry = nullptr;
        const int result = archive_read_next_header(tar, &entry);
        if (result == ARCHIVE_EOF) {
            end_after_members();
        } else if (is_right(result) && enter(entry, member)) {
            return true;
        }
    }
    return false;
}

size_t archive_source::implementation::read(std::span<char> buffer) {
    if (block.empty() && !(has_member && state.end == source_end::none && next_block())) {
        return 0;
    }
    const size_t size = std::min(buffer.size(), block.size());
    std::copy_n(block.begin(), size, buffer.begin());
    block = block.subspan(size);
    return size;
}

archive_source::archive_source(byte_source read)
    : implementation_(std::make_unique<implementation>(std::move(read))) {}

archive_source::~archive_source() = default;

bool archive_source::next(source_member* member) {
    const bool has_next = implementation_->next(member);
    implementation_->state.is_compressed = implementation_->bytes.is_compressed();
    return has_next;
}

size_t archive_source::read(std::span<char> buffer) {
    return implementation_->read(buffer);
}

const source_state& archive_source::state() const {
    return implementation_->state;
}

}  // namespace archiveview
