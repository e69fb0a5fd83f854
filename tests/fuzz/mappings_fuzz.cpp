// Parses any bytes as the files of a process that the dumper reads: mappings, stat and status. Parsed values
// are valid, and the sizes of a core planned from them add up.
#include <stdint.h>

#include <string_view>

#include "tests/fuzz/require.h"
#include "tools/dcore/filter.h"
#include "tools/dcore/layout.h"
#include "tools/dcore/mappings.h"
#include "tools/dcore/process.h"

namespace {

constexpr uint64_t page = 4096;

// Plans mappings in order and on page boundaries, as the kernel lists them, with every second page as
// content.
void plan(core_layout* layout, const core_mapping& mapping, uint64_t* last_end) {
    if (mapping.start % page != 0 || mapping.end % page != 0 || mapping.start < *last_end) {
        return;
    }
    *last_end = mapping.end;
    layout_add_mapping(layout, mapping.start, mapping.end, 0);
    if (filter_choose(mapping, 0x33) != core_content::none) {
        for (uint64_t at = mapping.start; at < mapping.end && at < mapping.start + 16 * page;
             at += 2 * page) {
            layout_add_content(layout, at, at + page);
        }
    }
    if (mapping.is_file) {
        layout_add_file(layout, mapping.start, mapping.end, mapping.offset, mapping.path);
    }
}

void check_plan(const core_layout& layout) {
    uint64_t content = 0, last_end = 0;
    for (const core_segment& segment : layout.segments) {
        require(segment.start() >= last_end && segment.end > segment.start());
        require(segment.content <= segment.end - segment.start());
        last_end = segment.end;
        content += segment.content;
    }
    core_places places = layout_places(layout, 100);
    require(places.length == places.content + content && places.content % page == 0);
    require(layout.segments.size() <= layout.mappings + layout.spare_segments);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size), rest = text;
    core_layout layout = layout_new(page);
    layout.spare_segments = 8;
    core_mapping mapping;
    uint64_t last_end = 0;
    while (!rest.empty()) {
        std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(line.size() < rest.size() ? line.size() + 1 : rest.size());
        if (mapping_parse_head(line, &mapping)) {
            require(mapping.start < mapping.end && mapping.path.size() <= line.size());
            plan(&layout, mapping, &last_end);
        } else {
            mapping_add_detail(&mapping, line);
        }
    }
    check_plan(layout);
    process_stat stat;
    if (process_parse_stat(text, &stat)) {
        require(stat.name.size() < size && stat.parent >= INT32_MIN);
    }
    process_status status;
    if (process_parse_status(text, &status)) {
        require(status.process != 0);
    }
    (void)process_parse_filter(text);
    return 0;
}
