// IpcPackageManager: the outgoing package queue of one connection.
//
// Producers build typed packages into it (each append copies the caller's
// bytes into one fresh block, built before the queue lock is taken); the
// connection's write handler drains it frame by frame into the write buffer,
// in queue order, never cutting a frame. A slow reader cannot make the queue
// grow without bound: an append that finds more than 10000 packages queued
// drops the oldest until 5000 remain (recorded with error codes 3 to 6).
//
//   mgr.buildAndAppendSecondIpcPackage(IPC_PACKAGE_EVENT, record, len);
//   server->notifyNeedWriteData(fd);
//   ... on the socket thread:  mgr.fillNextIpcPackagesToBuffer(buf);
//
// A package meant for many queues (one record, many subscribers) is built
// once and shared: every block carries a count of the queues holding it.
//
//   QuorIpcPackage p = IpcPackageManager::BuildSharedSecondIpcPackage(3, rec, len);
//   for (each queue) queue.appendSharedIpcPackage(p);
//   IpcPackageManager::ReleaseSharedIpcPackage(p);
//
// A run of records bound for the same queues can be shared the same way as
// one block of ready frames (BuildSharedFrames, appendSharedFrames): one
// queue entry and one copy per queue for the whole run. Every bound counts
// packages, whichever way they were queued: a run of n frames is n packages,
// and the overflow rule and the filling treat it frame by frame.
//
// Threading: any number of producers and one consumer; every queue operation
// takes the queue's own mutex and no other lock while holding it.
// getIpcPackageCount() and notifyEventReady() take no lock.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

#include "ipc/ipc_package.h"

class IpcPackageManager {
public:
    // Queue bound: an append that finds more than QUEUE_HIGH_WATER packages
    // drops the oldest until QUEUE_LOW_WATER remain.
    static constexpr size_t QUEUE_HIGH_WATER = 10000;
    static constexpr size_t QUEUE_LOW_WATER = 5000;

    IpcPackageManager() = default;
    ~IpcPackageManager();
    IpcPackageManager(const IpcPackageManager&) = delete;
    IpcPackageManager& operator=(const IpcPackageManager&) = delete;

    // Response package (type 1): 24-byte header then resp->dataSize bytes.
    void appendRespIpcPackage(QuorRespIpcPackage* resp);
    // Request package (type 0): 12-byte header then req->dataSize bytes.
    void appendReqIpcPackage(QuorReqIpcPackage* req);
    // `size` caller-built bytes queued as the typed package unchanged.
    void buildAndAppendIpcPackage(char* data, unsigned long size);
    // Typed package of `type` (0 to 3) with `len` body bytes; false for any
    // other type or a body too long for the 32-bit length field.
    bool buildAndAppendSecondIpcPackage(unsigned int type, char* data, unsigned long len);

    // A typed package to be queued on several queues; packageData is null
    // when it cannot be built (type above 3, body too long, no memory). The
    // builder holds it until ReleaseSharedIpcPackage.
    static QuorIpcPackage BuildSharedSecondIpcPackage(unsigned int type, char* data,
                                                      unsigned long len);
    // What appends under a caller's lock left to do after it: the report of
    // the queues that overflowed.
    struct Overflow {
        size_t queues = 0;
    };
    // Queues a hold on a shared package (overflow rule as above, error code
    // 4). Returns the number of packages queued before it (0: the writer
    // may have gone idle and must be told). With `overflow` given, an
    // overflow's report is left there, for the caller to finish with
    // FinishOverflow() once it holds no lock.
    size_t appendSharedIpcPackage(const QuorIpcPackage& package, Overflow* overflow = nullptr);
    // Reports the overflows (error code 4). Overflow reports come in floods
    // when clients stop reading: at most a few are written, then one per
    // interval, each counting those held back.
    static void FinishOverflow(Overflow* overflow);
    static void ReleaseSharedIpcPackage(const QuorIpcPackage& package);
    // `size` bytes of whole frames (each an 8-byte length and its typed
    // package), copied into one block to be queued on several queues;
    // *count is set to the number of frames. packageData is null when the
    // bytes are not whole frames or there is no memory. The builder holds it
    // until ReleaseSharedIpcPackage.
    static QuorIpcPackage BuildSharedFrames(const char* frames, uint64_t size, uint32_t* count);
    // Queues a hold on a block of `count` frames from BuildSharedFrames;
    // otherwise as appendSharedIpcPackage (the overflow rule as if each frame
    // had been appended by itself).
    size_t appendSharedFrames(const QuorIpcPackage& frames, uint32_t count,
                              Overflow* overflow = nullptr);

    // Moves the front package into the buffer as one frame. False when the
    // queue is empty, when the frame does not fit the room left (it stays
    // first) or when it can never fit the buffer (dropped, error code 8).
    bool fillNextIpcPackageToBuffer(BufferState* state);
    // As many whole frames as fit; false for an empty queue or after dropping
    // a package that can never fit (error code 7).
    bool fillIpcPackageToBuffer(BufferState* state);
    // As many whole frames as fit, in queue order; a package that can never
    // fit is dropped (error code 8) and filling goes on behind it. Returns
    // the number of frames filled.
    size_t fillNextIpcPackagesToBuffer(BufferState* state);

    // Waits up to timeoutMs until the queue holds a package.
    void waitEventReady(int timeoutMs);
    void notifyEventReady();
    unsigned long getIpcPackageCount() const { return count_.load(std::memory_order_relaxed); }
    // Drops every queued package (a connection that is gone); returns how many.
    size_t dropAllIpcPackages();

private:
    // One queue entry: a bare typed package (framed on the way out) or a run
    // of ready frames, [offset, offset + size) of a shared block.
    struct Entry {
        char* block;
        uint64_t offset;
        uint64_t size;
        uint32_t frames;  // packages it counts for; 1 for a bare package
        bool framed;
    };
    static Entry Bare(const QuorIpcPackage& package) {
        return Entry{package.packageData, 0, package.packageSize, 1, false};
    }
    // Queues a built entry; errorCode and logPrefix name the caller in the
    // overflow record. Returns the number of packages queued before it. With
    // `overflow` given, an overflow is left there instead of finished here.
    size_t appendPackage(Entry entry, int errorCode, const char* logPrefix,
                         Overflow* overflow = nullptr);
    // Drops the `count` oldest packages (the caller holds mutex_).
    void dropOldestLocked(size_t count);
    // Bytes of the front entry's first frame, header included.
    static uint64_t FirstFrameSize(const Entry& entry);
    static void ReportOverflow(int errorCode, const char* logPrefix, size_t queues);
    // One step of fillNextIpcPackageToBuffer; the caller holds mutex_.
    enum class FillStep { kFilled, kNoRoom, kEmpty, kDamaged };
    FillStep fillNextLocked(BufferState* state);
    // Copies the front entry's first frame; the caller holds mutex_ and has
    // checked that it fits.
    void moveFrontToBuffer(BufferState* state);
    // Removes the front entry's first frame (the whole entry when it was the
    // last).
    void popFrontFrame();
    void popFront();

    std::mutex mutex_;
    std::deque<Entry> queue_;
    size_t queued_ = 0;  // packages in queue_
    // Entries the overflow rule dropped, released a few per append (and all
    // when the queue is emptied): never thousands at once on a producer.
    static constexpr size_t kRetirePerAppend = 8;
    std::deque<Entry> retired_;
    std::condition_variable cv_;
    std::atomic<unsigned long> count_{0};
    std::atomic<int> waiters_{0};  // threads in waitEventReady
};
