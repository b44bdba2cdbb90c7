// Vocabulary shared with the kernel side: event type names and the pinned
// object paths. The programme tables themselves are static members of
// QuorBpfService (quor_bpf_event_tables.cpp).
#pragma once

#include <cstdint>

#include "diag/quor_bpf_event_names.h"  // EventTypeName, QUOR_STAT_SLOTS
#include "quor/quor_bpf_records.h"

namespace Quor {
namespace Bpf {

constexpr const char* QUOR_BPF_BASE_PATH = "/sys/fs/bpf/quor/";
constexpr const char* QUOR_BPF_OBJECT = "QuorBpfDefineset";
constexpr const char* QUOR_BPF_GPL_OBJECT = "QuorBpfGplDefineset";

// Ring-buffer index 0 is the main set, 1 the GPL set.
constexpr int RINGBUF_MAIN = 0;
constexpr int RINGBUF_GPL = 1;
constexpr const char* RINGBUF_MAP_PATHS[2] = {
    "/sys/fs/bpf/quor/map_QuorBpfDefineset_ringbuf_map",
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_ringbuf_map",
};
// "1" turns on the main monitor's low-latency reading (see the monitor).
constexpr const char* QUOR_BPF_LOW_LATENCY_PROPERTY = "persist.sys.quorbpf.low_latency";

// Whether the service produces records of `type`, so that a client may
// subscribe to it: the kernel record types and the service's own events. A
// subscription to anything else could never deliver a record.
constexpr bool IsSubscribableEventType(uint32_t type) {
    return type <= QUOR_EVENT_KERNEL_MAX ||
           (type >= QUOR_SERVICE_TASK_NEW && type <= QUOR_SERVICE_RSS_CHANGE);
}

constexpr const char* RINGBUF_STATUS_PATHS[2] = {
    "/sys/fs/bpf/quor/map_QuorBpfDefineset_ringbuf_status",
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_ringbuf_status",
};

}  // namespace Bpf
}  // namespace Quor
