// PackageBlockPool: recycles the small blocks that queued packages live in.
//
// A record is built into a block on a producer thread and freed on the socket
// thread once it has been copied to every subscriber. The general allocator
// keeps only a handful of freed blocks per thread, so a steady stream from
// one thread to another sends nearly every allocation and free through its
// shared, locked paths. This pool moves freed blocks back to the producers in
// batches instead: each thread keeps a small cache, and whole batches pass
// through one shared list under one lock.
//
//   void* block = PackageBlockPool::Allocate(size);   // nullptr: no memory
//   ...
//   PackageBlockPool::Release(block, size);           // the same size
//
// Blocks of up to BLOCK_SIZE bytes come from the pool; larger sizes go to the
// allocator directly. The shared list is bounded (the pool never holds more
// than a few MiB); blocks beyond that are freed. Threading: any thread; a
// thread's cache is returned to the shared list when the thread ends.
#pragma once

#include <cstddef>

class PackageBlockPool {
public:
    static constexpr size_t BLOCK_SIZE = 128;

    static void* Allocate(size_t size);
    static void Release(void* block, size_t size);
};
