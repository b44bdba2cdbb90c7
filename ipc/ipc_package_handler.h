// IpcPackageHandler: dispatches received typed packages to a callable per
// package type.
//
// The read handler of a connection hands it each complete frame; the handler
// checks that the package is whole (its 8-byte header and the body its length
// field claims both lie inside the frame) and calls the callable registered
// for its type with (fd, body, body length). A package of a type without a
// callable is consumed silently. A package that is not whole is reported as
// -1, which the caller treats as a broken stream.
//
//   IpcPackageHandler handler({{IPC_PACKAGE_REQUEST, onRequest},
//                              {IPC_PACKAGE_EVENT, {}}});
//   handler.handleAllIpcPackageInBuffer(fd, &readBuffer);
//
// Threading: takes no lock; use one handler from one thread (the socket
// thread), or only concurrently if the callables allow it.
#pragma once

#include <functional>
#include <map>

#include "ipc/ipc_package.h"

class IpcPackageHandler {
public:
    // (fd, body, body length) -> -1 when the package is bad, else anything.
    using PackageCallback = std::function<int(int, char*, long)>;

    explicit IpcPackageHandler(std::map<unsigned int, PackageCallback> callbacks);

    // Dispatches every complete frame from the buffer's cursor on, advancing
    // the cursor past each; a partial frame stays pending. False (cursor left
    // on the frame) when a package is bad or its callable returned -1.
    bool handleAllIpcPackageInBuffer(int fd, BufferState* state);

    // Dispatches the typed package of `packageSize` bytes at `package`
    // (a frame's L). Returns the callable's result, 0 when there is none, and
    // -1 when the package is shorter than its header or its body length field
    // claims more bytes than the frame holds.
    int handleSecondIpcPackage(int fd, char* package, long packageSize);

private:
    std::map<unsigned int, PackageCallback> callbacks_;
};
