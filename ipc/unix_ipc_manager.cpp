#include "ipc/unix_ipc_manager.h"

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "diag/quor_bpf_error_log.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"
#include "diag/quor_bpf_time.h"
#include "ipc/socket_utils.h"

using Quor::Bpf::ConvertToHexString;
using Quor::Bpf::MonotonicMs;
using Quor::Bpf::RecordBpfServiceErrorInfo;
using Quor::Bpf::StringPrintf;

namespace {

constexpr const char* kDefaultName = "BpfUtils";
constexpr int32_t kErrorSendRetriesExhausted = 1;
// A peer whose socket stays full this long gets its last try: then what is
// left of the batch is dropped.
constexpr int kLastTryDelayMs = 1000;
// A name that cannot be bound is tried again after a pause that starts here
// and doubles up to the bound.
constexpr int kBindRetryFirstMs = 100;
constexpr int kBindRetryMaxMs = 5000;
// After a failed accept (no descriptors left, say) the listening socket is
// left alone this long: it stays readable, and watching it would spin.
constexpr int kAcceptPauseMs = 100;
// Buffered bytes shown in a hex dump a peer provoked.
constexpr int64_t kPeerHexDumpBytes = 256;

unsigned long long Held(uint64_t heldBack) {
    return static_cast<unsigned long long>(heldBack);
}

}  // namespace

UnixIpcManager::UnixIpcManager(bool server, int size, std::string socketPath,
                               IpcHandlerState handlers, const char* managerName, cpu_set_t cpus,
                               int epollSize, int maxEvents)
    : path(std::move(socketPath)),
      isServer(server),
      bufferSize(size),
      handlerState(std::move(handlers)),
      name(managerName != nullptr ? managerName : kDefaultName) {
    epollManager = std::make_unique<EpollManager>(epollSize, maxEvents, makeInitFunc(),
                                                  name.c_str(), cpus, -1);
}

UnixIpcManager::UnixIpcManager(bool server, int size, std::string socketPath,
                               IpcHandlerState handlers, const char* managerName, int epollSize,
                               int maxEvents)
    : path(std::move(socketPath)),
      isServer(server),
      bufferSize(size),
      handlerState(std::move(handlers)),
      name(managerName != nullptr ? managerName : kDefaultName) {
    epollManager =
        std::make_unique<EpollManager>(epollSize, maxEvents, makeInitFunc(), name.c_str(), -1);
}

UnixIpcManager::UnixIpcManager(bool server, int size, std::string socketPath,
                               IpcHandlerState handlers, int epollSize, int maxEvents)
    : UnixIpcManager(server, size, std::move(socketPath), std::move(handlers), kDefaultName,
                     epollSize, maxEvents) {}

UnixIpcManager::~UnixIpcManager() {
    stopRequested.store(true);
    {
        std::lock_guard<std::mutex> lock(retryMutex);
        retryCv.notify_all();
    }
    // End the loop before the manager goes: its callbacks use it until then.
    if (epollManager) {
        epollManager->stop();
        epollManager->join();
    }
    epollManager.reset();
    // Nothing runs on the sockets any more; release them so that the name can
    // be bound again and peers see the close. The listening socket goes
    // first, or a peer told of the close could reconnect into its backlog.
    const int fd = socketFd.load();
    if (fd != -1 && connections.count(fd) == 0) (void)close(fd);
    for (const int connection : connections) (void)close(connection);
    connections.clear();
    socketFd.store(-1);
    if (!clearAllBuffer()) {
        QLOGE(name.c_str(),
              "[UnixIpcManager][~UnixIpcManager] Clear all buffer failed: %d, message: %s", errno,
              strerror(errno));
    }
}

std::function<int()> UnixIpcManager::makeInitFunc() {
    return [this]() -> int { return (isServer ? createServer() : connect()) ? 1 : 0; };
}

bool UnixIpcManager::start() {
    if (!epollManager) {
        QLOGE(name.c_str(), "[UnixIpcManager] epoll manager not exists!");
        return false;
    }
    QLOGI(name.c_str(), "[UnixIpcManager][start] Start epoll Manager...");
    if (isServer) {
        QLOGI(name.c_str(), "[UnixIpcManager][start] Create server: %s", path.c_str());
    } else {
        QLOGI(name.c_str(), "[UnixIpcManager][start] Connection to server: %s", path.c_str());
    }
    stopRequested.store(false);
    return epollManager->start();
}

bool UnixIpcManager::stop() {
    QLOGI(name.c_str(), "[UnixIpcManager][stop] Stop epoll Manager...");
    if (!epollManager) return false;
    stopRequested.store(true);
    {
        std::lock_guard<std::mutex> lock(retryMutex);
        retryCv.notify_all();
    }
    epollManager->stop();
    return true;
}

void UnixIpcManager::waitStopped() {
    if (epollManager) epollManager->join();
}

bool UnixIpcManager::createServer() {
    if (!isServer) {
        QLOGE(name.c_str(), "[UnixIpcManager] Create server in client manager");
        return false;
    }
    const int fd = CreateNonblockingServerSocket(path.c_str());
    if (fd == -1) {
        // The name may be held by anyone (it is in the abstract namespace):
        // try again, less and less often, until it is free.
        const int err = errno;
        createServerDelayMs = createServerDelayMs == 0
                                  ? kBindRetryFirstMs
                                  : std::min(2 * createServerDelayMs, kBindRetryMaxMs);
        uint64_t heldBack = 0;
        if (listenLog.allow(&heldBack)) {
            QLOGE(name.c_str(),
                  "[UnixIpcManager] Create server Socket failed: %d, message: %s; retrying in %d "
                  "ms (%llu more failures not logged)",
                  err, strerror(err), createServerDelayMs, Held(heldBack));
        }
        retryCreateServer();
        errno = err;
        return false;
    }
    createServerDelayMs = 0;
    socketFd.store(fd);
    EpollCallback callback;
    callback.readCallback = [this](epoll_event event) { return onServerReadableCallback(event); };
    callback.closeCallback = [this](epoll_event event) { return onServerCloseCallback(event); };
    (void)epollManager->addMonitorFd(fd, std::move(callback));
    return true;
}

void UnixIpcManager::retryCreateServer() {
    if (createServerPending) return;
    createServerPending = true;
    epollManager->runAfter(createServerDelayMs, [this] {
        createServerPending = false;
        if (socketFd.load() == -1 && !stopRequested.load()) (void)createServer();
    });
}

bool UnixIpcManager::waitBeforeReconnect() {
    std::unique_lock<std::mutex> lock(retryMutex);
    retryCv.wait_for(lock, std::chrono::milliseconds(retryIntervalMs.load()),
                     [this] { return stopRequested.load(); });
    return !stopRequested.load();
}

bool UnixIpcManager::connect() {
    if (isServer) {
        QLOGE(name.c_str(), "[UnixIpcManager] Create client in server manager");
        return false;
    }
    int fd = -1;
    for (;;) {
        if (stopRequested.load()) return false;
        fd = ConnectToServer(path.c_str());
        std::string reason;
        if (fd != -1 && serverFilter && !serverFilter(fd, &reason)) {
            // Whoever holds the name is not the server we want: nothing is
            // sent to it and nothing it sends is read.
            (void)close(fd);
            fd = -1;
            QLOGE(name.c_str(), "[UnixIpcManager] Refused server %s: %s", path.c_str(),
                  reason.c_str());
            errno = EPERM;
        }
        if (fd != -1) break;
        const int err = errno;
        QLOGE(name.c_str(),
              "[UnixIpcManager] Connect failed: %d, message: %s, clientFd: %d, Wait 5 senconds",
              err, strerror(err), fd);
        if (onFailedAttempt && !onFailedAttempt(err)) return false;
        if (!waitBeforeReconnect()) return false;
    }
    socketFd.store(fd);
    setSocketBufferSizes(fd);
    if (!setUpConnection(fd)) {
        (void)close(fd);
        socketFd.store(-1);
        return false;
    }
    if (handlerState.connectionHandler) handlerState.connectionHandler(fd);
    return true;
}

void UnixIpcManager::setSocketBufferSizes(int fd) {
    const int size = bufferSize;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) == -1) {
        QLOGE(name.c_str(),
              "[UnixIpcManager] Set send buffer size failed: %d, message: %s, clientFd: %d", errno,
              strerror(errno), fd);
    }
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) == -1) {
        QLOGE(name.c_str(),
              "[UnixIpcManager] Set recv buffer size failed: %d, message: %s, clientFd: %d", errno,
              strerror(errno), fd);
    }
}

bool UnixIpcManager::setUpConnection(int fd) {
    EpollCallback callback;
    callback.closeCallback = [this](epoll_event event) { return onClientCloseCallback(event); };
    if (handlerState.readHandler) {
        callback.readCallback = [this](epoll_event event) {
            return onClientReadableCallback(event);
        };
        if (!allocateReadBufferForFd(fd)) {
            QLOGE(name.c_str(),
                  "[UnixIpcManager] Allocate read buffer for server accept connection (%d) failed: "
                  "%d, message: %s",
                  fd, errno, strerror(errno));
            return false;
        }
    }
    if (handlerState.writeHandler) {
        callback.writeCallback = [this](epoll_event event) { return onCommWriteCallback(event); };
        if (!allocateWriteBufferForFd(fd)) {
            QLOGE(
                name.c_str(),
                "[UnixIpcManager] Allocate write buffer for server accept connection (%d) failed: "
                "%d, message: %s",
                fd, errno, strerror(errno));
            (void)freeBufferForFd(fd);
            return false;
        }
    }
    if (!epollManager->addMonitorFd(fd, std::move(callback))) {
        (void)freeBufferForFd(fd);
        return false;
    }
    connections.insert(fd);
    return true;
}

bool UnixIpcManager::notifyNeedWriteData(int fd) {
    return epollManager && epollManager->notifyWriteEventReady(fd);
}

bool UnixIpcManager::writeDataNow(int fd) {
    return epollManager && epollManager->writeEventNow(fd);
}

bool UnixIpcManager::pauseReading(int fd) {
    return epollManager && epollManager->pauseRead(fd);
}

bool UnixIpcManager::resumeReading(int fd) {
    return epollManager && epollManager->resumeRead(fd);
}

int UnixIpcManager::onServerReadableCallback(epoll_event /*event*/) {
    const int fd = accept4(socketFd.load(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd == -1) {
        const int err = errno;
        // A client that gave up before being accepted, or nothing left to
        // accept after all: the next one is served as usual.
        if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR || err == ECONNABORTED) return -1;
        pauseAccepting(err);
        return -1;
    }
    if (!Setnonblocking(fd)) {
        const int err = errno;
        (void)close(fd);
        QLOGE(name.c_str(), "[UnixIpcManager] Setnonblocking (client) failed: %d, message: %s", err,
              strerror(err));
        return -1;
    }
    // Refused before a byte is read: existing clients never notice.
    if (maxConnections != 0 && connections.size() >= maxConnections) {
        refuseConnection(
            fd, StringPrintf("%zu clients connected, the most allowed", connections.size()));
        return 0;
    }
    std::string reason;
    if (acceptFilter && !acceptFilter(fd, &reason)) {
        refuseConnection(fd, reason);
        return 0;
    }
    setSocketBufferSizes(fd);
    if (!setUpConnection(fd)) {
        (void)close(fd);
        return -1;
    }
    if (handlerState.connectionHandler) handlerState.connectionHandler(fd);
    return 1;
}

void UnixIpcManager::pauseAccepting(int err) {
    // Out of descriptors (or memory), the pending connections keep the
    // listening socket readable: watching it now would only spin.
    const int listening = socketFd.load();
    uint64_t heldBack = 0;
    if (listenLog.allow(&heldBack)) {
        QLOGE(name.c_str(),
              "[UnixIpcManager] Accept client failed: %d, message: %s; not accepting for %d ms "
              "(%llu more failures not logged)",
              err, strerror(err), kAcceptPauseMs, Held(heldBack));
    }
    if (!epollManager->pauseRead(listening)) return;
    epollManager->runAfter(kAcceptPauseMs, [this, listening] {
        if (socketFd.load() == listening) (void)epollManager->resumeRead(listening);
    });
}

void UnixIpcManager::refuseConnection(int fd, const std::string& reason) {
    (void)close(fd);
    // A process that reconnects in a loop, or forks one connection after
    // another, must not flood the log.
    uint64_t heldBack = 0;
    if (!peerFaultLog.allow(&heldBack)) return;
    QLOGW(name.c_str(), "[UnixIpcManager] Refused client: %s (%llu more peer faults not logged)",
          reason.c_str(), Held(heldBack));
}

bool UnixIpcManager::releaseConnection(int fd) {
    (void)epollManager->delMonitorFd(fd);
    connections.erase(fd);
    if (close(fd) == -1) {
        // Linux releases the descriptor even when close reports an error, so
        // the owner is still told below.
        QLOGE(name.c_str(), "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s",
              fd, errno, strerror(errno));
    }
    if (!freeBufferForFd(fd)) {
        QLOGE(name.c_str(), "[UnixIpcManager][ServerCallback] free buffer failed: %d, message: %s",
              errno, strerror(errno));
        return false;
    }
    return true;
}

int UnixIpcManager::closeAfterReadFailure(int fd, const char* abnormalMessage,
                                          const char* restartMessage) {
    const bool freed = releaseConnection(fd);
    // The owner must hear of every close: it keeps per-connection state that
    // a new connection on the same descriptor number must not inherit.
    if (handlerState.closeHandler) handlerState.closeHandler(fd);
    if (!freed) return -2;
    if (!isServer && fd == socketFd.load()) {
        socketFd.store(-1);
        QLOGE(name.c_str(), abnormalMessage, path.c_str());
        if (!connect()) QLOGE(name.c_str(), restartMessage, path.c_str());
    }
    return -2;
}

int UnixIpcManager::onClientReadableCallback(epoll_event event) {
    const int fd = event.data.fd;
    auto it = readBuffers.find(fd);
    if (it == readBuffers.end()) {
        QLOGE(name.c_str(),
              "[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(%d)!", fd);
        return -1;
    }
    BufferState* state = &it->second;
    if (handlerState.keepUnusedBytes) SaveUnuseBuffer(state);

    const bool full = state->bufferDataCursor >= state->bufferSize;
    ssize_t received = -1;
    if (!full) {
        received = recv(fd, state->buffer + state->bufferDataCursor,
                        state->bufferSize - state->bufferDataCursor, MSG_DONTWAIT);
        // Nothing to read after all: not a failure of the connection.
        if (received == -1 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return 0;
    }
    if (full || received == -1) {
        const int err = errno;
        uint64_t heldBack = 0;
        if (state->bufferCursor == state->bufferDataCursor) {
            if (peerFaultLog.allow(&heldBack)) {
                QLOGE(name.c_str(), "[UnixIpcManager] client readable callback buffer exception!");
                QLOGE(name.c_str(),
                      "[UnixIpcManager] client readable cb buffersize: %zd, bufferDataCursor: %zd "
                      "(%llu more peer faults not logged)",
                      static_cast<ssize_t>(state->bufferSize),
                      static_cast<ssize_t>(state->bufferDataCursor), Held(heldBack));
                QLOGE(name.c_str(), "[UnixIpcManager] client readable buffer hexdump: %s",
                      ConvertToHexString(state->buffer,
                                         static_cast<int32_t>(std::min<int64_t>(
                                             state->bufferDataCursor, kPeerHexDumpBytes)))
                          .c_str());
            }
        } else if (peerFaultLog.allow(&heldBack)) {
            QLOGE(name.c_str(),
                  "[UnixIpcManager] Recv data failed: %d, message: %s (%llu more peer faults not "
                  "logged)",
                  err, strerror(err), Held(heldBack));
        }
        state->bufferCursor = 0;
        state->bufferDataCursor = 0;
        if (handlerState.closeOnReadFailure) {
            return closeAfterReadFailure(fd, "[UnixIpcManager] Server socket abnormal close!! (%s)",
                                         "[UnixIpcManager] Reconnect to server failed! (%s)");
        }
        return -1;
    }
    if (received == 0) return -3;  // the hang-up event closes it

    state->bufferDataCursor += received;
    if (!handlerState.readHandler) return 0;
    if (handlerState.readHandler(fd, state) != -1) return 0;

    // The peer sent what the owner could not take.
    const int err = errno;
    uint64_t heldBack = 0;
    if (peerFaultLog.allow(&heldBack)) {
        QLOGE(name.c_str(),
              "[UnixIpcManager] Callback ipc read handler failed: %d, message: %s (%llu more peer "
              "faults not logged)",
              err, strerror(err), Held(heldBack));
    }
    state->bufferCursor = 0;
    state->bufferDataCursor = 0;
    if (handlerState.closeOnReadFailure) {
        return closeAfterReadFailure(fd, "[UnixIpcManager] Server socket abnormal close! (%s)",
                                     "[UnixIpcManager] Restart server failed! (%s)");
    }
    return 0;
}

int UnixIpcManager::onCommWriteCallback(epoll_event event) {
    const int fd = event.data.fd;
    WriteChannel* channel = nullptr;
    {
        std::lock_guard<std::mutex> lock(bufferMutex);
        auto it = writeBuffers.find(fd);
        if (it != writeBuffers.end()) channel = &it->second;
    }
    if (channel == nullptr) {
        QLOGE(name.c_str(),
              "[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!", fd);
        return -1;
    }
    std::lock_guard<std::mutex> lock(channel->mutex);
    BufferState* state = &channel->state;
    // Batches are filled and sent until the owner has nothing more or the
    // socket is full: one wake-up moves as much as the peer can take, and a
    // drained connection gives up write interest at once.
    for (;;) {
        // Bytes still pending (a stalled send, or the rest of a frame the peer
        // has begun to receive) go out before anything new is filled in
        // behind them: the peer's stream never loses its framing.
        const bool resuming = state->bufferCursor < state->bufferDataCursor;
        if (!resuming) {
            state->bufferCursor = 0;
            state->bufferDataCursor = 0;
            if (handlerState.writeHandler && handlerState.writeHandler(fd, state) == -1) {
                QLOGE(name.c_str(),
                      "[UnixIpcManager] Callback ipc write handler failed: %d, message: %s", errno,
                      strerror(errno));
                return -1;
            }
            if (state->bufferCursor == state->bufferDataCursor) return -3;
        }
        const SendResult result = ensureDataSend(fd, channel);
        if (result == SendResult::kSent) continue;
        if (result == SendResult::kWaiting) return 0;  // until writable, or the last try
        QLOGE(name.c_str(), "[UnixIpcManager] Send ipc data failed: %d, message: %s", errno,
              strerror(errno));
        // After a drop write interest stays: the owner's queue still holds
        // data, and it goes out once the peer reads again.
        return result == SendResult::kDropped ? 0 : -1;
    }
}

UnixIpcManager::SendResult UnixIpcManager::ensureDataSend(int fd, WriteChannel* channel) {
    BufferState* state = &channel->state;
    if (state->bufferCursor >= state->bufferDataCursor) {
        state->bufferCursor = 0;
        state->bufferDataCursor = 0;
        channel->tryCount = 0;
        channel->lastTryAtMs = 0;
        return SendResult::kSent;
    }
    for (;;) {
        const ssize_t pending = state->bufferDataCursor - state->bufferCursor;
        const ssize_t sent =
            send(fd, state->buffer + state->bufferCursor, pending, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            state->bufferCursor += sent;
            if (channel->lastTryAtMs != 0) {  // the peer reads again
                channel->lastTryAtMs = 0;
                channel->tryCount = 0;
            }
            if (state->bufferCursor >= state->bufferDataCursor) {
                state->bufferCursor = 0;
                state->bufferDataCursor = 0;
                channel->tryCount = 0;
                return SendResult::kSent;
            }
            continue;
        }
        const int err = sent == -1 ? errno : EIO;
        if (err == EINTR) continue;
        if (err != EAGAIN && err != EWOULDBLOCK) {
            QLOGE(name.c_str(),
                  "[UnixIpcManager] Send data failed! leftSize: %zd, error: %d, message: %s, "
                  "clientFd: %d",
                  pending, err, strerror(err), fd);
            // What is left of this batch is given up, as the socket failed.
            state->bufferCursor = 0;
            state->bufferDataCursor = 0;
            channel->tryCount = 0;
            channel->lastTryAtMs = 0;
            errno = err;
            return SendResult::kFailed;
        }
        if (channel->lastTryAtMs != 0) {
            // Woken before the last try is due: keep waiting for the socket.
            if (MonotonicMs() < channel->lastTryAtMs) return SendResult::kWaiting;
            QLOGE(name.c_str(),
                  "[UnixIpcManager] Send data 10 times failed! leftSize: %zd, error: %d, message: "
                  "%s, clientFd: %d",
                  pending, err, strerror(err), fd);
            QLOGE(name.c_str(), "[UnixIpcManager] Clear send buffer");
            RecordBpfServiceErrorInfo(
                kErrorSendRetriesExhausted,
                StringPrintf("Send data 10 times failed. bufferCursor: %zd, bufferDataCursor: %zd",
                             static_cast<ssize_t>(state->bufferCursor),
                             static_cast<ssize_t>(state->bufferDataCursor)));
            keepStartedFrameOnly(state);
            channel->tryCount = 0;
            channel->lastTryAtMs = 0;
            errno = err;
            return SendResult::kDropped;
        }
        channel->tryCount += 1;
        // A client that reads slower than it is sent to fills its socket
        // again and again (a busy stream does so every 64 KiB): one line
        // each would cost more than the send.
        uint64_t heldBack = 0;
        if (socketFullLog.allow(&heldBack)) {
            QLOGW(name.c_str(),
                  "[UnixIpcManager] Socket buffer full! tryCount: %d, message: %s (%llu more not "
                  "logged)",
                  channel->tryCount, strerror(err), Held(heldBack));
        }
        // The loop serves the other connections meanwhile: write interest
        // stays, so the peer's next read wakes this one again, and a peer
        // that never reads gets its last try from the loop a second later.
        // Retrying here (yielding between tries) would keep the loop on one
        // full socket while the others' readers sit idle.
        channel->lastTryAtMs = MonotonicMs() + kLastTryDelayMs;
        (void)epollManager->scheduleWriteRetry(fd, kLastTryDelayMs);
        return SendResult::kWaiting;
    }
}

void UnixIpcManager::keepStartedFrameOnly(BufferState* state) {
    // The buffer holds whole frames from its start; find the one the peer has
    // begun to receive.
    int64_t frameStart = 0;
    while (frameStart + IPC_FRAME_HEADER_SIZE <= state->bufferDataCursor) {
        const int64_t length = IpcReadS64(state->buffer + frameStart);
        if (length < 0 || length > state->bufferDataCursor - frameStart - IPC_FRAME_HEADER_SIZE) {
            break;  // not a frame of ours: nothing can be kept
        }
        const int64_t frameEnd = frameStart + IPC_FRAME_HEADER_SIZE + length;
        if (frameEnd > state->bufferCursor) {
            if (frameStart < state->bufferCursor) {
                state->bufferDataCursor = frameEnd;  // the rest of it still goes out
                return;
            }
            break;
        }
        frameStart = frameEnd;
    }
    state->bufferCursor = 0;
    state->bufferDataCursor = 0;
}

int UnixIpcManager::onClientCloseCallback(epoll_event event) {
    const int fd = event.data.fd;
    if (!releaseConnection(fd)) return -1;
    if (handlerState.closeHandler) handlerState.closeHandler(fd);
    if (!isServer && fd == socketFd.load()) {
        socketFd.store(-1);
        QLOGE(name.c_str(),
              "[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (%s)",
              path.c_str());
        if (!connect()) {
            QLOGE(name.c_str(), "[UnixIpcManager] Restart server failed! (%s)", path.c_str());
            return -1;
        }
    }
    return 0;
}

int UnixIpcManager::onServerCloseCallback(epoll_event event) {
    const int fd = event.data.fd;
    (void)epollManager->delMonitorFd(fd);
    if (close(fd) == -1) {
        QLOGE(name.c_str(), "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s",
              fd, errno, strerror(errno));
    }
    if (fd != socketFd.load()) {
        connections.erase(fd);
        if (handlerState.closeHandler) handlerState.closeHandler(fd);
        if (!freeBufferForFd(fd)) {
            QLOGE(name.c_str(),
                  "[UnixIpcManager][ServerCallback] free buffer failed: %d, message: %s", errno,
                  strerror(errno));
            return -1;
        }
        return 0;
    }
    QLOGE(name.c_str(),
          "[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (%s)",
          path.c_str());
    socketFd.store(-1);
    if (handlerState.closeHandler) handlerState.closeHandler(fd);
    if (!createServer()) {
        QLOGE(name.c_str(), "[UnixIpcManager] Restart server failed! (%s)", path.c_str());
        return -1;
    }
    return 0;
}

bool UnixIpcManager::allocateReadBufferForFd(int fd) {
    std::lock_guard<std::mutex> lock(bufferMutex);
    char* block = static_cast<char*>(malloc(bufferSize));
    if (block == nullptr) {
        QLOGE(name.c_str(),
              "[UnixIpcManager] Allocate read buffer for fd(%d) failed: %d, message: %s", fd, errno,
              strerror(errno));
        return false;
    }
    BufferState& state = readBuffers[fd];
    free(state.buffer);  // a stale block of an earlier connection, if any
    state = BufferState{0, 0, bufferSize, block};
    return true;
}

bool UnixIpcManager::allocateWriteBufferForFd(int fd) {
    std::lock_guard<std::mutex> lock(bufferMutex);
    char* block = static_cast<char*>(malloc(bufferSize));
    if (block == nullptr) {
        QLOGE(name.c_str(),
              "[UnixIpcManager] Allocate write buffer for fd(%d) failed: %d, message: %s", fd,
              errno, strerror(errno));
        return false;
    }
    WriteChannel& channel = writeBuffers[fd];
    std::lock_guard<std::mutex> channelLock(channel.mutex);
    free(channel.state.buffer);
    channel.state = BufferState{0, 0, bufferSize, block};
    channel.tryCount = 0;
    channel.lastTryAtMs = 0;
    return true;
}

bool UnixIpcManager::freeBufferForFd(int fd) {
    std::lock_guard<std::mutex> lock(bufferMutex);
    auto read = readBuffers.find(fd);
    if (read != readBuffers.end()) {
        free(read->second.buffer);
        readBuffers.erase(read);
    }
    auto write = writeBuffers.find(fd);
    if (write != writeBuffers.end()) {
        {
            std::lock_guard<std::mutex> channelLock(write->second.mutex);
            free(write->second.state.buffer);
            write->second.state.buffer = nullptr;
        }
        writeBuffers.erase(write);
    }
    return true;
}

bool UnixIpcManager::clearAllBuffer() {
    std::lock_guard<std::mutex> lock(bufferMutex);
    for (auto& read : readBuffers) free(read.second.buffer);
    readBuffers.clear();
    for (auto& write : writeBuffers) {
        std::lock_guard<std::mutex> channelLock(write.second.mutex);
        free(write.second.state.buffer);
        write.second.state.buffer = nullptr;
    }
    writeBuffers.clear();
    return true;
}
