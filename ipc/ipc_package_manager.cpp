#include "ipc/ipc_package_manager.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "diag/quor_bpf_error_log.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"

using Quor::Bpf::RecordBpfServiceErrorInfo;
using Quor::Bpf::StringPrintf;

namespace {

constexpr int kErrorRawQueueFull = 3;
constexpr int kErrorSecondQueueFull = 4;
constexpr int kErrorReqQueueFull = 5;
constexpr int kErrorRespQueueFull = 6;
constexpr int kErrorFillAllDamaged = 7;
constexpr int kErrorFillNextDamaged = 8;

void PutU32(char* at, uint32_t value) {
    memcpy(at, &value, sizeof(value));
}

}  // namespace

IpcPackageManager::~IpcPackageManager() {
    (void)dropAllIpcPackages();
}

void IpcPackageManager::appendRespIpcPackage(QuorRespIpcPackage* resp) {
    const uint64_t size = static_cast<uint64_t>(resp->dataSize) + IPC_PACKAGE_HEADER_SIZE +
                          IPC_RESPONSE_BODY_HEADER_SIZE;
    char* block = static_cast<char*>(malloc(size));
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
    char* block = static_cast<char*>(malloc(size));
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
    char* block = static_cast<char*>(malloc(size != 0 ? size : 1));
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
    if (len > UINT32_MAX) return false;  // the body length field is 32 bits
    const uint64_t size = len + IPC_PACKAGE_HEADER_SIZE;
    char* block = static_cast<char*>(malloc(size));
    if (block == nullptr) {
        QLOGE(QUOR_TAG_UTILS, "[AppendSecondIpc] allocate memory failed! %s", strerror(errno));
        return false;
    }
    PutU32(block, type);
    PutU32(block + 4, static_cast<uint32_t>(len));
    if (len != 0) memcpy(block + IPC_PACKAGE_HEADER_SIZE, data, len);
    appendPackage(QuorIpcPackage{size, block}, kErrorSecondQueueFull, "[AppendSecondIpc]");
    return true;
}

void IpcPackageManager::appendPackage(QuorIpcPackage package, int errorCode,
                                      const char* logPrefix) {
    size_t overflowCount = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queue_.size() > QUEUE_HIGH_WATER) {
            overflowCount = queue_.size();
            while (queue_.size() > QUEUE_LOW_WATER) popFront();
        }
        queue_.push_back(package);
        count_.store(queue_.size(), std::memory_order_relaxed);
    }
    cv_.notify_all();
    // Reported after the lock is released: writing the error log takes far
    // longer than a queue operation and the producers must not wait for it.
    if (overflowCount != 0) {
        RecordBpfServiceErrorInfo(errorCode, StringPrintf("B&A Ipc Package queue full %d",
                                                          static_cast<int>(QUEUE_HIGH_WATER)));
        QLOGE(QUOR_TAG_UTILS, "%s ipc Package Queue too big: %zu", logPrefix, overflowCount);
    }
}

void IpcPackageManager::popFront() {
    free(queue_.front().packageData);
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

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* state) {
    bool damaged = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queue_.empty()) return false;
        const uint64_t frameSize = queue_.front().packageSize + IPC_FRAME_HEADER_SIZE;
        if (frameSize > static_cast<uint64_t>(state->bufferSize)) {
            popFront();
            count_.store(queue_.size(), std::memory_order_relaxed);
            damaged = true;
        } else if (frameSize > static_cast<uint64_t>(state->bufferSize - state->bufferDataCursor)) {
            return false;
        } else {
            moveFrontToBuffer(state);
            count_.store(queue_.size(), std::memory_order_relaxed);
            return true;
        }
    }
    if (damaged) {
        RecordBpfServiceErrorInfo(kErrorFillNextDamaged,
                                  "fillNextIpcPackageToBuffer ipc package damaged");
        QLOGE(QUOR_TAG_UTILS, "The ipc package is damaged! remove this package");
    }
    return false;
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
    cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs > 0 ? timeoutMs : 0),
                 [this] { return !queue_.empty(); });
}

void IpcPackageManager::notifyEventReady() {
    cv_.notify_all();
}

size_t IpcPackageManager::dropAllIpcPackages() {
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t dropped = queue_.size();
    while (!queue_.empty()) popFront();
    count_.store(0, std::memory_order_relaxed);
    return dropped;
}
