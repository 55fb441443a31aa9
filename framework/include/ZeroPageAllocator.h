// An allocator for vectors that are sized up front but written sparsely.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

// Zero pages from calloc, taken as already value-initialised: a vector of a million samples keeps
// its size without costing memory until an entry is written.
template <class T>
struct ZeroPageAllocator {
    static_assert(std::is_arithmetic<T>::value, "all-zero bytes must be the value zero");
    using value_type = T;

    ZeroPageAllocator() = default;
    template <class U>
    ZeroPageAllocator(const ZeroPageAllocator<U>&) {}

    T* allocate(size_t n) {
        void* p = n <= SIZE_MAX / sizeof(T) ? calloc(n, sizeof(T)) : nullptr;
        if (p == nullptr)
            throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t) { free(p); }
    template <class U>
    void construct(U*) {}  // the zero is there already
    template <class U, class... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
    template <class U>
    bool operator==(const ZeroPageAllocator<U>&) const {
        return true;
    }
    template <class U>
    bool operator!=(const ZeroPageAllocator<U>&) const {
        return false;
    }
};
