// Makes the bytes of a file a part of the program.
#pragma once

#include <stddef.h>

#include <string_view>

// Defines the function `name`, which returns the content of `file`, a path that the build knows.
#define PAGE_ASSET(name, file)                                                  \
    asm(".pushsection .rodata\n" #name "_begin:\n.incbin \"" file "\"\n" #name  \
        "_end:\n"                                                               \
        ".byte 0\n.popsection\n");                                              \
    extern "C" const char name##_begin[] __attribute__((visibility("hidden"))); \
    extern "C" const char name##_end[] __attribute__((visibility("hidden")));   \
    std::string_view name() {                                                   \
        return {name##_begin, static_cast<size_t>(name##_end - name##_begin)};  \
    }
