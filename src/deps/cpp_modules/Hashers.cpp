#include "deps/cpp_modules/Hashers.h"

#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "deps/cpp_modules/exceptions.h"

Hasher::Hasher(int hashId) : hashId_(hashId)
{
    if (start_hash(hashId_, &context_) != CRYPTO_OK) throw root_exception("Unable to start hash");
}

Hasher::~Hasher()
{
    abort_hash(context_);
}

void Hasher::update(const ByteArray_constSlice& bytes)
{
    if (do_hash(context_, bytes.data(), bytes.size()) != CRYPTO_OK) throw root_exception("Unable to hash data");
}

ByteArray Hasher::final()
{
    ByteArray digest(hash_digestLength(hashId_));
    hash_context* finished = context_;
    context_ = nullptr;
    if (stop_hash(finished, digest.data()) != CRYPTO_OK) throw root_exception("Unable to finish hash");
    if (start_hash(hashId_, &context_) != CRYPTO_OK) throw root_exception("Unable to start hash");
    return digest;
}

ByteArray Hasher::hashOnce(int hashId, const ByteArray_constSlice& bytes)
{
    ByteArray digest(hash_digestLength(hashId));
    if (hash_buffer(hashId, bytes.data(), bytes.size(), digest.data()) != CRYPTO_OK)
        throw root_exception("Unable to hash data");
    return digest;
}

Sha1::Sha1() : Hasher(HASH_SHA1) {}
ByteArray Sha1::Hash(const ByteArray_constSlice& bytes) { return hashOnce(HASH_SHA1, bytes); }

Sha256::Sha256() : Hasher(HASH_SHA256) {}
ByteArray Sha256::Hash(const ByteArray_constSlice& bytes) { return hashOnce(HASH_SHA256, bytes); }

Md5::Md5() : Hasher(HASH_MD5) {}
ByteArray Md5::Hash(const ByteArray_constSlice& bytes) { return hashOnce(HASH_MD5, bytes); }
