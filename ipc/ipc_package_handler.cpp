#include "ipc/ipc_package_handler.h"

#include <utility>

IpcPackageHandler::IpcPackageHandler(std::map<unsigned int, PackageCallback> callbacks)
    : callbacks_(std::move(callbacks)) {}

int IpcPackageHandler::handleSecondIpcPackage(int fd, char* package, long packageSize) {
    if (packageSize < IPC_PACKAGE_HEADER_SIZE) return -1;
    const uint32_t type = IpcReadU32(package);
    const long bodyLength = static_cast<long>(IpcReadU32(package + 4));
    if (bodyLength > packageSize - IPC_PACKAGE_HEADER_SIZE) return -1;
    // Unknown types are looked up without inserting: a peer choosing types
    // must not be able to grow the table.
    auto it = callbacks_.find(type);
    if (it == callbacks_.end() || !it->second) return 0;
    return it->second(fd, package + IPC_PACKAGE_HEADER_SIZE, bodyLength);
}

bool IpcPackageHandler::handleAllIpcPackageInBuffer(int fd, BufferState* state) {
    if (state->bufferCursor >= state->bufferDataCursor) return true;
    for (;;) {
        long headerSize = 0;
        long packageSize = 0;
        if (!CheckIpcPackageComplete(state, &headerSize, &packageSize)) return true;
        char* package = state->buffer + state->bufferCursor + headerSize;
        if (handleSecondIpcPackage(fd, package, packageSize) == -1) return false;
        state->bufferCursor += headerSize + packageSize;
        if (state->bufferCursor >= state->bufferDataCursor) return true;
    }
}
