// Reads any bytes as a flash partition: the newest record is printed, both directions print the same records,
// and no text is longer than its page.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "oops/flash_device.h"
#include "oops/oopslog.h"
#include "tests/fuzz/require.h"

namespace {

constexpr size_t short_page = 64;  // bytes of the input for each page, which repeats them

// Repeats each piece of the input over a whole page, so that small inputs give rings of several pages. A page
// with an incomplete piece is unreadable.
struct spread_flash {
    const uint8_t* data;
    size_t size;
};

bool read_spread(const void* source, uint64_t page, uint8_t* bytes) {
    const auto* flash = static_cast<const spread_flash*>(source);
    size_t start = static_cast<size_t>(page) * short_page;
    if (start + short_page > flash->size) {
        return false;
    }
    for (size_t at = 0; at < flash_page_size; at += short_page) {
        memcpy(bytes + at, flash->data + start, short_page);
    }
    return true;
}

void check_page(const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(flash_page_size, 0xff);
    std::copy_n(data, std::min(size, bytes.size()), bytes.begin());
    oops_page page = oops_page_parse(bytes.data());
    require(page.text.size() <= flash_page_size - 8);
    require(page.text.find('\xff') == std::string_view::npos);
    require(page.is_erased == (page.count == 0xffffffff));
}

// The characters of the whole output, sorted, so that they do not depend on the order of the records.
std::string sorted_print(const oops_ring& ring, int64_t newest, int step) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    require(out != nullptr);
    oops_print_ring(ring, newest, step, out);
    fclose(out);
    std::string all(text, size);
    free(text);
    require(all.empty() || all.starts_with("Log Entry "));
    std::sort(all.begin(), all.end());
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    check_page(data, size);
    spread_flash flash = {data, size};
    auto pages = static_cast<int64_t>((size + short_page - 1) / short_page);
    oops_ring ring = {pages, read_spread, &flash};
    oops_newest newest = oops_find_newest(ring);
    require(newest.position >= -1 && newest.position < pages);
    if (newest.position >= 0) {
        std::string forwards = sorted_print(ring, newest.position, 1);
        require(!forwards.empty() && forwards == sorted_print(ring, newest.position, -1));
    }
    return 0;
}
