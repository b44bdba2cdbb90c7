#include "ipc/ipc_req_callback_manager.h"

#include <utility>

#include "diag/quor_bpf_log.h"

unsigned int IpcReqCallBackManager::getReqId() {
    std::lock_guard<std::mutex> lock(mutex_);
    return nextReqId_++;
}

bool IpcReqCallBackManager::addIpcReqCallBack(unsigned int reqId, ResponseCallback callback) {
    std::lock_guard<std::mutex> lock(mutex_);
    const bool isNew = callbacks_.find(reqId) == callbacks_.end();
    callbacks_[reqId] = std::move(callback);
    return isNew;
}

bool IpcReqCallBackManager::delIpcReq(unsigned int reqId) {
    std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_.erase(reqId) != 0;
}

bool IpcReqCallBackManager::handleReqCallBack(QuorRespIpcPackage* resp) {
    // The body comes from a socket: read it as bytes, at any alignment.
    char* body = reinterpret_cast<char*>(resp);
    const uint32_t reqId = IpcReadU32(body);
    const int32_t status = IpcReadS32(body + 4);
    const uint32_t dataSize = IpcReadU32(body + 8);
    ResponseCallback callback;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = callbacks_.find(reqId);
        if (it == callbacks_.end()) {
            QLOGE(QUOR_TAG_UTILS, "[IRCB Manager] Unknow request callback functuin: reqId: %u",
                  reqId);
            return false;
        }
        callback = std::move(it->second);
        callbacks_.erase(it);
    }
    if (callback) (void)callback(reqId, status, body + IPC_RESPONSE_DECODED_HEADER_SIZE, dataSize);
    return true;
}
