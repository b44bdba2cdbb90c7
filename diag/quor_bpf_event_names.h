// Names of the kernel event types as the statistics file prints them.
//
// Kept in diag/ because the statistics (diag) and the service both need them
// and diag must not depend on the service. The names and the number of slots
// come from the type list in quor/quor_bpf_records.h. Pure functions; any
// thread.
#pragma once

#include <cstdint>

#include "quor/quor_bpf_records.h"

namespace Quor {
namespace Bpf {

// Statistics slots: one per kernel type, then the poll counter.
constexpr int QUOR_STAT_SLOTS = static_cast<int>(kQuorStatSlots);

// Statistics name of a kernel event type, "PollCount" for the last slot and
// "UNKNOW" for anything else.
const char* EventTypeName(int32_t type);

}  // namespace Bpf
}  // namespace Quor
