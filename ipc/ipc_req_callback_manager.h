// IpcReqCallBackManager: pairs each response with the callback of the
// request that asked for it (client side).
//
//   unsigned id = mgr.getReqId();
//   mgr.addIpcReqCallBack(id, [](unsigned id, int status, char* data,
//                                unsigned size) { ...; return 0; });
//   ... send the request with `id` ...
//   on a response body:  mgr.handleReqCallBack(reinterpret_cast<QuorRespIpcPackage*>(body));
//
// Each callback fires at most once: on its response, or never after
// delIpcReq. The response body must hold the 12 decoded header bytes and the
// dataSize bytes that follow them (the caller checks this against the frame).
//
// Threading: all operations are serialised by one mutex. The mutex is
// released before a callback runs, so a callback may issue new requests
// through the same manager.
#pragma once

#include <functional>
#include <map>
#include <mutex>

#include "ipc/ipc_package.h"

class IpcReqCallBackManager {
public:
    // (reqId, status, data, dataSize); the result is ignored.
    using ResponseCallback = std::function<int(unsigned int, int, char*, unsigned int)>;

    // 0, 1, 2, ... wrapping at 2^32.
    unsigned int getReqId();
    // True when reqId was new, false when an earlier callback was replaced.
    bool addIpcReqCallBack(unsigned int reqId, ResponseCallback callback);
    // True when a callback was removed.
    bool delIpcReq(unsigned int reqId);
    // Runs and forgets the callback of the response's request id; false (and
    // an ERROR log) when no callback waits for it.
    bool handleReqCallBack(QuorRespIpcPackage* resp);

private:
    unsigned int nextReqId_ = 0;
    std::mutex mutex_;
    std::map<unsigned int, ResponseCallback> callbacks_;
};
