#pragma once

#include <cstddef>

// Ciphers of the crypto core: the block ciphers DES, two- and three-key
// triple DES, AES and RC2 in ECB and CBC mode, run over whole blocks, and
// the stream cipher RC4, whose "block" is one byte. Buffering of partial
// blocks and padding are the caller's, so that it always knows exactly how
// much output a call gives. libcrypto computes every block in the module's
// own library context (DES from its legacy provider); a context's key
// schedule is wiped when it is freed. Functions return CRYPTO_OK or a
// negative code of crypto_errors.h.

enum { CIPHER_DES = 1, CIPHER_DES2 = 2, CIPHER_DES3 = 3, CIPHER_AES = 4, CIPHER_RC2 = 5, CIPHER_RC4 = 6 };
enum { CIPHER_ECB = 1, CIPHER_CBC = 2, CIPHER_STREAM = 3 };

struct cipher_context;

// Starts a cipher. The key has the algorithm's length (DES 8, DES2 16, DES3
// 24, AES 16, 24 or 32, RC2 1 to 128, RC4 1 to 256; else
// CRYPTO_ERR_BAD_PARAMETER); CBC takes an IV of one block; RC4 runs in
// CIPHER_STREAM mode only. RC2 takes its effective key bits (1 to 1024).
// CRYPTO_ERR_UNSUPPORTED when libcrypto lacks the algorithm.
int cipher_start(int algorithm, int mode, bool encrypt, const unsigned char* key, size_t keyLen,
                 const unsigned char* iv, cipher_context** ctx, unsigned rc2EffectiveBits = 0);
// Block length in bytes (8 or 16; 1 for RC4).
size_t cipher_block_size(int algorithm);
// Enciphers or deciphers len bytes, a multiple of the block length.
int cipher_blocks(cipher_context* ctx, const unsigned char* in, size_t len, unsigned char* out);
// A copy of a running cipher, state included.
int cipher_clone(const cipher_context* ctx, cipher_context** copy);
// Wipes and frees; null is ignored.
void cipher_free(cipher_context* ctx);
