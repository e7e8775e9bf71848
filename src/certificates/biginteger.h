#pragma once
// Non-negative integer of any size over the crypto core's map_int.

#include <cstddef>
#include <memory>

#include "deps/cpp_modules/ByteArray.h"

struct map_int;

class BigInteger {
public:
    // Zero.
    BigInteger();
    // From unsigned big-endian bytes; leading zero bytes are allowed.
    explicit BigInteger(const ByteArray_constSlice& bigEndian);
    BigInteger(const BigInteger& other);
    BigInteger& operator=(const BigInteger& other);
    BigInteger(BigInteger&&) noexcept = default;
    BigInteger& operator=(BigInteger&&) noexcept = default;
    ~BigInteger();

    // Minimal big-endian bytes; zero gives no bytes.
    ByteArray toByteArray() const;
    size_t bitLength() const;
    bool isZero() const;
    // -1, 0 or 1.
    int compare(const BigInteger& other) const;
    bool operator==(const BigInteger& other) const { return compare(other) == 0; }
    bool operator!=(const BigInteger& other) const { return compare(other) != 0; }

    const map_int* get() const { return value_.get(); }

private:
    struct Deleter {
        void operator()(map_int* value) const;
    };
    std::unique_ptr<map_int, Deleter> value_;
};
