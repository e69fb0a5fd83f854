#include "tools/dcore/collect.h"

#include <string.h>
#include <unistd.h>

#include "tools/dcore/filter.h"
#include "tools/dcore/mappings.h"
#include "tools/dcore/residence.h"

namespace {

struct collection {
    target_memory* memory;
    uint64_t filter;
    page_map pages;
    core_layout layout;
};

bool program_begins(target_memory* memory, uint64_t address) {
    unsigned char magic[SELFMAG];
    memory_piece piece = {address, sizeof magic};
    memory_read(memory, {&piece, 1}, magic);
    return memcmp(magic, ELFMAG, SELFMAG) == 0;
}

void take_range(uint64_t from, uint64_t to, void* cookie) {
    layout_add_content(static_cast<core_layout*>(cookie), from, to);
}

void take_content(collection* all, const core_mapping& mapping, core_content content) {
    switch (content) {
        case core_content::left_out:
        case core_content::none:
            return;
        case core_content::head:
            if (program_begins(all->memory, mapping.start)) {
                layout_add_content(&all->layout, mapping.start, mapping.start + all->layout.page);
            }
            return;
        case core_content::touched:
            residence_walk(&all->pages, mapping, take_range, &all->layout);
            return;
        case core_content::whole:
            layout_add_content(&all->layout, mapping.start, mapping.end);
            return;
    }
}

void take_mapping(const core_mapping& mapping, void* cookie) {
    auto* all = static_cast<collection*>(cookie);
    core_content content = filter_choose(mapping, all->filter);
    if (content == core_content::left_out) {
        return;
    }
    unsigned flags =
        (mapping.readable ? PF_R : 0) | (mapping.writable ? PF_W : 0) | (mapping.executable ? PF_X : 0);
    layout_add_mapping(&all->layout, mapping.start, mapping.end, flags);
    if (mapping.is_file) {
        layout_add_file(&all->layout, mapping.start, mapping.end, mapping.offset, mapping.path);
    }
    take_content(all, mapping, content);
}

}  // namespace

core_layout collect_layout(target_memory* memory, pid_t tid, uint64_t filter) {
    collection all = {memory, filter, residence_open(tid), layout_new(static_cast<uint64_t>(getpagesize()))};
    mappings_walk(tid, take_mapping, &all);
    return std::move(all.layout);
}
