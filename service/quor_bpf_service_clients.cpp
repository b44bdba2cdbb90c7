// The service's side of client connections: who may connect and how many at
// once, one outgoing queue per client, subscription requests, and the socket
// callbacks that move bytes between the clients and those queues. Everything here runs on the
// socket thread "BpfServiceTr" except notifyClientEventReady.
#include <android-base/properties.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"
#include "ipc/peer_access_policy.h"
#include "quor/quorbpf_client.h"
#include "service/event_manager.h"
#include "service/quor_bpf_service.h"
#include "service/quor_bpf_service_settings.h"

namespace Quor {
namespace Bpf {

namespace {

// Each connection's read and write buffers and its socket buffers. A client
// that keeps up takes a busy round's records (tens of KiB) in one or two
// sends; at half this size a fan-out to several clients spent much of its time
// waiting for socket room and waking the loop for it (8 clients took 0.71 of
// the rate the same bytes reach 8 plain sockets at, against 0.80 now). 64
// connections at most hold 8 MiB here.
constexpr int kServerBufferSize = 65536;
constexpr const char* kServerThreadName = "BpfServiceTr";
constexpr int kEpollSizeHint = 10;
constexpr int kEpollMaxEvents = 32;
// reqId, command, the unread word, event type.
constexpr long kRequestBodyRead = 16;
// A client is not read from while more than this many packages wait in its
// queue, and is read again once no more than the second number do: one that
// sends requests and never reads its answers would otherwise keep the socket
// thread answering into a queue that can only overflow.
constexpr unsigned long kReadPauseQueued = 512;
constexpr unsigned long kReadResumeQueued = 64;
// Bytes of a bad package shown in its hex dump.
constexpr long kHexDumpBytes = 256;

#ifndef __ANDROID__
// The policy of the allow-list properties, read once when the server is built:
// they are set before the service starts and do not change while it runs.
PeerAccessPolicy AllowListPolicy() {
    std::vector<std::string> malformed;
    const std::string uids = android::base::GetProperty(QUOR_BPF_ALLOW_UIDS_PROPERTY, "");
    const std::string gids = android::base::GetProperty(QUOR_BPF_ALLOW_GIDS_PROPERTY, "");
    PeerAccessPolicy policy(geteuid(), PeerAccessPolicy::ParseIdList(uids, &malformed),
                            PeerAccessPolicy::ParseIdList(gids, &malformed));
    for (const std::string& entry : malformed) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService] ignored malformed id '%s' in %s / %s",
              entry.c_str(), QUOR_BPF_ALLOW_UIDS_PROPERTY, QUOR_BPF_ALLOW_GIDS_PROPERTY);
    }
    if (!uids.empty() || !gids.empty()) {
        QLOGI(QUOR_TAG_SERVICE,
              "[QuorBpfService] clients allowed besides uid 0 and %u: uids [%s], "
              "gids [%s]",
              static_cast<unsigned>(geteuid()), uids.c_str(), gids.c_str());
    }
    return policy;
}
#endif

}  // namespace

void QuorBpfService::initClientServer() {
    IpcHandlerState handlers;
    handlers.keepUnusedBytes = true;
    handlers.closeOnReadFailure = true;
    handlers.spareFlag = true;
    handlers.readHandler = [this](int fd, BufferState* buf) {
        return onClientLibReadable(fd, buf);
    };
    handlers.writeHandler = [this](int fd, BufferState* buf) {
        return onClientLibWriteable(fd, buf);
    };
    handlers.connectionHandler = [this](int fd) { return onClientLibConnection(fd); };
    handlers.closeHandler = [this](int fd) { return onClientLibClose(fd); };
    server_ = std::make_unique<UnixIpcManager>(
        true, kServerBufferSize, QUOR_BPF_CLIENT_DEFAULT_SOCKET, std::move(handlers),
        kServerThreadName, ServiceCpus(), kEpollSizeHint, kEpollMaxEvents);
    server_->setMaxConnections(MAX_CLIENT_CONNECTIONS);
#ifndef __ANDROID__
    server_->setAcceptFilter([policy = AllowListPolicy()](int fd, std::string* reason) {
        std::string who;
        if (policy.allowsPeer(fd, &who)) return true;
        *reason = who + " is not allowed";
        return false;
    });
#endif

    packageManager_ = std::make_unique<IpcPackageManager>();
    std::map<unsigned int, IpcPackageHandler::PackageCallback> requestCallbacks;
    requestCallbacks[IPC_PACKAGE_REQUEST] = [this](int fd, char* data, long len) {
        return onEventProvideReqCallBack(fd, data, len);
    };
    requestCallbacks[IPC_PACKAGE_RESPONSE] = nullptr;
    requestCallbacks[IPC_PACKAGE_RESERVED] = nullptr;
    requestCallbacks[IPC_PACKAGE_EVENT] = nullptr;
    packageHandler_ = std::make_unique<IpcPackageHandler>(std::move(requestCallbacks));

    EventManager* events = EventManager::GetInstance();
    std::lock_guard<std::mutex> lock(EventManager::quorRawEventManagerLock);
    events->setClientMapLocked(&clients_);
    events->setServerLocked(server_.get());
}

int QuorBpfService::onClientLibConnection(int fd) {
    std::lock_guard<std::mutex> lock(EventManager::quorRawEventManagerLock);
    (void)clients_.try_emplace(fd);
    return 0;
}

int QuorBpfService::onClientLibReadable(int fd, BufferState* buf) {
    if (buf->bufferCursor >= buf->bufferDataCursor) return 0;
    for (;;) {
        long headerSize = 0;
        long dataSize = 0;
        if (!CheckIpcPackageComplete(buf, &headerSize, &dataSize)) break;
        char* package = buf->buffer + buf->bufferCursor + headerSize;
        if (packageHandler_->handleSecondIpcPackage(fd, package, dataSize) == -1) {
            // A client can send nothing but bad packages, reconnecting each
            // time: the reports share the server's limiter for such faults.
            uint64_t heldBack = 0;
            if (!server_->allowPeerFaultLog(&heldBack)) return -1;
            QLOGE(QUOR_TAG_SERVICE,
                  "[QuorBpfService] Resv event: bufferCursor (%zd), numSize (%ld), dataSize (%ld), "
                  "readCount (%zd) (%llu more peer faults not logged)",
                  static_cast<ssize_t>(buf->bufferCursor), headerSize, dataSize,
                  static_cast<ssize_t>(buf->bufferDataCursor),
                  static_cast<unsigned long long>(heldBack));
            // The frame is complete, so these bytes all lie in the buffer.
            QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService] BUFFER HEXDUMP: %s",
                  ConvertToHexString(
                      buf->buffer + buf->bufferCursor,
                      static_cast<int32_t>(std::min(headerSize + dataSize, kHexDumpBytes)))
                      .c_str());
            return -1;
        }
        buf->bufferCursor += headerSize + dataSize;
        if (buf->bufferCursor >= buf->bufferDataCursor) break;
    }
    auto client = clients_.find(fd);
    if (client != clients_.end() && client->second.getIpcPackageCount() > kReadPauseQueued &&
        readPaused_.insert(fd).second) {
        (void)server_->pauseReading(fd);
    }
    return 0;
}

int QuorBpfService::onClientLibWriteable(int fd, BufferState* buf) {
    // Only this thread changes the map, so reading it here needs no lock.
    auto client = clients_.find(fd);
    if (client == clients_.end()) return 0;
    (void)client->second.fillNextIpcPackagesToBuffer(buf);
    if (!readPaused_.empty() && client->second.getIpcPackageCount() <= kReadResumeQueued &&
        readPaused_.erase(fd) != 0) {
        (void)server_->resumeReading(fd);
    }
    return 0;
}

int QuorBpfService::onClientLibClose(int fd) {
    readPaused_.erase(fd);
    EventManager::GetInstance()->EraseObserver(fd);
    std::lock_guard<std::mutex> lock(EventManager::quorRawEventManagerLock);
    (void)clients_.erase(fd);
    return 0;
}

int QuorBpfService::onEventProvideReqCallBack(int fd, char* data, long len) {
    QuorRespIpcPackage resp = {};
    resp.status = -1;
    if (len >= 4) resp.reqId = IpcReadU32(data);
    // A body too short to hold the event type is answered -1 and changes
    // nothing.
    if (len >= kRequestBodyRead) {
        const uint32_t command = IpcReadU32(data + 4);
        const int32_t eventType = IpcReadS32(data + 12);
        EventManager* events = EventManager::GetInstance();
        if (command == IPC_COMMAND_SUBSCRIBE) {
            // A type the service never produces is refused without a log: it
            // could deliver nothing, and a client could name millions of them.
            if (IsSubscribableEventType(static_cast<uint32_t>(eventType))) {
                events->AddObserverEvent(fd, eventType);
                resp.status = 0;
            }
        } else if (command == IPC_COMMAND_UNSUBSCRIBE) {
            events->DelObserverEvent(fd, eventType);
            resp.status = 0;
        }
    }

    IpcPackageManager* queue = nullptr;
    {
        std::lock_guard<std::mutex> lock(EventManager::quorRawEventManagerLock);
        queue = &clients_[fd];
    }
    queue->appendRespIpcPackage(&resp);
    (void)server_->notifyNeedWriteData(fd);
    return 0;
}

void QuorBpfService::notifyClientEventReady(const std::vector<int32_t>& fds) {
    for (const int32_t fd : fds) (void)server_->notifyNeedWriteData(fd);
}

}  // namespace Bpf
}  // namespace Quor
