#include "ipc/ipc_package_manager.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "diag/quor_bpf_error_log.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"
#include "ipc/package_block_pool.h"

using Quor::Bpf::RateLimiter;
using Quor::Bpf::RecordBpfServiceErrorInfo;
using Quor::Bpf::RecordBpfServiceErrorInfoLimited;
using Quor::Bpf::StringPrintf;

namespace {

constexpr int kErrorRawQueueFull = 3;
constexpr int kErrorSecondQueueFull = 4;
constexpr int kErrorReqQueueFull = 5;
constexpr int kErrorRespQueueFull = 6;
constexpr int kErrorFillAllDamaged = 7;
constexpr int kErrorFillNextDamaged = 8;
// Overflow records: a few at once, then one every 10 seconds.
constexpr int kOverflowReportBurst = 3;
constexpr auto kOverflowReportInterval = std::chrono::seconds(10);

void PutU32(char* at, uint32_t value) {
    memcpy(at, &value, sizeof(value));
}

// Every package block starts with the count of queues (and builders) that
// hold it and the size it was allocated with; packageData points just behind
// it, 8-byte aligned.
struct BlockHeader {
    std::atomic<uint32_t> holders;
    uint32_t blockSize;  // 0: larger than 4 GiB, straight from malloc
};
static_assert(sizeof(BlockHeader) == 8, "package bytes stay 8-byte aligned");

BlockHeader* HeaderOf(char* data) {
    return reinterpret_cast<BlockHeader*>(data - sizeof(BlockHeader));
}

char* AllocateBlock(uint64_t size) {
    const uint64_t blockSize = sizeof(BlockHeader) + size;
    void* base = PackageBlockPool::Allocate(blockSize);
    if (base == nullptr) return nullptr;
    BlockHeader* header = new (base) BlockHeader;
    header->holders.store(1, std::memory_order_relaxed);
    header->blockSize = blockSize <= UINT32_MAX ? static_cast<uint32_t>(blockSize) : 0;
    return static_cast<char*>(base) + sizeof(BlockHeader);
}

void RetainBlock(char* data) {
    HeaderOf(data)->holders.fetch_add(1, std::memory_order_relaxed);
}

void ReleaseBlock(char* data) {
    BlockHeader* header = HeaderOf(data);
    if (header->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        const size_t blockSize = header->blockSize != 0 ? header->blockSize : SIZE_MAX;
        header->~BlockHeader();
        PackageBlockPool::Release(header, blockSize);
    }
}

}  // namespace

IpcPackageManager::~IpcPackageManager() {
    (void)dropAllIpcPackages();
}

void IpcPackageManager::appendRespIpcPackage(QuorRespIpcPackage* resp) {
    const uint64_t size = static_cast<uint64_t>(resp->dataSize) + IPC_PACKAGE_HEADER_SIZE +
                          IPC_RESPONSE_BODY_HEADER_SIZE;
    char* block = AllocateBlock(size);
    if (block == nullptr) {
        QLOGE(QUOR_TAG_UTILS, "[AppendRespIpc] allocate memory failed! %s", strerror(errno));
        return;
    }
    PutU32(block, IPC_PACKAGE_RESPONSE);
    PutU32(block + 4, resp->dataSize + IPC_RESPONSE_BODY_HEADER_SIZE);
    PutU32(block + 8, resp->reqId);
    PutU32(block + 12, static_cast<uint32_t>(resp->status));
    PutU32(block + 16, resp->dataSize);
    PutU32(block + 20, resp->reserved);
    // The 8 bytes after the header words mean nothing to a receiver; zeros
    // keep this process's addresses to itself.
    memset(block + 24, 0, 8);
    if (resp->dataSize != 0 && resp->data != nullptr)
        memcpy(block + 32, resp->data, resp->dataSize);
    appendPackage(Bare(QuorIpcPackage{size, block}), kErrorRespQueueFull, "[AppendRespIpc]");
}

void IpcPackageManager::appendReqIpcPackage(QuorReqIpcPackage* req) {
    const uint64_t size = static_cast<uint64_t>(req->dataSize) + IPC_PACKAGE_HEADER_SIZE +
                          IPC_REQUEST_BODY_HEADER_SIZE;
    char* block = AllocateBlock(size);
    if (block == nullptr) {
        QLOGE(QUOR_TAG_UTILS, "[AppendReqIpc] allocate memory failed! %s", strerror(errno));
        return;
    }
    PutU32(block, IPC_PACKAGE_REQUEST);
    PutU32(block + 4, req->dataSize + IPC_REQUEST_BODY_HEADER_SIZE);
    PutU32(block + 8, req->reqId);
    PutU32(block + 12, req->command);
    PutU32(block + 16, req->dataSize);
    if (req->dataSize != 0 && req->data != nullptr) memcpy(block + 20, req->data, req->dataSize);
    appendPackage(Bare(QuorIpcPackage{size, block}), kErrorReqQueueFull, "[AppendReqIpc]");
}

void IpcPackageManager::buildAndAppendIpcPackage(char* data, unsigned long size) {
    char* block = AllocateBlock(size);
    if (block == nullptr) {
        QLOGE(QUOR_TAG_UTILS, "[BuildAndAppendIpc] allocate memory failed! %s", strerror(errno));
        return;
    }
    if (size != 0) memcpy(block, data, size);
    appendPackage(Bare(QuorIpcPackage{size, block}), kErrorRawQueueFull, "[BuildAndAppendIpc]");
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned int type, char* data,
                                                       unsigned long len) {
    if (type > IPC_PACKAGE_TYPE_MAX) return false;
    const QuorIpcPackage package = BuildSharedSecondIpcPackage(type, data, len);
    if (package.packageData == nullptr) return false;
    (void)appendPackage(Bare(package), kErrorSecondQueueFull, "[AppendSecondIpc]");
    return true;
}

QuorIpcPackage IpcPackageManager::BuildSharedSecondIpcPackage(unsigned int type, char* data,
                                                              unsigned long len) {
    if (type > IPC_PACKAGE_TYPE_MAX) return QuorIpcPackage{0, nullptr};
    if (len > UINT32_MAX) return QuorIpcPackage{0, nullptr};  // 32-bit body length field
    const uint64_t size = len + IPC_PACKAGE_HEADER_SIZE;
    char* block = AllocateBlock(size);
    if (block == nullptr) {
        QLOGE(QUOR_TAG_UTILS, "[AppendSecondIpc] allocate memory failed! %s", strerror(errno));
        return QuorIpcPackage{0, nullptr};
    }
    PutU32(block, type);
    PutU32(block + 4, static_cast<uint32_t>(len));
    if (len != 0) memcpy(block + IPC_PACKAGE_HEADER_SIZE, data, len);
    return QuorIpcPackage{size, block};
}

size_t IpcPackageManager::appendSharedIpcPackage(const QuorIpcPackage& package,
                                                 Overflow* overflow) {
    if (package.packageData == nullptr) return 0;
    RetainBlock(package.packageData);
    return appendPackage(Bare(package), kErrorSecondQueueFull, "[AppendSecondIpc]", overflow);
}

QuorIpcPackage IpcPackageManager::BuildSharedFrames(const char* frames, uint64_t size,
                                                    uint32_t* count) {
    // The filling walks the run by its length fields: they must describe it
    // exactly, each frame at least a package header long.
    *count = 0;
    for (uint64_t at = 0; at < size;) {
        if (size - at < IPC_FRAME_HEADER_SIZE + IPC_PACKAGE_HEADER_SIZE) return {0, nullptr};
        const int64_t length = IpcReadS64(frames + at);
        if (length < IPC_PACKAGE_HEADER_SIZE ||
            static_cast<uint64_t>(length) > size - at - IPC_FRAME_HEADER_SIZE ||
            *count == UINT32_MAX) {
            *count = 0;
            return {0, nullptr};
        }
        at += IPC_FRAME_HEADER_SIZE + static_cast<uint64_t>(length);
        ++*count;
    }
    if (*count == 0) return {0, nullptr};
    char* block = AllocateBlock(size);
    if (block == nullptr) {
        QLOGE(QUOR_TAG_UTILS, "[AppendSecondIpc] allocate memory failed! %s", strerror(errno));
        return QuorIpcPackage{0, nullptr};
    }
    if (size != 0) memcpy(block, frames, size);
    return QuorIpcPackage{size, block};
}

size_t IpcPackageManager::appendSharedFrames(const QuorIpcPackage& frames, uint32_t count,
                                             Overflow* overflow) {
    if (frames.packageData == nullptr || count == 0) return 0;
    RetainBlock(frames.packageData);
    return appendPackage(Entry{frames.packageData, 0, frames.packageSize, count, true},
                         kErrorSecondQueueFull, "[AppendSecondIpc]", overflow);
}

void IpcPackageManager::FinishOverflow(Overflow* overflow) {
    if (overflow->queues != 0) {
        ReportOverflow(kErrorSecondQueueFull, "[AppendSecondIpc]", overflow->queues);
    }
    overflow->queues = 0;
}

void IpcPackageManager::ReportOverflow(int errorCode, const char* logPrefix, size_t queues) {
    static RateLimiter limiter(kOverflowReportBurst, kOverflowReportInterval);
    std::string message =
        StringPrintf("B&A Ipc Package queue full %d", static_cast<int>(QUEUE_HIGH_WATER));
    if (queues > 1) message += StringPrintf(" (%zu queues)", queues);
    if (RecordBpfServiceErrorInfoLimited(&limiter, errorCode, message)) {
        QLOGE(QUOR_TAG_UTILS, "%s ipc Package Queue too big: %zu queues dropped their oldest",
              logPrefix, queues);
    }
}

void IpcPackageManager::ReleaseSharedIpcPackage(const QuorIpcPackage& package) {
    if (package.packageData != nullptr) ReleaseBlock(package.packageData);
}

size_t IpcPackageManager::appendPackage(Entry entry, int errorCode, const char* logPrefix,
                                        Overflow* overflow) {
    bool overflowed = false;
    size_t queuedBefore = 0;
    Entry retiring[kRetirePerAppend];
    size_t retiringCount = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queuedBefore = queued_;
        // As if each package were appended by itself: the first one to find
        // more than QUEUE_HIGH_WATER queued drops the oldest until
        // QUEUE_LOW_WATER remain, and the rest are added behind it.
        if (queued_ + entry.frames - 1 > QUEUE_HIGH_WATER) {
            const size_t before = queued_ > QUEUE_HIGH_WATER ? 0 : QUEUE_HIGH_WATER + 1 - queued_;
            const size_t excess = queued_ + before - QUEUE_LOW_WATER;
            // Moved aside, not released: releasing thousands of packages at
            // once would hold up this producer (and every queue after this
            // one). Each later append releases a few of them.
            dropOldestLocked(excess < queued_ ? excess : queued_);
            overflowed = true;
        }
        queue_.push_back(entry);
        queued_ += entry.frames;
        count_.store(queued_, std::memory_order_relaxed);
        while (retiringCount < kRetirePerAppend && !retired_.empty()) {
            retiring[retiringCount++] = retired_.front();
            retired_.pop_front();
        }
    }
    for (size_t i = 0; i < retiringCount; ++i) ReleaseBlock(retiring[i].block);
    // Waiters register under the mutex, so one that waits for this package
    // is counted by now; without waiters the wake-up call is saved.
    if (waiters_.load(std::memory_order_relaxed) != 0) cv_.notify_all();
    // Reported after the lock is released (by the caller, when it holds one
    // of its own): writing the error log takes far longer than a queue
    // operation and the producers must not wait for it.
    if (!overflowed) return queuedBefore;
    if (overflow != nullptr) {
        ++overflow->queues;
    } else {
        ReportOverflow(errorCode, logPrefix, 1);
    }
    return queuedBefore;
}

void IpcPackageManager::dropOldestLocked(size_t count) {
    while (count != 0 && !queue_.empty()) {
        Entry& front = queue_.front();
        if (front.frames <= count) {
            count -= front.frames;
            queued_ -= front.frames;
            retired_.push_back(front);
            queue_.pop_front();
            continue;
        }
        // Part of a run goes: its block stays held for the rest.
        while (count != 0) {
            const uint64_t frame = FirstFrameSize(front);
            front.offset += frame;
            front.size -= frame;
            front.frames -= 1;
            queued_ -= 1;
            count -= 1;
        }
    }
}

uint64_t IpcPackageManager::FirstFrameSize(const Entry& entry) {
    if (!entry.framed) return entry.size + IPC_FRAME_HEADER_SIZE;
    // The frames were built by this process: each length is that of a
    // package inside the run.
    return IPC_FRAME_HEADER_SIZE + static_cast<uint64_t>(IpcReadS64(entry.block + entry.offset));
}

void IpcPackageManager::popFront() {
    queued_ -= queue_.front().frames;
    ReleaseBlock(queue_.front().block);
    queue_.pop_front();
}

void IpcPackageManager::popFrontFrame() {
    Entry& front = queue_.front();
    if (front.frames <= 1) {
        popFront();
        return;
    }
    const uint64_t frame = FirstFrameSize(front);
    front.offset += frame;
    front.size -= frame;
    front.frames -= 1;
    queued_ -= 1;
}

void IpcPackageManager::moveFrontToBuffer(BufferState* state) {
    const Entry& front = queue_.front();
    char* at = state->buffer + state->bufferDataCursor;
    const uint64_t frame = FirstFrameSize(front);
    if (front.framed) {
        memcpy(at, front.block + front.offset, frame);
    } else {
        const int64_t length = static_cast<int64_t>(front.size);
        memcpy(at, &length, sizeof(length));
        memcpy(at + IPC_FRAME_HEADER_SIZE, front.block + front.offset, front.size);
    }
    state->bufferDataCursor += static_cast<int64_t>(frame);
    popFrontFrame();
}

IpcPackageManager::FillStep IpcPackageManager::fillNextLocked(BufferState* state) {
    if (queue_.empty()) return FillStep::kEmpty;
    const uint64_t frameSize = FirstFrameSize(queue_.front());
    if (frameSize > static_cast<uint64_t>(state->bufferSize)) {
        popFrontFrame();
        return FillStep::kDamaged;
    }
    if (frameSize > static_cast<uint64_t>(state->bufferSize - state->bufferDataCursor)) {
        return FillStep::kNoRoom;
    }
    moveFrontToBuffer(state);
    return FillStep::kFilled;
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* state) {
    FillStep step;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        step = fillNextLocked(state);
        count_.store(queued_, std::memory_order_relaxed);
    }
    if (step == FillStep::kDamaged) {
        RecordBpfServiceErrorInfo(kErrorFillNextDamaged,
                                  "fillNextIpcPackageToBuffer ipc package damaged");
        QLOGE(QUOR_TAG_UTILS, "The ipc package is damaged! remove this package");
    }
    return step == FillStep::kFilled;
}

size_t IpcPackageManager::fillNextIpcPackagesToBuffer(BufferState* state) {
    // The producers contend for the queue's mutex, so it is held only to take
    // the entries that fit off the queue (a few words each); the copying
    // into the buffer and the freeing happen after it is released.
    constexpr size_t kTakeAtOnce = 256;
    size_t filled = 0;
    for (;;) {
        Entry taken[kTakeAtOnce];
        size_t count = 0;
        size_t dropped = 0;
        bool more = false;  // stopped only because `taken` was full
        {
            std::lock_guard<std::mutex> lock(mutex_);
            int64_t room = state->bufferSize - state->bufferDataCursor;
            while (!queue_.empty()) {
                Entry& front = queue_.front();
                const uint64_t frameSize = FirstFrameSize(front);
                if (frameSize > static_cast<uint64_t>(state->bufferSize)) {
                    // It can never be sent. Filling goes on behind it: a
                    // buffer left empty here would make the writer give up
                    // write interest while packages are still queued.
                    popFrontFrame();
                    ++dropped;
                    continue;
                }
                if (frameSize > static_cast<uint64_t>(room)) break;
                if (count == kTakeAtOnce) {
                    more = true;
                    break;
                }
                const uint64_t whole = front.framed ? front.size : frameSize;
                if (whole <= static_cast<uint64_t>(room)) {
                    room -= static_cast<int64_t>(whole);
                    queued_ -= front.frames;
                    taken[count++] = front;
                    queue_.pop_front();
                    continue;
                }
                // The whole frames of a run that fit; the rest stays first.
                Entry part = front;
                part.size = 0;
                part.frames = 0;
                uint64_t next = frameSize;
                do {
                    part.size += next;
                    part.frames += 1;
                    room -= static_cast<int64_t>(next);
                    next =
                        IPC_FRAME_HEADER_SIZE +
                        static_cast<uint64_t>(IpcReadS64(front.block + front.offset + part.size));
                } while (next <= static_cast<uint64_t>(room));
                RetainBlock(front.block);
                front.offset += part.size;
                front.size -= part.size;
                front.frames -= part.frames;
                queued_ -= part.frames;
                taken[count++] = part;
                break;
            }
            count_.store(queued_, std::memory_order_relaxed);
        }
        for (size_t i = 0; i < count; ++i) {
            const Entry& entry = taken[i];
            char* at = state->buffer + state->bufferDataCursor;
            if (entry.framed) {
                memcpy(at, entry.block + entry.offset, entry.size);
                state->bufferDataCursor += static_cast<int64_t>(entry.size);
            } else {
                const int64_t length = static_cast<int64_t>(entry.size);
                memcpy(at, &length, sizeof(length));
                memcpy(at + IPC_FRAME_HEADER_SIZE, entry.block + entry.offset, entry.size);
                state->bufferDataCursor += IPC_FRAME_HEADER_SIZE + length;
            }
            filled += entry.frames;
            ReleaseBlock(entry.block);
        }
        if (dropped != 0) {
            RecordBpfServiceErrorInfo(kErrorFillNextDamaged,
                                      "fillNextIpcPackageToBuffer ipc package damaged");
            QLOGE(QUOR_TAG_UTILS, "The ipc package is damaged! remove this package (%zu dropped)",
                  dropped);
        }
        if (!more) return filled;
    }
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* state) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queue_.empty()) return false;
        while (!queue_.empty()) {
            const uint64_t frameSize = FirstFrameSize(queue_.front());
            if (frameSize > static_cast<uint64_t>(state->bufferSize - state->bufferDataCursor))
                break;
            moveFrontToBuffer(state);
        }
        const bool neverFits = !queue_.empty() && FirstFrameSize(queue_.front()) >
                                                      static_cast<uint64_t>(state->bufferSize);
        if (neverFits) popFrontFrame();
        count_.store(queued_, std::memory_order_relaxed);
        if (!neverFits) return true;
    }
    RecordBpfServiceErrorInfo(kErrorFillAllDamaged, "fillIpcPackageToBuffer ipc package damaged");
    QLOGE(QUOR_TAG_UTILS, "The ipc package is damaged! remove this package..");
    return false;
}

void IpcPackageManager::waitEventReady(int timeoutMs) {
    if (getIpcPackageCount() != 0) return;
    std::unique_lock<std::mutex> lock(mutex_);
    waiters_.fetch_add(1, std::memory_order_relaxed);
    cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs > 0 ? timeoutMs : 0),
                 [this] { return !queue_.empty(); });
    waiters_.fetch_sub(1, std::memory_order_relaxed);
}

void IpcPackageManager::notifyEventReady() {
    cv_.notify_all();
}

size_t IpcPackageManager::dropAllIpcPackages() {
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t dropped = queued_;
    while (!queue_.empty()) popFront();
    for (const Entry& entry : retired_) ReleaseBlock(entry.block);
    retired_.clear();
    count_.store(0, std::memory_order_relaxed);
    return dropped;
}
