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
    appendPackage(QuorIpcPackage{size, block}, kErrorRespQueueFull, "[AppendRespIpc]");
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
    appendPackage(QuorIpcPackage{size, block}, kErrorReqQueueFull, "[AppendReqIpc]");
}

void IpcPackageManager::buildAndAppendIpcPackage(char* data, unsigned long size) {
    char* block = AllocateBlock(size);
    if (block == nullptr) {
        QLOGE(QUOR_TAG_UTILS, "[BuildAndAppendIpc] allocate memory failed! %s", strerror(errno));
        return;
    }
    if (size != 0) memcpy(block, data, size);
    appendPackage(QuorIpcPackage{size, block}, kErrorRawQueueFull, "[BuildAndAppendIpc]");
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned int type, char* data,
                                                       unsigned long len) {
    if (type > IPC_PACKAGE_TYPE_MAX) return false;
    const QuorIpcPackage package = BuildSharedSecondIpcPackage(type, data, len);
    if (package.packageData == nullptr) return false;
    (void)appendPackage(package, kErrorSecondQueueFull, "[AppendSecondIpc]");
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
    return appendPackage(package, kErrorSecondQueueFull, "[AppendSecondIpc]", overflow);
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

size_t IpcPackageManager::appendPackage(QuorIpcPackage package, int errorCode,
                                        const char* logPrefix, Overflow* overflow) {
    bool overflowed = false;
    size_t queuedBefore = 0;
    QuorIpcPackage retiring[kRetirePerAppend];
    size_t retiringCount = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queuedBefore = queue_.size();
        if (queue_.size() > QUEUE_HIGH_WATER) {
            // Moved aside, not released: releasing thousands of packages at
            // once would hold up this producer (and every queue after this
            // one). Each later append releases a few of them.
            const auto keep = queue_.end() - static_cast<std::ptrdiff_t>(QUEUE_LOW_WATER);
            retired_.insert(retired_.end(), queue_.begin(), keep);
            queue_.erase(queue_.begin(), keep);
            overflowed = true;
        }
        queue_.push_back(package);
        count_.store(queue_.size(), std::memory_order_relaxed);
        while (retiringCount < kRetirePerAppend && !retired_.empty()) {
            retiring[retiringCount++] = retired_.front();
            retired_.pop_front();
        }
    }
    for (size_t i = 0; i < retiringCount; ++i) ReleaseBlock(retiring[i].packageData);
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

void IpcPackageManager::popFront() {
    ReleaseBlock(queue_.front().packageData);
    queue_.pop_front();
}

void IpcPackageManager::moveFrontToBuffer(BufferState* state) {
    const QuorIpcPackage& package = queue_.front();
    const int64_t length = static_cast<int64_t>(package.packageSize);
    char* at = state->buffer + state->bufferDataCursor;
    memcpy(at, &length, sizeof(length));
    memcpy(at + IPC_FRAME_HEADER_SIZE, package.packageData, package.packageSize);
    state->bufferDataCursor += IPC_FRAME_HEADER_SIZE + length;
    popFront();
}

IpcPackageManager::FillStep IpcPackageManager::fillNextLocked(BufferState* state) {
    if (queue_.empty()) return FillStep::kEmpty;
    const uint64_t frameSize = queue_.front().packageSize + IPC_FRAME_HEADER_SIZE;
    if (frameSize > static_cast<uint64_t>(state->bufferSize)) {
        popFront();
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
        count_.store(queue_.size(), std::memory_order_relaxed);
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
    // the packages that fit off the queue (a few pointers each); the copying
    // into the buffer and the freeing happen after it is released.
    constexpr size_t kTakeAtOnce = 256;
    size_t filled = 0;
    for (;;) {
        QuorIpcPackage taken[kTakeAtOnce];
        size_t count = 0;
        size_t dropped = 0;
        bool more = false;  // stopped only because `taken` was full
        {
            std::lock_guard<std::mutex> lock(mutex_);
            int64_t room = state->bufferSize - state->bufferDataCursor;
            while (!queue_.empty()) {
                const uint64_t frameSize = queue_.front().packageSize + IPC_FRAME_HEADER_SIZE;
                if (frameSize > static_cast<uint64_t>(state->bufferSize)) {
                    // It can never be sent. Filling goes on behind it: a
                    // buffer left empty here would make the writer give up
                    // write interest while packages are still queued.
                    popFront();
                    ++dropped;
                    continue;
                }
                if (frameSize > static_cast<uint64_t>(room)) break;
                if (count == kTakeAtOnce) {
                    more = true;
                    break;
                }
                room -= static_cast<int64_t>(frameSize);
                taken[count++] = queue_.front();
                queue_.pop_front();
            }
            count_.store(queue_.size(), std::memory_order_relaxed);
        }
        for (size_t i = 0; i < count; ++i) {
            const int64_t length = static_cast<int64_t>(taken[i].packageSize);
            char* at = state->buffer + state->bufferDataCursor;
            memcpy(at, &length, sizeof(length));
            memcpy(at + IPC_FRAME_HEADER_SIZE, taken[i].packageData, taken[i].packageSize);
            state->bufferDataCursor += IPC_FRAME_HEADER_SIZE + length;
            ReleaseBlock(taken[i].packageData);
        }
        filled += count;
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
            const uint64_t frameSize = queue_.front().packageSize + IPC_FRAME_HEADER_SIZE;
            if (frameSize > static_cast<uint64_t>(state->bufferSize - state->bufferDataCursor))
                break;
            moveFrontToBuffer(state);
        }
        const bool neverFits =
            !queue_.empty() && queue_.front().packageSize + IPC_FRAME_HEADER_SIZE >
                                   static_cast<uint64_t>(state->bufferSize);
        if (neverFits) popFront();
        count_.store(queue_.size(), std::memory_order_relaxed);
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
    const size_t dropped = queue_.size();
    while (!queue_.empty()) popFront();
    for (const QuorIpcPackage& package : retired_) ReleaseBlock(package.packageData);
    retired_.clear();
    count_.store(0, std::memory_order_relaxed);
    return dropped;
}
