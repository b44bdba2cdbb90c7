// The service's fixed settings: where its pinned BPF objects are, which ring
// buffer is which, the properties it reads and the CPUs its threads use. The
// programme tables themselves are static members of QuorBpfService
// (quor_bpf_event_tables.cpp).
#pragma once

#include <sched.h>

#include <cstdint>

#include "diag/quor_bpf_event_names.h"  // EventTypeName, QUOR_STAT_SLOTS
#include "quor/quor_bpf_records.h"

namespace Quor {
namespace Bpf {

constexpr const char* QUOR_BPF_BASE_PATH = "/sys/fs/bpf/quor/";
// The two programme sets, as their pinned objects are named.
constexpr const char* QUOR_BPF_OBJECT = "QuorBpfDefineset";
constexpr const char* QUOR_BPF_GPL_OBJECT = "QuorBpfGplDefineset";

// Ring-buffer index 0 is the main set, 1 the GPL set.
constexpr int RINGBUF_MAIN = 0;
constexpr int RINGBUF_GPL = 1;
constexpr const char* RINGBUF_MAP_PATHS[2] = {
    "/sys/fs/bpf/quor/map_QuorBpfDefineset_ringbuf_map",
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_ringbuf_map",
};
constexpr const char* RINGBUF_STATUS_PATHS[2] = {
    "/sys/fs/bpf/quor/map_QuorBpfDefineset_ringbuf_status",
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_ringbuf_status",
};

// Properties. "1" in the first turns the service off; it waits until the
// platform sets the second to something other than "0".
constexpr const char* QUOR_BPF_DISABLE_PROPERTY = "persist.sys.stability.bpfframework.disable";
constexpr const char* QUOR_BPF_READY_PROPERTY = "sys.quor_bpf_ready";
// Who may connect besides uid 0 and the service's own uid: lists of uids and
// gids ("1000,2000"), read when the service is created. Linux hosts only; on
// a device the platform's socket policy decides.
constexpr const char* QUOR_BPF_ALLOW_UIDS_PROPERTY = "persist.sys.quorbpf.allow_uids";
constexpr const char* QUOR_BPF_ALLOW_GIDS_PROPERTY = "persist.sys.quorbpf.allow_gids";
// "1" turns on the main monitor's low-latency reading (see the monitor).
constexpr const char* QUOR_BPF_LOW_LATENCY_PROPERTY = "persist.sys.quorbpf.low_latency";

// The service's threads share CPUs 0-2 and leave the rest to the device.
inline cpu_set_t ServiceCpus() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    for (int cpu = 0; cpu <= 2; ++cpu) CPU_SET(cpu, &cpus);
    return cpus;
}

}  // namespace Bpf
}  // namespace Quor
