// Names of the kernel event types as the statistics file prints them.
//
// Kept in diag/ because the statistics (diag) and the service both need them
// and diag must not depend on the service. Pure functions; any thread.
#pragma once

#include <cstdint>

namespace Quor {
namespace Bpf {

// Statistics slots: kernel types 0..7 and the poll counter.
constexpr int QUOR_STAT_SLOTS = 9;

// Statistics name of a kernel event type 0..7, "PollCount" for slot 8 and
// "UNKNOW" for anything else.
const char* EventTypeName(int32_t type);

}  // namespace Bpf
}  // namespace Quor
