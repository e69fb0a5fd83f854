#include "tools/rtraceview/page_assets.h"

// The build defines where each file is. Its bytes become a part of the program.
#define PAGE_ASSET(name, file)                                                  \
    asm(".pushsection .rodata\n" #name "_begin:\n.incbin \"" file "\"\n" #name  \
        "_end:\n"                                                               \
        ".byte 0\n.popsection\n");                                              \
    extern "C" const char name##_begin[] __attribute__((visibility("hidden"))); \
    extern "C" const char name##_end[] __attribute__((visibility("hidden")));   \
    std::string_view name() {                                                   \
        return {name##_begin, static_cast<size_t>(name##_end - name##_begin)};  \
    }

PAGE_ASSET(page_asset_library, PAGE_LIBRARY)
PAGE_ASSET(page_asset_library_style, PAGE_LIBRARY_STYLE)
PAGE_ASSET(page_asset_style, PAGE_STYLE)
PAGE_ASSET(page_asset_script, PAGE_SCRIPT)
