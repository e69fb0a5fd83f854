// Memory through which a child that does not exec reports to its parent.
#pragma once

#include <sys/mman.h>

#include <new>
#include <type_traits>

// An object of type T, with its initial values, that is shared with processes forked later. Empty if memory
// runs out.
template <typename T>
class shared_object {
public:
    shared_object() {
        static_assert(std::is_trivially_destructible_v<T>);
        void* memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory != MAP_FAILED) {
            object_ = new (memory) T();
        }
    }
    shared_object(const shared_object&) = delete;
    shared_object& operator=(const shared_object&) = delete;
    ~shared_object() {
        if (object_) {
            munmap(object_, sizeof(T));
        }
    }

    explicit operator bool() const { return object_ != nullptr; }
    T* operator->() const { return object_; }
    T* get() const { return object_; }

private:
    T* object_ = nullptr;
};
