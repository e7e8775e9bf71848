#include "certificates/biginteger.h"

#include "crypto/crypto_errors.h"
#include "crypto/map.h"
#include "deps/cpp_modules/exceptions.h"

namespace {

map_int* newNumber()
{
    map_int* value = nullptr;
    if (map_new(&value) != CRYPTO_OK || !value)
        throw root_exception("BigInteger: out of memory");
    return value;
}

}  // namespace

void BigInteger::Deleter::operator()(map_int* value) const
{
    map_free(value);
}

BigInteger::BigInteger() : value_(newNumber()) {}

BigInteger::BigInteger(const ByteArray_constSlice& bigEndian) : value_(newNumber())
{
    if (map_from_bytes(value_.get(), bigEndian.data(), bigEndian.size()) != CRYPTO_OK)
        throw root_exception("BigInteger: cannot read number");
}

BigInteger::BigInteger(const BigInteger& other) : value_(newNumber())
{
    if (map_copy(value_.get(), other.get()) != CRYPTO_OK)
        throw root_exception("BigInteger: cannot copy number");
}

BigInteger& BigInteger::operator=(const BigInteger& other)
{
    if (this != &other) {
        BigInteger copy(other);
        value_ = std::move(copy.value_);
    }
    return *this;
}

BigInteger::~BigInteger() = default;

ByteArray BigInteger::toByteArray() const
{
    ByteArray bytes(map_num_bytes(get()));
    size_t length = bytes.size();
    if (map_to_bytes(get(), bytes.data(), &length) != CRYPTO_OK)
        throw root_exception("BigInteger: cannot write number");
    bytes.resize(length);
    return bytes;
}

size_t BigInteger::bitLength() const
{
    return map_num_bits(get());
}

bool BigInteger::isZero() const
{
    return map_is_zero(get());
}

int BigInteger::compare(const BigInteger& other) const
{
    return map_compare(get(), other.get());
}
