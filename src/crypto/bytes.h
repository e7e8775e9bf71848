#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <new>
#include <vector>

// Byte strings of the crypto core. Most of them carry key material or
// plaintext, so their memory is wiped whenever it is given back: on
// destruction and on every reallocation a growing vector makes.

template <typename T>
struct crypto_wiping_allocator {
    using value_type = T;
    crypto_wiping_allocator() = default;
    template <typename U>
    crypto_wiping_allocator(const crypto_wiping_allocator<U>&) noexcept {}
    T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T))); }
    void deallocate(T* p, std::size_t n) noexcept
    {
        OPENSSL_cleanse(p, n * sizeof(T));
        ::operator delete(p);
    }
    template <typename U>
    bool operator==(const crypto_wiping_allocator<U>&) const noexcept { return true; }
    template <typename U>
    bool operator!=(const crypto_wiping_allocator<U>&) const noexcept { return false; }
};

using crypto_bytes = std::vector<unsigned char, crypto_wiping_allocator<unsigned char>>;
