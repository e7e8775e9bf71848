#pragma once

#include <cstddef>

// MD2 message digest (RFC 1319), written here because OpenSSL 3 no longer
// provides it. Only kept for verifying and producing old signatures that
// use it; it is not a secure hash.

enum { MD2_BLOCK_BYTES = 16, MD2_DIGEST_BYTES = 16 };

struct md2_state {
    unsigned char x[48];                        // running state; x[0..15] is the digest
    unsigned char checksum[MD2_BLOCK_BYTES];    // checksum over every block so far
    unsigned char buffer[MD2_BLOCK_BYTES];      // bytes not yet forming a whole block
    size_t buffered;                            // number of valid bytes in buffer
};

void md2_init(md2_state* s);
// Adds `len` bytes; `data` may be null when `len` is 0.
void md2_update(md2_state* s, const unsigned char* data, size_t len);
// Writes MD2_DIGEST_BYTES bytes to `digest` and wipes the state.
void md2_final(md2_state* s, unsigned char* digest);
