// A small server of the service's wire format on an abstract socket, for
// tests of the transport and of the client library: one outgoing package
// queue per client and a callback per incoming package type.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/unix_ipc_manager.h"
#include "tests/support/raw_ipc_client.h"

namespace quortest {

class PackageServer {
public:
    using Callbacks = std::map<unsigned int, IpcPackageHandler::PackageCallback>;
    PackageServer(const char* name, Callbacks callbacks,
                  std::function<void(int)> onClose = nullptr) {
        packages_ = std::make_unique<IpcPackageHandler>(std::move(callbacks));
        IpcHandlerState handlers;
        handlers.keepUnusedBytes = true;
        handlers.closeOnReadFailure = true;
        handlers.readHandler = [this](int fd, BufferState* buffer) {
            const bool ok = packages_->handleAllIpcPackageInBuffer(fd, buffer);
            pendingBytes.store(buffer->bufferDataCursor - buffer->bufferCursor);
            receives.fetch_add(1);
            return ok ? 0 : -1;
        };
        handlers.writeHandler = [this](int fd, BufferState* buffer) {
            std::lock_guard<std::mutex> lock(mutex_);
            const auto queue = queues_.find(fd);
            while (queue != queues_.end() && queue->second->fillNextIpcPackageToBuffer(buffer)) {
            }
            return 0;
        };
        handlers.connectionHandler = [this](int fd) {
            std::lock_guard<std::mutex> lock(mutex_);
            queues_[fd] = std::make_unique<IpcPackageManager>();
            return 0;
        };
        handlers.closeHandler = [this, onClose](int fd) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                queues_.erase(fd);
            }
            if (onClose) onClose(fd);
            return 0;
        };
        server_ =
            std::make_unique<UnixIpcManager>(true, 32768, name, handlers, "TestServer", 4, 16);
        server_->start();
        listening = WaitFor([this] { return server_->getSocketFd() != -1; });
    }

    // Queues a package, or a response, for the client on `fd`.
    void send(int fd, uint32_t type, char* body, long length) {
        append(fd, [&](IpcPackageManager* queue) {
            queue->buildAndAppendSecondIpcPackage(type, body, length);
        });
    }
    void respond(int fd, QuorRespIpcPackage* response) {
        append(fd, [&](IpcPackageManager* queue) { queue->appendRespIpcPackage(response); });
    }

    std::atomic<int> receives{0};
    std::atomic<int64_t> pendingBytes{0};  // received, not yet a whole frame
    bool listening = false;

private:
    template <typename Append>
    void append(int fd, const Append& add) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const auto queue = queues_.find(fd);
            if (queue == queues_.end()) return;
            add(queue->second.get());
        }
        server_->notifyNeedWriteData(fd);
    }

    std::mutex mutex_;
    std::map<int, std::unique_ptr<IpcPackageManager>> queues_;
    std::unique_ptr<IpcPackageHandler> packages_;
    std::unique_ptr<UnixIpcManager> server_;
};

}  // namespace quortest
