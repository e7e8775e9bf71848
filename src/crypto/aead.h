#pragma once

#include <cstddef>

// AES in the authenticated modes GCM and CCM, one message at a time: the
// whole plaintext or ciphertext is at hand when the call is made (CCM
// needs its length before anything else, and a decryption may give out
// nothing before its tag held). libcrypto computes everything in the
// module's own library context. Functions return CRYPTO_OK or a negative
// code of crypto_errors.h.

enum { AEAD_GCM = 1, AEAD_CCM = 2 };

struct aead_message {
    const unsigned char* key;  // AES key of 16, 24 or 32 bytes
    size_t keyLen;
    const unsigned char* iv;   // GCM: 1 or more bytes; CCM: the nonce, 7 to 13 bytes
    size_t ivLen;
    const unsigned char* aad;  // additional data, may be null when aadLen is 0
    size_t aadLen;
    size_t tagLen;             // GCM: 1 to 16 bytes; CCM: 4, 6, ..., 16
};

// Encrypts len bytes of `in` into `out`, which takes len + tagLen bytes:
// the ciphertext, then the tag.
int aead_seal(int mode, const aead_message& message, const unsigned char* in, size_t len, unsigned char* out);
// Decrypts ciphertext-and-tag (len bytes, at least tagLen) into `out`,
// which takes len - tagLen bytes. CRYPTO_ERR_VERIFY_FAILED when the tag
// does not hold; `out` is then wiped.
int aead_open(int mode, const aead_message& message, const unsigned char* in, size_t len, unsigned char* out);
