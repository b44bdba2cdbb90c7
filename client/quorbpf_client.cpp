// QuorBpfClient on top of the IPC transport: a client-mode UnixIpcManager
// carries the connection, an IpcPackageManager queues the requests, an
// IpcPackageHandler dispatches what arrives, and an IpcReqCallBackManager
// pairs the responses with their requests.
#include "quor/quorbpf_client.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_time.h"
#include "ipc/ipc_package.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/ipc_req_callback_manager.h"
#include "ipc/peer_access_policy.h"
#include "ipc/unix_ipc_manager.h"

namespace Quor {
namespace Bpf {

namespace {

constexpr const char* kTag = "QuorBpfClient";
constexpr const char* kThreadName = "QuorBpfClient";
constexpr int kEpollSizeHint = 4;
constexpr int kEpollMaxEvents = 8;
// While the first connection is awaited, attempts come this often at most, so
// that connect(timeout) notices a service that starts meanwhile.
constexpr int kFirstConnectRetryMs = 100;
constexpr int64_t kMaxUid = 4294967294LL;  // (uid_t)-1 is no uid

}  // namespace

class QuorBpfClientImpl {
public:
    enum class Phase { kIdle, kFirstConnect, kConnected, kReconnecting };

    using EventCallback = QuorBpfClient::EventCallback;
    using ResponseCallback = QuorBpfClient::ResponseCallback;
    using ConnectionCallback = QuorBpfClient::ConnectionCallback;
    using Options = QuorBpfClient::Options;

    QuorBpfClientImpl(EventCallback event, Options opts)
        : onEvent(std::move(event)), options(std::move(opts)) {}

    // Loop-thread handlers.
    int onConnected(int fd);
    int onClosed(int fd);
    int onRead(int fd, BufferState* buffer);
    int onWrite(int fd, BufferState* buffer);
    int onResponse(char* body, long length);
    int onEventPackage(char* body, long length);
    bool onFailedAttempt(int err);

    bool send(uint32_t command, int32_t eventType, ResponseCallback done);
    // Answers every request still waiting with QUOR_BPF_STATUS_DISCONNECTED.
    void failPending();
    std::unique_ptr<UnixIpcManager> makeIpc();

    const EventCallback onEvent;
    const Options options;
    ConnectionCallback onConnection;

    IpcReqCallBackManager requests;
    IpcPackageManager outbox;
    std::unique_ptr<IpcPackageHandler> dispatcher;

    // Serialises connect() and disconnect() with each other; guards ipc.
    std::mutex lifecycleMutex;
    std::unique_ptr<UnixIpcManager> ipc;

    mutable std::mutex mutex;  // guards everything below
    std::condition_variable changed;
    // The manager while it may be used from other threads (null once
    // disconnect() has begun to tear it down).
    UnixIpcManager* live = nullptr;
    Phase phase = Phase::kIdle;
    int fd = -1;
    bool firstAttemptFailed = false;
    std::string lastError;
    int64_t firstConnectDeadlineMs = -1;  // steady clock; -1 = none
    std::set<int32_t> wanted;             // subscriptions to (re)apply
    std::set<unsigned int> pending;       // request ids awaiting an answer
};

// The public constants are the wire protocol's.
static_assert(QUOR_BPF_COMMAND_SUBSCRIBE == IPC_COMMAND_SUBSCRIBE, "subscribe command");
static_assert(QUOR_BPF_COMMAND_UNSUBSCRIBE == IPC_COMMAND_UNSUBSCRIBE, "unsubscribe command");

namespace {

using Quor::Bpf::MonotonicMs;

}  // namespace

std::unique_ptr<UnixIpcManager> QuorBpfClientImpl::makeIpc() {
    IpcHandlerState handlers;
    handlers.keepUnusedBytes = true;
    handlers.closeOnReadFailure = true;
    handlers.readHandler = [this](int fd, BufferState* buffer) { return onRead(fd, buffer); };
    handlers.writeHandler = [this](int fd, BufferState* buffer) { return onWrite(fd, buffer); };
    handlers.connectionHandler = [this](int fd) { return onConnected(fd); };
    handlers.closeHandler = [this](int fd) { return onClosed(fd); };
    // The caller's affinity: a library has no business pinning threads.
    auto manager = std::make_unique<UnixIpcManager>(false, options.bufferSize, options.socketName,
                                                    std::move(handlers), kThreadName,
                                                    kEpollSizeHint, kEpollMaxEvents);
    // Root, or the uid the owner named: PeerAccessPolicy's "own uid" is 0.
    std::set<uid_t> trusted;
    if (options.trustedServerUid >= 0 && options.trustedServerUid <= kMaxUid) {
        trusted.insert(static_cast<uid_t>(options.trustedServerUid));
    }
    manager->setServerFilter(
        [this, policy = PeerAccessPolicy(0, trusted, {})](int serverFd, std::string* why) {
            std::string who;
            if (policy.allowsPeer(serverFd, &who)) return true;
            *why = "the server (" + who + ") runs as an untrusted user";
            std::lock_guard<std::mutex> lock(mutex);
            lastError = *why;
            return false;
        });
    manager->setConnectFailureObserver([this](int err) { return onFailedAttempt(err); });
    manager->setConnectRetryInterval(options.reconnectIntervalMs < kFirstConnectRetryMs
                                         ? options.reconnectIntervalMs
                                         : kFirstConnectRetryMs);
    return manager;
}

bool QuorBpfClientImpl::onFailedAttempt(int err) {
    std::lock_guard<std::mutex> lock(mutex);
    // A refused server has said why already.
    if (err != EPERM) lastError = "cannot reach " + options.socketName + ": " + strerror(err);
    if (phase != Phase::kFirstConnect) return phase == Phase::kReconnecting;
    firstAttemptFailed = true;
    changed.notify_all();
    if (firstConnectDeadlineMs < 0) return true;
    return MonotonicMs() < firstConnectDeadlineMs;
}

int QuorBpfClientImpl::onConnected(int connectedFd) {
    std::vector<int32_t> types;
    {
        std::lock_guard<std::mutex> lock(mutex);
        // Idle: connect() gave up or disconnect() runs; this connection is
        // about to be closed with its manager.
        if (phase == Phase::kIdle || live == nullptr) return 0;
        fd = connectedFd;
        phase = Phase::kConnected;
        lastError.clear();
        types.assign(wanted.begin(), wanted.end());
        // A lost connection is retried at the pace the owner chose.
        live->setConnectRetryInterval(options.reconnectIntervalMs);
        changed.notify_all();
    }
    for (const int32_t type : types) {
        (void)send(QUOR_BPF_COMMAND_SUBSCRIBE, type, nullptr);
    }
    if (onConnection) onConnection(true);
    return 0;
}

int QuorBpfClientImpl::onClosed(int /*closedFd*/) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        fd = -1;
        if (phase == Phase::kConnected) phase = Phase::kReconnecting;
        changed.notify_all();
    }
    // Requests not yet sent belong to the old connection; the reconnect
    // subscribes afresh.
    (void)outbox.dropAllIpcPackages();
    failPending();
    if (onConnection) onConnection(false);
    return 0;
}

void QuorBpfClientImpl::failPending() {
    std::set<unsigned int> ids;
    {
        std::lock_guard<std::mutex> lock(mutex);
        ids.swap(pending);
    }
    for (const unsigned int id : ids) {
        QuorRespIpcPackage resp = {};
        resp.reqId = id;
        resp.status = QUOR_BPF_STATUS_DISCONNECTED;
        (void)requests.handleReqCallBack(&resp);
    }
}

int QuorBpfClientImpl::onRead(int readFd, BufferState* buffer) {
    return dispatcher->handleAllIpcPackageInBuffer(readFd, buffer) ? 0 : -1;
}

int QuorBpfClientImpl::onWrite(int /*writeFd*/, BufferState* buffer) {
    (void)outbox.fillNextIpcPackagesToBuffer(buffer);
    return 0;
}

int QuorBpfClientImpl::onResponse(char* body, long length) {
    // The decoder takes reqId, status and dataSize from the first 12 bytes
    // and dataSize bytes after them: all of it must lie in this body.
    if (length < IPC_RESPONSE_DECODED_HEADER_SIZE) return -1;
    const long dataSize = static_cast<long>(IpcReadU32(body + 8));
    if (dataSize > length - IPC_RESPONSE_DECODED_HEADER_SIZE) return -1;
    const unsigned int reqId = IpcReadU32(body);
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (pending.erase(reqId) == 0) {
            QLOGW(kTag, "[QuorBpfClient] answer to unknown request %u ignored", reqId);
            return 0;
        }
    }
    (void)requests.handleReqCallBack(reinterpret_cast<QuorRespIpcPackage*>(body));
    return 0;
}

int QuorBpfClientImpl::onEventPackage(char* body, long length) {
    if (length < static_cast<long>(sizeof(uint32_t))) return 0;  // no type: nothing to deliver
    if (onEvent) onEvent(IpcReadU32(body), reinterpret_cast<const uint8_t*>(body), length);
    return 0;
}

bool QuorBpfClientImpl::send(uint32_t command, int32_t eventType, ResponseCallback done) {
    // Held throughout, so that disconnect() cannot destroy the manager while
    // this request is being handed to it.
    std::lock_guard<std::mutex> lock(mutex);
    if (phase != Phase::kConnected || live == nullptr) return false;
    const unsigned int reqId = requests.getReqId();
    (void)requests.addIpcReqCallBack(reqId, [done](unsigned int, int status, char*, unsigned int) {
        if (done) done(status);
        return 0;
    });
    pending.insert(reqId);
    QuorReqIpcPackage request = {};
    request.reqId = reqId;
    request.command = command;
    request.dataSize = sizeof(eventType);
    request.data = reinterpret_cast<char*>(&eventType);
    outbox.appendReqIpcPackage(&request);
    (void)live->notifyNeedWriteData(fd);
    return true;
}

QuorBpfClient::QuorBpfClient(EventCallback onEvent)
    : QuorBpfClient(std::move(onEvent), Options()) {}

QuorBpfClient::QuorBpfClient(EventCallback onEvent, Options options)
    : impl_(std::make_unique<QuorBpfClientImpl>(std::move(onEvent), std::move(options))) {
    std::map<unsigned int, IpcPackageHandler::PackageCallback> callbacks;
    callbacks[IPC_PACKAGE_RESPONSE] = [impl = impl_.get()](int, char* body, long length) {
        return impl->onResponse(body, length);
    };
    callbacks[IPC_PACKAGE_EVENT] = [impl = impl_.get()](int, char* body, long length) {
        return impl->onEventPackage(body, length);
    };
    impl_->dispatcher = std::make_unique<IpcPackageHandler>(std::move(callbacks));
}

QuorBpfClient::~QuorBpfClient() {
    disconnect();
}

void QuorBpfClient::setConnectionCallback(ConnectionCallback onConnection) {
    std::lock_guard<std::mutex> lifecycle(impl_->lifecycleMutex);
    impl_->onConnection = std::move(onConnection);
}

bool QuorBpfClient::connect(int timeoutMs) {
    QuorBpfClientImpl& impl = *impl_;
    {
        std::lock_guard<std::mutex> lifecycle(impl.lifecycleMutex);
        if (!impl.ipc) {
            {
                std::lock_guard<std::mutex> lock(impl.mutex);
                impl.phase = QuorBpfClientImpl::Phase::kFirstConnect;
                impl.firstAttemptFailed = false;
                impl.firstConnectDeadlineMs = timeoutMs > 0 ? MonotonicMs() + timeoutMs : -1;
            }
            impl.ipc = impl.makeIpc();
            {
                std::lock_guard<std::mutex> lock(impl.mutex);
                impl.live = impl.ipc.get();
            }
            if (!impl.ipc->start()) {
                {
                    std::lock_guard<std::mutex> lock(impl.mutex);
                    impl.live = nullptr;
                    impl.phase = QuorBpfClientImpl::Phase::kIdle;
                }
                impl.ipc.reset();
                return false;
            }
        }
    }

    // The wait holds no lifecycle lock: disconnect() from another thread
    // ends it.
    {
        std::unique_lock<std::mutex> lock(impl.mutex);
        // Either the first connection or, after a loss, the next one.
        auto settled = [&impl, timeoutMs] {
            return impl.phase == QuorBpfClientImpl::Phase::kConnected ||
                   impl.phase == QuorBpfClientImpl::Phase::kIdle ||
                   (timeoutMs == 0 && impl.firstAttemptFailed);
        };
        if (timeoutMs >= 0) {
            impl.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), settled);
        } else {
            impl.changed.wait(lock, settled);
        }
        switch (impl.phase) {
            case QuorBpfClientImpl::Phase::kConnected:
                return true;
            case QuorBpfClientImpl::Phase::kReconnecting:
            case QuorBpfClientImpl::Phase::kIdle:  // disconnect() tears down
                return false;
            case QuorBpfClientImpl::Phase::kFirstConnect:
                break;
        }
        // The first connection did not come: end the attempts.
        impl.phase = QuorBpfClientImpl::Phase::kIdle;
        impl.live = nullptr;
    }
    std::lock_guard<std::mutex> lifecycle(impl.lifecycleMutex);
    if (impl.ipc) {
        impl.ipc->stop();
        impl.ipc.reset();
    }
    return false;
}

void QuorBpfClient::disconnect() {
    QuorBpfClientImpl& impl = *impl_;
    std::lock_guard<std::mutex> lifecycle(impl.lifecycleMutex);
    bool wasConnected = false;
    {
        std::lock_guard<std::mutex> lock(impl.mutex);
        wasConnected = impl.phase == QuorBpfClientImpl::Phase::kConnected;
        impl.phase = QuorBpfClientImpl::Phase::kIdle;
        impl.live = nullptr;
        impl.fd = -1;
        impl.changed.notify_all();
    }
    if (impl.ipc) {
        impl.ipc->stop();
        impl.ipc.reset();  // joins the client thread, closes the socket
    }
    (void)impl.outbox.dropAllIpcPackages();
    impl.failPending();
    if (wasConnected && impl.onConnection) impl.onConnection(false);
}

bool QuorBpfClient::isConnected() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->phase == QuorBpfClientImpl::Phase::kConnected;
}

std::string QuorBpfClient::lastError() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->lastError;
}

bool QuorBpfClient::subscribe(int32_t eventType, ResponseCallback done) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->wanted.insert(eventType);
    }
    return impl_->send(QUOR_BPF_COMMAND_SUBSCRIBE, eventType, std::move(done));
}

bool QuorBpfClient::unsubscribe(int32_t eventType, ResponseCallback done) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->wanted.erase(eventType);
    }
    return impl_->send(QUOR_BPF_COMMAND_UNSUBSCRIBE, eventType, std::move(done));
}

bool QuorBpfClient::sendRequest(uint32_t command, int32_t eventType, ResponseCallback done) {
    return impl_->send(command, eventType, std::move(done));
}

}  // namespace Bpf
}  // namespace Quor
