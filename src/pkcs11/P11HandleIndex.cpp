#include "pkcs11/P11HandleIndex.h"

#include <mutex>
#include <new>
#include <unordered_map>

namespace {

// Few enough that a fork can hold them all; enough that sessions opened one
// after the other land in different shards.
constexpr CK_ULONG kShards = 16;

struct Entry {
    void* pointer;
    P11HandleKind kind;
};

// One cache line per shard lock, so that look-ups in different shards do
// not disturb one another.
struct alignas(64) Shard {
    std::mutex mutex;
    std::unordered_map<CK_ULONG, Entry> entries;
};

}  // namespace

struct P11HandleIndex {
    bool ownLocks;
    Shard shards[kShards];
};

namespace {

Shard& shardOf(P11HandleIndex* index, CK_ULONG handle)
{
    return index->shards[handle % kShards];
}

// The shard's lock for a scope, when the index has locks of its own.
class ShardLock {
public:
    ShardLock(P11HandleIndex* index, Shard& shard) : mutex_(index->ownLocks ? &shard.mutex : nullptr)
    {
        if (mutex_) mutex_->lock();
    }
    ~ShardLock()
    {
        if (mutex_) mutex_->unlock();
    }
    ShardLock(const ShardLock&) = delete;
    ShardLock& operator=(const ShardLock&) = delete;

private:
    std::mutex* mutex_;
};

}  // namespace

CK_RV P11HandleIndex_construct(P11HandleIndex** index, bool ownLocks)
{
    *index = new (std::nothrow) P11HandleIndex;
    if (!*index) return CKR_HOST_MEMORY;
    (*index)->ownLocks = ownLocks;
    return CKR_OK;
}

void P11HandleIndex_destruct(P11HandleIndex** index)
{
    delete *index;
    *index = nullptr;
}

bool P11HandleIndex_hasOwnLocks(const P11HandleIndex* index)
{
    return index->ownLocks;
}

CK_RV P11HandleIndex_insert_inlock(P11HandleIndex* index, CK_ULONG handle, P11HandleKind kind, void* pointer)
{
    Shard& shard = shardOf(index, handle);
    ShardLock lock(index, shard);
    try {
        shard.entries[handle] = Entry{pointer, kind};
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    }
    return CKR_OK;
}

void P11HandleIndex_erase_inlock(P11HandleIndex* index, CK_ULONG handle)
{
    Shard& shard = shardOf(index, handle);
    ShardLock lock(index, shard);
    shard.entries.erase(handle);
}

void* P11HandleIndex_find(P11HandleIndex* index, CK_ULONG handle, P11HandleKind kind, void (*retain)(void*))
{
    Shard& shard = shardOf(index, handle);
    ShardLock lock(index, shard);
    const auto found = shard.entries.find(handle);
    if (found == shard.entries.end() || found->second.kind != kind) return nullptr;
    retain(found->second.pointer);
    return found->second.pointer;
}

void P11HandleIndex_lockAll(P11HandleIndex* index)
{
    if (!index->ownLocks) return;
    for (Shard& shard : index->shards) shard.mutex.lock();
}

void P11HandleIndex_unlockAll(P11HandleIndex* index)
{
    if (!index->ownLocks) return;
    for (CK_ULONG i = kShards; i-- > 0;) index->shards[i].mutex.unlock();
}
