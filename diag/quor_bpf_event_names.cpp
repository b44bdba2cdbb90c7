#include "diag/quor_bpf_event_names.h"

namespace Quor {
namespace Bpf {

const char* EventTypeName(int32_t type) {
    static const char* const kNames[QUOR_STAT_SLOTS] = {
        "quor_task_init",  "kmem_rss_info",    "sched_task_create",
        "sched_task_exit", "dmabuf_size_info", "cgroup_attach_cpuset_info",
        "fd_update_info",  "dmabuf_update",    "PollCount",
    };
    if (type < 0 || type >= QUOR_STAT_SLOTS) return "UNKNOW";
    return kNames[type];
}

}  // namespace Bpf
}  // namespace Quor
