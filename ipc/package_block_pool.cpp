#include "ipc/package_block_pool.h"

#include <cstdlib>
#include <mutex>
#include <vector>

namespace {

constexpr size_t kBatch = 128;                  // blocks moved per trip to the shared list
constexpr size_t kThreadCacheMax = 2 * kBatch;  // a thread's cache beyond this goes back
constexpr size_t kSharedMax = 32768;            // 4 MiB of idle blocks at most

struct SharedList {
    std::mutex mutex;
    std::vector<void*> blocks;
};

// Never destroyed: threads may return their caches while the process exits.
SharedList& Shared() {
    static SharedList* shared = new SharedList;
    return *shared;
}

struct ThreadCache {
    std::vector<void*> blocks;

    ~ThreadCache() {
        SharedList& shared = Shared();
        std::lock_guard<std::mutex> lock(shared.mutex);
        for (void* block : blocks) {
            if (shared.blocks.size() < kSharedMax) {
                shared.blocks.push_back(block);
            } else {
                free(block);
            }
        }
    }

    void refill() {
        SharedList& shared = Shared();
        std::lock_guard<std::mutex> lock(shared.mutex);
        const size_t take = shared.blocks.size() < kBatch ? shared.blocks.size() : kBatch;
        blocks.insert(blocks.end(), shared.blocks.end() - take, shared.blocks.end());
        shared.blocks.resize(shared.blocks.size() - take);
    }

    void spill() {
        SharedList& shared = Shared();
        std::lock_guard<std::mutex> lock(shared.mutex);
        for (size_t i = 0; i < kBatch; ++i) {
            void* block = blocks.back();
            blocks.pop_back();
            if (shared.blocks.size() < kSharedMax) {
                shared.blocks.push_back(block);
            } else {
                free(block);
            }
        }
    }
};

ThreadCache& Cache() {
    thread_local ThreadCache cache;
    return cache;
}

}  // namespace

void* PackageBlockPool::Allocate(size_t size) {
    if (size > BLOCK_SIZE) return malloc(size);
    ThreadCache& cache = Cache();
    if (cache.blocks.empty()) cache.refill();
    if (cache.blocks.empty()) return malloc(BLOCK_SIZE);
    void* block = cache.blocks.back();
    cache.blocks.pop_back();
    return block;
}

void PackageBlockPool::Release(void* block, size_t size) {
    if (block == nullptr) return;
    if (size > BLOCK_SIZE) {
        free(block);
        return;
    }
    ThreadCache& cache = Cache();
    cache.blocks.push_back(block);
    if (cache.blocks.size() > kThreadCacheMax) cache.spill();
}
