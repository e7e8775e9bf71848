#include "crypto/md2.h"

#include <openssl/crypto.h>

#include <cstring>

namespace {

// A permutation of 0..255 built from the digits of pi; MD2's only non-linear
// element.
const unsigned char kPiSubst[256] = {
    41,  46,  67,  201, 162, 216, 124, 1,   61,  54,  84,  161, 236, 240, 6,   19,
    98,  167, 5,   243, 192, 199, 115, 140, 152, 147, 43,  217, 188, 76,  130, 202,
    30,  155, 87,  60,  253, 212, 224, 22,  103, 66,  111, 24,  138, 23,  229, 18,
    190, 78,  196, 214, 218, 158, 222, 73,  160, 251, 245, 142, 187, 47,  238, 122,
    169, 104, 121, 145, 21,  178, 7,   63,  148, 194, 16,  137, 11,  34,  95,  33,
    128, 127, 93,  154, 90,  144, 50,  39,  53,  62,  204, 231, 191, 247, 151, 3,
    255, 25,  48,  179, 72,  165, 181, 209, 215, 94,  146, 42,  172, 86,  170, 198,
    79,  184, 56,  210, 150, 164, 125, 182, 118, 252, 107, 226, 156, 116, 4,   241,
    69,  157, 112, 89,  100, 113, 135, 32,  134, 91,  207, 101, 230, 45,  168, 2,
    27,  96,  37,  173, 174, 176, 185, 246, 28,  70,  97,  105, 52,  64,  126, 15,
    85,  71,  163, 35,  221, 81,  175, 58,  195, 92,  249, 206, 186, 197, 234, 38,
    44,  83,  13,  110, 133, 40,  132, 9,   211, 223, 205, 244, 65,  129, 77,  82,
    106, 220, 55,  200, 108, 193, 171, 250, 36,  225, 123, 8,   12,  189, 177, 74,
    120, 136, 149, 139, 227, 99,  232, 109, 233, 203, 213, 254, 59,  0,   29,  57,
    242, 239, 183, 14,  102, 88,  208, 228, 166, 119, 114, 248, 235, 117, 75,  10,
    49,  68,  80,  180, 143, 237, 31,  26,  219, 153, 141, 51,  159, 17,  131, 20,
};

constexpr int kRounds = 18;

// Mixes one 16-byte block into the state and folds it into the checksum.
void processBlock(md2_state* s, const unsigned char* block)
{
    unsigned char* x = s->x;
    for (int j = 0; j < MD2_BLOCK_BYTES; ++j) {
        x[16 + j] = block[j];
        x[32 + j] = static_cast<unsigned char>(block[j] ^ x[j]);
    }

    unsigned t = 0;
    for (int round = 0; round < kRounds; ++round) {
        for (int k = 0; k < 48; ++k) {
            x[k] ^= kPiSubst[t];
            t = x[k];
        }
        t = (t + static_cast<unsigned>(round)) & 0xff;
    }

    // Each checksum byte is XORed with (not replaced by) the substituted
    // value; the reference implementation and the published digests agree
    // on this.
    unsigned char last = s->checksum[MD2_BLOCK_BYTES - 1];
    for (int j = 0; j < MD2_BLOCK_BYTES; ++j) {
        s->checksum[j] ^= kPiSubst[block[j] ^ last];
        last = s->checksum[j];
    }
}

} // namespace

void md2_init(md2_state* s)
{
    std::memset(s, 0, sizeof(*s));
}

void md2_update(md2_state* s, const unsigned char* data, size_t len)
{
    if (len == 0)
        return;

    if (s->buffered > 0) {
        size_t take = MD2_BLOCK_BYTES - s->buffered;
        if (take > len)
            take = len;
        std::memcpy(s->buffer + s->buffered, data, take);
        s->buffered += take;
        data += take;
        len -= take;
        if (s->buffered < MD2_BLOCK_BYTES)
            return;
        processBlock(s, s->buffer);
        s->buffered = 0;
    }

    while (len >= MD2_BLOCK_BYTES) {
        processBlock(s, data);
        data += MD2_BLOCK_BYTES;
        len -= MD2_BLOCK_BYTES;
    }

    if (len > 0) {
        std::memcpy(s->buffer, data, len);
        s->buffered = len;
    }
}

void md2_final(md2_state* s, unsigned char* digest)
{
    // Always pad, with 1 to 16 bytes each holding the pad length, so the
    // message fills a whole number of blocks.
    const size_t pad = MD2_BLOCK_BYTES - s->buffered;
    std::memset(s->buffer + s->buffered, static_cast<int>(pad), pad);
    processBlock(s, s->buffer);

    // The checksum is appended as one last block. Copy it first, since
    // processing the block updates the checksum in place.
    unsigned char sum[MD2_BLOCK_BYTES];
    std::memcpy(sum, s->checksum, sizeof(sum));
    processBlock(s, sum);

    std::memcpy(digest, s->x, MD2_DIGEST_BYTES);
    OPENSSL_cleanse(sum, sizeof(sum));
    OPENSSL_cleanse(s, sizeof(*s));
}
