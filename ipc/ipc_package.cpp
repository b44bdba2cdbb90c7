#include "ipc/ipc_package.h"

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

#include "diag/quor_bpf_error_log.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_rate_limiter.h"
#include "diag/quor_bpf_strings.h"

using Quor::Bpf::ConvertToHexString;
using Quor::Bpf::RateLimiter;
using Quor::Bpf::RecordBpfServiceErrorInfo;
using Quor::Bpf::StringPrintf;

namespace {

constexpr int32_t kErrorDamagedFrame = 2;
// Damage is reported in a burst of ten, then once a second, each report with
// at most this many buffered bytes: a client sending nothing but damage must
// not turn the error log into a copy of its traffic.
constexpr int kDamageReportBurst = 10;
constexpr int64_t kDamageHexDumpBytes = 256;

std::string HexOfBuffered(const BufferState* state) {
    const int64_t shown = std::min<int64_t>(state->bufferDataCursor, kDamageHexDumpBytes);
    std::string hex = ConvertToHexString(state->buffer, static_cast<int32_t>(shown));
    if (shown < state->bufferDataCursor) {
        hex += StringPrintf("... (%ld bytes)", static_cast<long>(state->bufferDataCursor));
    }
    return hex;
}

void ReportDamage(const BufferState* state, long frameSize) {
    static RateLimiter limiter(kDamageReportBurst, std::chrono::seconds(1));
    uint64_t heldBack = 0;
    if (!limiter.allow(&heldBack)) return;
    const std::string hex = HexOfBuffered(state);
    std::string message = StringPrintf(
        "Ipc package damage, packageSize: %ld, cursor: %ld, data: %ld, bufferSize: %ld, Buffer "
        "hexdump: %s",
        frameSize, static_cast<long>(state->bufferCursor),
        static_cast<long>(state->bufferDataCursor), static_cast<long>(state->bufferSize),
        hex.c_str());
    if (heldBack > 0) {
        message += StringPrintf(" (%llu more damaged packages not reported)",
                                static_cast<unsigned long long>(heldBack));
    }
    RecordBpfServiceErrorInfo(kErrorDamagedFrame, message);
    QLOGE(QUOR_TAG_UTILS,
          "Ipc package too big or damage, clear buffer. packageSize: %ld, cursor: %ld, data: %ld, "
          "bufferSize: %ld",
          frameSize, static_cast<long>(state->bufferCursor),
          static_cast<long>(state->bufferDataCursor), static_cast<long>(state->bufferSize));
    QLOGE(QUOR_TAG_UTILS, "Buffer hexdump: %s", hex.c_str());
}

}  // namespace

bool CheckIpcPackageComplete(BufferState* state, long* headerSize, long* packageSize) {
    *headerSize = IPC_FRAME_HEADER_SIZE;
    if (state->bufferCursor + IPC_FRAME_HEADER_SIZE > state->bufferDataCursor) return false;

    const int64_t length = IpcReadS64(state->buffer + state->bufferCursor);
    *packageSize = length;
    // Compare without forming 8 + L: a hostile length near the limits of the
    // type must not overflow. A negative length is damage like an oversized one.
    if (length >= 0 && length <= state->bufferSize - IPC_FRAME_HEADER_SIZE) {
        return state->bufferCursor + IPC_FRAME_HEADER_SIZE + length <= state->bufferDataCursor;
    }

    ReportDamage(state, static_cast<long>(static_cast<uint64_t>(length) + IPC_FRAME_HEADER_SIZE));
    state->bufferCursor = 0;
    state->bufferDataCursor = 0;
    return false;
}

void SaveUnuseBuffer(BufferState* state) {
    if (state->bufferDataCursor >= state->bufferCursor && state->bufferCursor >= 0) {
        const int64_t pending = state->bufferDataCursor - state->bufferCursor;
        if (pending > 0 && state->bufferCursor > 0) {
            memmove(state->buffer, state->buffer + state->bufferCursor, pending);
        }
        state->bufferDataCursor = pending;
    } else {
        QLOGW(QUOR_TAG_UTILS, "Save last buffer error! bufferCursor: %zd, bufferDataCursor: %zd",
              static_cast<ssize_t>(state->bufferCursor),
              static_cast<ssize_t>(state->bufferDataCursor));
        state->bufferDataCursor = 0;
    }
    state->bufferCursor = 0;
}
