#pragma once
// Incremental message digests over the crypto core's hash engine:
//
//     Sha256 hasher;
//     hasher.update(part1);
//     hasher.update(part2);
//     ByteArray digest = hasher.final();
//
// or in one go: Sha256::Hash(bytes). Failures of the engine throw
// root_exception.

#include "deps/cpp_modules/ByteArray.h"

struct hash_context;

class Hasher {
public:
    Hasher(const Hasher&) = delete;
    Hasher& operator=(const Hasher&) = delete;
    virtual ~Hasher();

    void update(const ByteArray_constSlice& bytes);
    // The digest of everything fed so far; the hasher then starts afresh.
    ByteArray final();

protected:
    explicit Hasher(int hashId);
    static ByteArray hashOnce(int hashId, const ByteArray_constSlice& bytes);

private:
    int hashId_;
    hash_context* context_ = nullptr;
};

class Sha1 : public Hasher {
public:
    static const size_t DigestLength = 20;
    Sha1();
    static ByteArray Hash(const ByteArray_constSlice& bytes);
};

class Sha256 : public Hasher {
public:
    static const size_t DigestLength = 32;
    Sha256();
    static ByteArray Hash(const ByteArray_constSlice& bytes);
};

class Md5 : public Hasher {
public:
    static const size_t DigestLength = 16;
    Md5();
    static ByteArray Hash(const ByteArray_constSlice& bytes);
};
