#pragma once
// The PKCS #1 encodings shared by the RSA mechanisms: version 1.5 block
// padding and its removal, the mask generation function MGF1, EMSA-PSS
// encoding and verification (v2.1) and EME-OAEP with SHA-1 and MGF1-SHA-1
// (v2.0). They work on byte buffers only; the caller owns every buffer and
// performs the RSA operation itself.
//
// Two return conventions, on purpose: the version 1.5 and OAEP codecs return
// 0 for success and -1 for any failure (their callers map -1 onto a CK_RV),
// while MGF1 and the PSS codecs return CK_RV values. Hash identifiers are
// those of crypto/hash.h. After a failure the output buffer holds nothing a
// caller may use.

#include "pkcs11/cryptoki.h"

struct P11Session;
struct csprgbg_state;

// Builds the k-byte block 00 || bt || PS || 00 || data. PS is 0xFF bytes for
// block type 1 and non-zero bytes drawn from the C library's rand() for block
// type 2 (deliberately not the token's generator). PS may be empty: the only
// length rule is dataLen + 3 <= k; the k - 11 limit is the caller's business.
// Returns 0, or -1 for a block type other than 1 or 2, data that does not fit
// or null buffers.
int pkcs11_pad_pkcs1_block(int bt, CK_BYTE* block, CK_ULONG k, const CK_BYTE* data, CK_ULONG dataLen);

// Removes block type bt (0, 1 or 2) padding from a len-byte block. The block
// must start 00 || bt. For type 0 the data starts at the first non-zero byte
// from index 2; for types 1 and 2 it follows the first zero byte from index 2
// on. The padding bytes are not checked and no minimum length is enforced.
// With out null *outLen receives the data length. Otherwise *outLen is the
// capacity of out: too small gives -1 and leaves *outLen alone, else the data
// is copied and *outLen set to its length. A block without a separator, or
// one too short to hold the header, gives -1.
int pkcs11_unpad_pkcs1_block(int bt, const CK_BYTE* block, CK_ULONG len, CK_BYTE* out, CK_ULONG* outLen);

// Writes maskLen bytes of MGF1 over the given hash to mask. maskLen 0 writes
// nothing and succeeds. CKR_GENERAL_ERROR for any hash failure (including an
// unknown hash), CKR_ARGUMENTS_BAD for null buffers.
CK_RV MGF1(int hashId, const CK_BYTE* seed, CK_ULONG seedLen, CK_BYTE* mask, CK_ULONG maskLen);
// MGF1 with SHA-1.
CK_RV MGF1_SHA1(const CK_BYTE* seed, CK_ULONG seedLen, CK_BYTE* mask, CK_ULONG maskLen);

// EMSA-PSS encoding of the message digest mHash (hLen bytes, hashed with
// hashId) into an emBits-bit encoding of ceil(emBits / 8) bytes. The mask is
// MGF1 over mgfHashId; the sLen salt bytes come from the session's random
// generator (P11Session_generateRandom), so a session is required when sLen
// is not 0.
// EM null: *emLen receives the encoded length, CKR_OK. *emLen smaller than
// that: it receives the length, CKR_BUFFER_TOO_SMALL. Unknown hashId:
// CKR_MECHANISM_INVALID. hLen not the digest length of hashId, or emBits not
// above 8 * (hLen + sLen + 1): CKR_DATA_LEN_RANGE. The generator's error is
// returned as it is; hash failures give CKR_GENERAL_ERROR, allocation
// failures CKR_HOST_MEMORY. On success *emLen is the encoded length.
CK_RV EMSA_PSS_ENCODE(const CK_BYTE* mHash, CK_ULONG hLen, CK_BYTE* EM, CK_ULONG* emLen, CK_ULONG emBits,
                      int hashId, int mgfHashId, CK_ULONG sLen, P11Session* session);

// Checks that the emLen-byte EM is an EMSA-PSS encoding of mHash (hLen
// bytes) with emBits bits and an sLen-byte salt. CKR_OK when it is.
// Unknown hashId: CKR_MECHANISM_INVALID. hLen not the digest length of
// hashId, or emLen not ceil(emBits / 8): CKR_DATA_LEN_RANGE. Any defect of
// the encoding, including emBits too small for hLen and sLen:
// CKR_SIGNATURE_INVALID. Hash failures while unmasking or starting the
// final hash give CKR_GENERAL_ERROR; a failure finishing it gives
// CKR_SIGNATURE_INVALID.
CK_RV EMSA_PSS_VERIFY(const CK_BYTE* mHash, CK_ULONG hLen, const CK_BYTE* EM, CK_ULONG emLen, CK_ULONG emBits,
                      int hashId, int mgfHashId, CK_ULONG sLen);

// EME-OAEP encoding of the mLen-byte message M with encoding parameter P
// (pLen bytes, may be null when pLen is 0) into EM of emLen bytes, emLen
// being the modulus length minus one (the leading zero byte is the
// caller's). The 20-byte seed is drawn from rng. Returns 0; -1 when mLen >
// emLen - 41, for null buffers and for allocation or hash failures; the
// generator's negative error code when it fails.
int OAEP_ENCODE_SHA1_SHA1(const CK_BYTE* M, CK_ULONG mLen, const CK_BYTE* P, CK_ULONG pLen, CK_BYTE* EM,
                          CK_ULONG emLen, csprgbg_state* rng);

// Decodes the emLen-byte EME-OAEP encoding EM (leading zero byte already
// checked and removed by the caller) with encoding parameter P. With out
// null *outLen receives the message length, 0. Otherwise *outLen is the
// capacity of out: too small gives the length in *outLen and -1, else the
// message is copied, *outLen set and 0 returned. Any defect of the encoding
// (emLen < 41, no 0x01 separator, a wrong parameter hash) gives -1.
int OAEP_DECODE_SHA1_SHA1(const CK_BYTE* EM, CK_ULONG emLen, const CK_BYTE* P, CK_ULONG pLen, CK_BYTE* out,
                          CK_ULONG* outLen);

// EME-OAEP of PKCS #1 v2.1 with any hash of crypto/hash.h for the label and
// for MGF1 (they may differ). Same conventions as the SHA-1 pair above,
// except that the caller supplies the seed (hLen bytes, drawn from the
// token's generator) and that an unknown hash gives -1. The SHA-1 pair is
// this code with both hashes SHA-1.
int OAEP_ENCODE(int hashId, int mgfHashId, const CK_BYTE* M, CK_ULONG mLen, const CK_BYTE* P, CK_ULONG pLen,
                const CK_BYTE* seed, CK_BYTE* EM, CK_ULONG emLen);
int OAEP_DECODE(int hashId, int mgfHashId, const CK_BYTE* EM, CK_ULONG emLen, const CK_BYTE* P, CK_ULONG pLen,
                CK_BYTE* out, CK_ULONG* outLen);
