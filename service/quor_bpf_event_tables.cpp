#include "service/quor_bpf_service.h"
#include "service/quor_bpf_service_settings.h"

namespace Quor {
namespace Bpf {

// Built once at library load by static initialisation and never changed.
const BpfProgTable QuorBpfService::PROG_EVENT_MAP = {
    {QUOR_BPF_OBJECT,
     {
         {BPF_ATTACH_TRACEPOINT,
          {
              {"sched_sched_switch", "sched", "sched_switch", "5.0+"},
              {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
              {"sched_sched_process_fork", "sched", "sched_process_fork", "5.0+"},
              {"kmem_rss_stat", "kmem", "rss_stat", "5.0+"},
          }},
         {BPF_ATTACH_KPROBE,
          {
              {"enter_fd_install", "fd_install", "", "5.0+"},
          }},
         {BPF_ATTACH_KRETPROBE, {}},
     }},
};

const BpfProgTable QuorBpfService::PROG_GPL_EVENT_MAP = {
    {QUOR_BPF_GPL_OBJECT,
     {
         {BPF_ATTACH_TRACEPOINT,
          {
              {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
              {"cgroup_cgroup_attach_task", "cgroup", "cgroup_attach_task", "5.0+"},
          }},
         {BPF_ATTACH_KPROBE,
          {
              {"dma_buf_file_release", "dma_buf_file_release", "", "6.1+"},
              {"dma_buf_stats_setup", "dma_buf_stats_setup", "", "6.1+"},
          }},
     }},
};

}  // namespace Bpf
}  // namespace Quor
