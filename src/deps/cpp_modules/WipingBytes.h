#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

// The one wiping buffer of the library. Key values, plaintext, helper
// results and every byte string that may hold them live in vectors with
// this allocator: their memory is wiped (OPENSSL_cleanse) whenever it is
// given back, on destruction and on each reallocation a growing vector
// makes, so no copy of a secret is left behind in freed memory.

template <typename T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() = default;
    template <typename U>
    WipingAllocator(const WipingAllocator<U>&) noexcept
    {
    }
    T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T))); }
    void deallocate(T* p, std::size_t n) noexcept
    {
        OPENSSL_cleanse(p, n * sizeof(T));
        ::operator delete(p);
    }
    template <typename U>
    bool operator==(const WipingAllocator<U>&) const noexcept
    {
        return true;
    }
    template <typename U>
    bool operator!=(const WipingAllocator<U>&) const noexcept
    {
        return false;
    }
};

using WipingBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

// Wipes and frees memory of `length` bytes from malloc (null is ignored).
inline void wipeAndFree(void* memory, std::size_t length) noexcept
{
    if (!memory) return;
    OPENSSL_cleanse(memory, length);
    std::free(memory);
}
