// The byte stream between the service and its clients, and the buffer record
// through which the socket layer and the package layers exchange bytes.
//
// Everything on the socket is a sequence of frames. A frame carries one typed
// package; all fields are in the host's byte order (little-endian on every
// target), without padding:
//
//   frame      0          8                       8+L
//              +----------+-----------------------+
//              | L (s64)  | typed package, L bytes|
//              +----------+-----------------------+
//
//   package    0          4          8                 8+B
//              +----------+----------+-----------------+
//              | type u32 | B (u32)  | body, B bytes   |     L == B + 8
//              +----------+----------+-----------------+
//
//   type 0  request   (client -> service)
//              0        4         8          12          12+n
//              | reqId  | command | dataSize | data, n = dataSize bytes |
//              command 51 subscribe, 52 unsubscribe; data is the s32 event type
//
//   type 1  response  (service -> client)
//              0        4         8          12         16             24        24+n
//              | reqId  | status  | dataSize | reserved | reserved (8) | data, n bytes |
//              status 0 handled, -1 unknown command. The decoder reads reqId,
//              status and dataSize and takes the data from offset 12; every
//              response the service sends has dataSize 0.
//
//   type 3  event     (service -> client): one record, byte for byte
//                     (layouts in include/quor/quor_bpf_records.h)
//
// A frame never exceeds the buffer it is read into (32768 bytes in the
// service, header included): a length that cannot fit is damage, and the
// receiver drops everything it holds for that connection.
//
// Threading: the functions here take no lock. A BufferState belongs to one
// thread at a time (read buffers to the socket thread; write buffers to
// whoever holds that descriptor's write mutex).
#pragma once

#include <cstddef>
#include <cstdint>

// Frame header: the signed 64-bit length of the typed package that follows.
constexpr long IPC_FRAME_HEADER_SIZE = 8;
// Typed package header: 32-bit type and 32-bit body length.
constexpr long IPC_PACKAGE_HEADER_SIZE = 8;

enum IpcPackageType : uint32_t {
    IPC_PACKAGE_REQUEST = 0,
    IPC_PACKAGE_RESPONSE = 1,
    IPC_PACKAGE_RESERVED = 2,
    IPC_PACKAGE_EVENT = 3,
    IPC_PACKAGE_TYPE_MAX = 3,
};

enum IpcCommand : uint32_t {
    IPC_COMMAND_SUBSCRIBE = 51,
    IPC_COMMAND_UNSUBSCRIBE = 52,
};

// Request body fields before the data, and response body fields before the
// data as encoded.
constexpr long IPC_REQUEST_BODY_HEADER_SIZE = 12;
constexpr long IPC_RESPONSE_BODY_HEADER_SIZE = 24;
// Fields the response decoder reads (reqId, status, dataSize).
constexpr long IPC_RESPONSE_DECODED_HEADER_SIZE = 12;

// One descriptor's buffer in one direction.
//   read side:  [bufferCursor, bufferDataCursor) received, not yet consumed
//   write side: [bufferCursor, bufferDataCursor) filled, not yet sent
// Invariant: 0 <= bufferCursor <= bufferDataCursor <= bufferSize.
struct BufferState {
    int64_t bufferCursor;
    int64_t bufferDataCursor;
    int64_t bufferSize;
    char* buffer;
};

// One queued outgoing typed package: packageSize bytes at packageData. The
// block belongs to IpcPackageManager, which may share it between queues and
// frees it when the last queue lets go of it.
struct QuorIpcPackage {
    uint64_t packageSize;
    char* packageData;
};

// A request as the client builds it; `data` is not owned.
struct QuorReqIpcPackage {
    uint32_t reqId;
    uint32_t command;
    uint32_t dataSize;
    char* data;
};

// A response as the service builds it; `data` is not owned. The first 24
// bytes mirror the encoded response body header.
struct QuorRespIpcPackage {
    uint32_t reqId;
    int32_t status;
    uint32_t dataSize;
    uint32_t reserved;
    char* data;
};

// The header sizes above are the wire's, and a received response body is
// handed on as a QuorRespIpcPackage*: a target whose layout differs must not
// build.
static_assert(sizeof(IpcPackageType) == 4 && sizeof(IpcCommand) == 4, "wire words are 32-bit");
static_assert(IPC_FRAME_HEADER_SIZE == sizeof(int64_t), "frame length is an s64");
static_assert(IPC_PACKAGE_HEADER_SIZE == 2 * sizeof(uint32_t), "package header: type, length");
static_assert(offsetof(QuorReqIpcPackage, reqId) == 0 &&
                  offsetof(QuorReqIpcPackage, command) == 4 &&
                  offsetof(QuorReqIpcPackage, dataSize) == 8,
              "request fields in wire order");
static_assert(offsetof(QuorReqIpcPackage, dataSize) + sizeof(uint32_t) ==
                  IPC_REQUEST_BODY_HEADER_SIZE,
              "request body header");
static_assert(offsetof(QuorRespIpcPackage, reqId) == 0 &&
                  offsetof(QuorRespIpcPackage, status) == 4 &&
                  offsetof(QuorRespIpcPackage, dataSize) == 8 &&
                  offsetof(QuorRespIpcPackage, reserved) == 12,
              "response fields in wire order");
static_assert(offsetof(QuorRespIpcPackage, dataSize) + sizeof(uint32_t) ==
                  IPC_RESPONSE_DECODED_HEADER_SIZE,
              "decoded response header");
static_assert(sizeof(QuorRespIpcPackage) == IPC_RESPONSE_BODY_HEADER_SIZE,
              "a response struct mirrors the encoded response body header");

// True when a whole frame lies at state->bufferCursor. *headerSize is always
// set to 8; once the 8 length bytes are present *packageSize is set to L.
// A length that can never fit the buffer (negative, or 8 + L > bufferSize) is
// damage: it is recorded with error code 2, logged with a hex dump of the
// first 256 buffered bytes (ten reports, then one a second; the next report
// counts those held back), every buffered byte is dropped (both cursors 0) and
// false is returned.
bool CheckIpcPackageComplete(BufferState* state, long* headerSize, long* packageSize);

// Moves the pending bytes to the start of the buffer so that the next receive
// can complete a partial frame. An inconsistent record (cursor beyond the data
// end) is logged and emptied.
void SaveUnuseBuffer(BufferState* state);

// Little-endian field access at any alignment (frames are not aligned).
inline uint32_t IpcReadU32(const char* at) {
    uint32_t value;
    __builtin_memcpy(&value, at, sizeof(value));
    return value;
}
inline int32_t IpcReadS32(const char* at) {
    int32_t value;
    __builtin_memcpy(&value, at, sizeof(value));
    return value;
}
inline int64_t IpcReadS64(const char* at) {
    int64_t value;
    __builtin_memcpy(&value, at, sizeof(value));
    return value;
}
