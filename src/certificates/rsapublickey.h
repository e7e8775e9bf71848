#pragma once
// RSA public key taken from a certificate's SubjectPublicKeyInfo.

#include "certificates/biginteger.h"
#include "deps/cpp_modules/ByteArray.h"

class RsaPublicKey {
public:
    RsaPublicKey(const BigInteger& modulus, const BigInteger& publicExponent)
        : modulus_(modulus), publicExponent_(publicExponent) {}

    // From the complete DER of a SubjectPublicKeyInfo. Throws asn1::parse_error
    // when the algorithm is not rsaEncryption or the key is malformed, and the
    // reader's exceptions on broken DER.
    static RsaPublicKey FromPublicKeyInfo(const ByteArray_constSlice& publicKeyInfo);
    // From the DER of an RSAPublicKey SEQUENCE { modulus, publicExponent }.
    static RsaPublicKey FromRsaPublicKey(const ByteArray_constSlice& rsaPublicKey);

    const BigInteger& modulus() const { return modulus_; }
    const BigInteger& publicExponent() const { return publicExponent_; }
    // Minimal unsigned big-endian bytes (no sign byte).
    ByteArray getModulus() const { return modulus_.toByteArray(); }
    ByteArray getPublicExponent() const { return publicExponent_.toByteArray(); }

private:
    BigInteger modulus_;
    BigInteger publicExponent_;
};
