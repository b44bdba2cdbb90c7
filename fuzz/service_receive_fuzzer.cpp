// Raw client bytes through the service's whole receive path (read callback
// with the service's server settings, frame checks, dispatch, requests), then
// its queued responses drained and the connection closed as on a hang-up.
// Byte 0 cuts the stream into receives of 1 + 130 * b bytes (at most 256).
#include <android/log.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include "fuzz/fuzz_support.h"
#include "ipc/ipc_package.h"
#include "ipc/unix_ipc_manager.h"
#include "service/event_manager.h"
#include "service/quor_bpf_service.h"

using Quor::Bpf::EventManager;
using Quor::Bpf::QuorBpfService;

namespace {
constexpr int kBufferSize = 32768;  // the service's buffer size
constexpr int kResponseFrameSize = 40;

UnixIpcManager* gTransport = nullptr;

// The service's server settings; its loop never runs: the fuzzer plays it.
UnixIpcManager* MakeTransport(QuorBpfService* service) {
    IpcHandlerState handlers;
    handlers.keepUnusedBytes = true;
    handlers.closeOnReadFailure = true;
    handlers.readHandler = [service](int fd, BufferState* buf) {
        return service->onClientLibReadable(fd, buf);
    };
    handlers.writeHandler = [service](int fd, BufferState* buf) {
        return service->onClientLibWriteable(fd, buf);
    };
    handlers.connectionHandler = [service](int fd) { return service->onClientLibConnection(fd); };
    handlers.closeHandler = [service](int fd) { return service->onClientLibClose(fd); };
    return new UnixIpcManager(true, kBufferSize, "quor_fuzz_unused", std::move(handlers), "FuzzTr",
                              4, 8);
}

size_t PendingBytes(int fd) {
    int pending = 0;
    return ioctl(fd, FIONREAD, &pending) == 0 && pending > 0 ? static_cast<size_t>(pending) : 0;
}

// Drains what the service queued for fd; every frame must be a response.
void DrainResponses(QuorBpfService* service, int fd) {
    static char block[kBufferSize];
    for (int round = 0; round < 100000; ++round) {
        BufferState out = {0, 0, kBufferSize, block};
        (void)service->onClientLibWriteable(fd, &out);
        if (out.bufferDataCursor == 0) return;
        Require(out.bufferDataCursor % kResponseFrameSize == 0);
        for (int64_t at = 0; at < out.bufferDataCursor; at += kResponseFrameSize) {
            Require(IpcReadS64(block + at) == kResponseFrameSize - 8);
            Require(IpcReadU32(block + at + 8) == IPC_PACKAGE_RESPONSE);
            Require(IpcReadU32(block + at + 12) == 24);
            const int32_t status = IpcReadS32(block + at + 20);
            Require(status == 0 || status == -1);
        }
    }
    Require(false);  // the queue never empties
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    gTransport = MakeTransport(QuorBpfService::GetInstance());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    QuorBpfService* service = QuorBpfService::GetInstance();
    const uint8_t* stream = data + 1;
    const size_t streamSize = size - 1;
    const size_t step = std::max<size_t>(1 + static_cast<size_t>(data[0]) * 130, streamSize / 256);

    int pair[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) == 0);
    const int fd = pair[0];
    Require(gTransport->allocateReadBufferForFd(fd) && gTransport->allocateWriteBufferForFd(fd));
    (void)service->onClientLibConnection(fd);

    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    bool open = true;
    size_t sent = 0;
    while (open && sent < streamSize) {
        const size_t chunk = std::min(step, streamSize - sent);
        const ssize_t n = send(pair[1], stream + sent, chunk, MSG_NOSIGNAL);
        Require(n > 0);
        sent += static_cast<size_t>(n);
        // Each readable callback must consume something or close.
        for (int calls = 0; open && PendingBytes(fd) > 0; ++calls) {
            Require(calls < 100000);
            open = gTransport->onClientReadableCallback(event) != -2;
        }
    }
    if (open) {
        DrainResponses(service, fd);
        (void)gTransport->onClientCloseCallback(event);  // the peer hangs up
    }
    (void)close(pair[1]);
    // A later connection on the same descriptor number starts clean.
    Require(EventManager::GetInstance()->GetObserverEvents(fd).empty());
    return 0;
}
