// Any bytes as an archive: its facts are collected and shown as text. The facts do not depend on the sizes of
// the reads, an archive is whole only if the file ends as its format says, and the text fits a terminal.
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <cstring>

#include "tests/fuzz/require.h"
#include "tools/archiveview/collect.h"
#include "tools/archiveview/findings/findings.h"
#include "tools/archiveview/views/text_lines.h"
#include "tools/archiveview/views/text_view.h"

namespace {

struct viewed {
    archiveview::source_state source;
    archiveview::archive_facts facts;
    std::string text;
};

viewed view(const uint8_t* data, size_t size, size_t piece) {
    size_t offset = 0;
    archiveview::archive_source source([&](std::span<char> to) {
        const size_t count = std::min({to.size(), piece, size - offset});
        memcpy(to.data(), data + offset, count);
        offset += count;
        return count;
    });
    viewed all;
    archiveview::core_options cores;
    cores.stacks = false;
    all.facts = collect_facts(&source, cores);
    all.source = source.state();
    all.text = text_view(all.facts, find_all(all.facts));
    return all;
}

void check_text(const std::string& text) {
    size_t lines = 0, width = 0;
    for (const char byte : text) {
        require(byte == '\n' || static_cast<unsigned char>(byte) >= ' ');
        lines += byte == '\n' ? 1 : 0;
        width = byte == '\n' ? 0 : width + ((byte & 0xc0) != 0x80 ? 1 : 0);
        require(width <= archiveview::text_lines::width);
    }
    require(lines <= 40);
}

constexpr size_t block_size = 512, checksum_at = 148, checksum_size = 8, magic_at = 257;

bool is_header(const uint8_t* block) {
    return memcmp(block + magic_at, "ustar", 5) == 0;
}

void set_checksum(uint8_t* block) {
    memset(block + checksum_at, ' ', checksum_size);
    unsigned sum = 0;
    for (size_t i = 0; i < block_size; i++) {
        sum += block[i];
    }
    char text[checksum_size + 1];
    (void)snprintf(text, sizeof text, "%06o", sum & 0777777);
    memcpy(block + checksum_at, text, checksum_size - 1);
}

}  // namespace

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t limit);

// Most changes make a header's checksum wrong, which would hide what the header says. So it is made right.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t limit, unsigned /*seed*/) {
    const size_t length = LLVMFuzzerMutate(data, size, limit);
    for (size_t at = 0; at + block_size <= length; at += block_size) {
        if (is_header(data + at)) {
            set_checksum(data + at);
        }
    }
    return length;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const viewed once = view(data, size, SIZE_MAX);
    const viewed pieces = view(data, size, 7);
    // Of several kinds of damage, the sizes of the reads decide which one is found first.
    require(once.source.end == pieces.source.end);
    require(once.source.end == archiveview::source_end::damaged || once.text == pieces.text);
    const archiveview::archive_summary& archive = once.facts.archive;
    require(once.source.end != archiveview::source_end::none);
    require(archive.is_readable == (archive.members > 0));
    require(archive.state != archiveview::archive_state::whole ||
            (once.source.end == archiveview::source_end::whole && archive.missing.empty()));
    require(archive.state == archiveview::archive_state::whole || !archive.reason.empty());
    check_text(once.text);
    return 0;
}
