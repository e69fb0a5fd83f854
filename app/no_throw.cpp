// Replaces what throws in the C++ library: without memory, or if a container is misused, the program ends.
// The library's own versions would link the whole unwinder, ten times the size of the code that uses it.
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
