// What the C++ library throws where there are no exceptions: running out of memory and misuse of a container
// end the program. Without these replacements the library's own versions bring the whole unwinder along, ten
// times the size of the code that uses it.
#include <stdlib.h>

#include <cstddef>
#include <new>

void* operator new(std::size_t size) {
    void* memory = malloc(size ? size : 1);
    if (!memory) {
        abort();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    free(memory);
}

namespace std {

void __throw_length_error(const char*) {
    abort();
}

void __throw_logic_error(const char*) {
    abort();
}

void __throw_out_of_range_fmt(const char*, ...) {
    abort();
}

void __throw_bad_alloc() {
    abort();
}

}  // namespace std
