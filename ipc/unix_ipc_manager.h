// UnixIpcManager: one endpoint of the local-socket IPC.
//
// Server mode listens on an abstract socket, accepts clients and keeps a read
// and a write buffer per client. Client mode connects (retrying until it
// succeeds or is stopped), keeps the same two buffers for its one connection
// and reconnects whenever that connection closes. What the bytes mean is left
// to the owner's handlers (IpcHandlerState):
//   readHandler(fd, readBuffer)   consumes received bytes; -1 = bad stream
//   writeHandler(fd, writeBuffer) fills whole frames to send; -1 = failure
//   connectionHandler(fd)         a connection was accepted / established
//   closeHandler(fd)              a connection was closed, for whatever reason
//
// Use: construct, start() (the socket is created or connected on the loop
// thread), call notifyNeedWriteData(fd) after queueing data for fd, stop().
// The destructor stops the loop and closes every socket it holds.
//
// Sending never blocks the loop: when a peer stops reading, the unsent bytes
// stay in its write buffer and the loop serves everyone else. After ten
// EAGAIN results in a row the connection gets one last try a second later;
// if that fails too, the unsent frames are dropped (error code 1) and writing
// resumes once the peer reads again: first the rest of a frame it had begun
// to receive, so its stream keeps its framing, then fresh frames. Write interest is
// kept until the owner's queue is empty, so a notice is needed only when
// data is queued for an idle connection.
//
// A server can bound how many clients it holds and judge each one at accept
// (setMaxConnections, setAcceptFilter): a refused connection is closed before
// anything is read from it, and the clients already connected never notice.
// A client can judge the server it reached the same way (setServerFilter).
//
// A server survives a hostile or careless neighbourhood: when its name is
// taken it tries again with growing pauses; when accept fails (out of
// descriptors) it stops watching the listening socket and looks again a
// little later; the owner may stop reading from a client whose answers pile
// up (pauseReading) until they drain. Everything a peer can provoke is
// logged through one rate limiter (allowPeerFaultLog), which counts what it
// held back.
//
// Threading: every callback, handler, createServer() and connect() runs on
// the loop thread. Other threads may call notifyNeedWriteData(), and
// writeDataNow() for a connection that is not being closed at the same time.
// Lock order: bufferMutex before a descriptor's write mutex.
#pragma once

#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "diag/quor_bpf_rate_limiter.h"
#include "ipc/epoll_manager.h"
#include "ipc/ipc_package.h"

struct IpcHandlerState {
    // Move unconsumed read bytes to the buffer start before each receive, so
    // a frame split across receives survives.
    bool keepUnusedBytes = false;
    // Close the connection when a receive or the read handler fails.
    bool closeOnReadFailure = false;
    // Carried for the owner; the transport does not consult it.
    bool spareFlag = false;
    std::function<int(int, BufferState*)> readHandler;
    std::function<int(int, BufferState*)> writeHandler;
    std::function<int(int)> connectionHandler;
    std::function<int(int)> closeHandler;
};

class UnixIpcManager {
public:
    UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                   const char* name, cpu_set_t cpus, int epollSize, int maxEvents);
    // With the calling thread's affinity.
    UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                   const char* name, int epollSize, int maxEvents);
    // With the calling thread's affinity, named "BpfUtils".
    UnixIpcManager(bool isServer, int bufferSize, std::string path, IpcHandlerState handlers,
                   int epollSize, int maxEvents);
    virtual ~UnixIpcManager();

    UnixIpcManager(const UnixIpcManager&) = delete;
    UnixIpcManager& operator=(const UnixIpcManager&) = delete;

    virtual bool createServer();
    virtual bool connect();
    virtual bool start();
    virtual bool stop();
    // Waits until the loop thread has ended after stop().
    void waitStopped();

    bool notifyNeedWriteData(int fd);
    bool writeDataNow(int fd);
    // Stops / resumes reading from a connection (hang-ups still close it).
    // Any thread.
    bool pauseReading(int fd);
    bool resumeReading(int fd);
    // Whether a fault a peer provoked may be logged now; *heldBack is then
    // the number of such reports held back since the last one. Any thread.
    bool allowPeerFaultLog(uint64_t* heldBack) { return peerFaultLog.allow(heldBack); }

    bool allocateReadBufferForFd(int fd);
    bool allocateWriteBufferForFd(int fd);
    bool freeBufferForFd(int fd);
    bool clearAllBuffer();

    // Client mode: pause between connection attempts (5000 ms unless set);
    // may be changed at any time, the next pause uses it.
    void setConnectRetryInterval(int intervalMs) { retryIntervalMs.store(intervalMs); }
    // Client mode: told of every failed connection attempt with its errno, on
    // the loop thread; returning false ends the attempts and connect() fails.
    // Set it before start().
    void setConnectFailureObserver(std::function<bool(int)> observer) {
        onFailedAttempt = std::move(observer);
    }

    // Server mode: at most `limit` clients connected at once (0, the
    // default: no bound). A connection beyond it is closed as soon as it is
    // accepted, with a log; the clients already connected are not touched.
    // Set before start().
    void setMaxConnections(size_t limit) { maxConnections = limit; }
    // Server mode: asked about every accepted connection before anything is
    // read from it (on the loop thread, with its descriptor); false refuses
    // it: it is closed at once and `reason` is logged. Set before start().
    void setAcceptFilter(std::function<bool(int fd, std::string* reason)> filter) {
        acceptFilter = std::move(filter);
    }
    // Client mode: asked about every connection made, before anything is
    // sent or read (loop thread); false closes it, logs `reason` and counts
    // as a failed attempt (EPERM to the failure observer). Set before start().
    void setServerFilter(std::function<bool(int fd, std::string* reason)> filter) {
        serverFilter = std::move(filter);
    }

    // The listening socket (server) or the connection (client); -1 if none.
    int getSocketFd() const { return socketFd.load(); }
    bool isServerMode() const { return isServer; }

    int onServerReadableCallback(epoll_event event);
    int onServerCloseCallback(epoll_event event);
    int onClientReadableCallback(epoll_event event);
    int onCommWriteCallback(epoll_event event);
    int onClientCloseCallback(epoll_event event);

private:
    // One connection's outgoing side.
    struct WriteChannel {
        BufferState state{};
        std::mutex mutex;  // held for a whole write callback
        int tryCount = 0;  // EAGAIN results since the last progress
        // Set when a send finds the socket full: the last try is due then
        // (monotonic ms); 0 when no send is stalled.
        int64_t lastTryAtMs = 0;
    };

    enum class SendResult {
        kSent,     // everything went out
        kWaiting,  // the rest waits for the socket to drain
        kDropped,  // the peer stalled past its last try: the rest was dropped
        kFailed,   // the socket failed
    };
    // Sends the pending bytes of a write buffer.
    SendResult ensureDataSend(int fd, WriteChannel* channel);
    // Drops the unsent frames of a write buffer but the rest of one the peer
    // has partly received.
    static void keepStartedFrameOnly(BufferState* state);
    // Buffers, epoll callbacks and registration of a new connection.
    bool setUpConnection(int fd);
    // Close sequence after a failed receive or read handler.
    int closeAfterReadFailure(int fd, const char* abnormalMessage, const char* restartMessage);
    bool releaseConnection(int fd);
    void setSocketBufferSizes(int fd);
    std::function<int()> makeInitFunc();
    // Waits out the retry interval; false when stop() interrupted it.
    bool waitBeforeReconnect();

    std::string path;
    bool isServer;
    std::mutex spareMutex;
    std::mutex bufferMutex;
    int bufferSize;
    std::map<int, BufferState> readBuffers;
    std::map<int, WriteChannel> writeBuffers;
    std::unique_ptr<EpollManager> epollManager;
    IpcHandlerState handlerState;
    std::atomic<int> socketFd{-1};
    std::string name;

    // Connections accepted or connected and not yet closed (loop thread).
    std::set<int> connections;
    std::atomic<bool> stopRequested{false};
    std::mutex retryMutex;
    std::condition_variable retryCv;
    std::atomic<int> retryIntervalMs{5000};
    std::function<bool(int)> onFailedAttempt;

    // Refusing connections at accept (server mode, loop thread).
    void refuseConnection(int fd, const std::string& reason);
    size_t maxConnections = 0;
    std::function<bool(int, std::string*)> acceptFilter;
    std::function<bool(int, std::string*)> serverFilter;
    // A burst, then one report a second.
    Quor::Bpf::RateLimiter peerFaultLog{10, std::chrono::seconds(1)};
    // Full sockets met while sending (loop thread): the same.
    Quor::Bpf::RateLimiter socketFullLog{10, std::chrono::seconds(1)};

    // Server mode, loop thread: a failed bind is tried again after a pause
    // that doubles up to a bound; a failed accept pauses the listening
    // socket for a while. Both are logged through listenLog.
    void retryCreateServer();
    void pauseAccepting(int err);
    int createServerDelayMs = 0;  // the last pause; 0 after a successful bind
    bool createServerPending = false;
    Quor::Bpf::RateLimiter listenLog{3, std::chrono::seconds(1)};
};
