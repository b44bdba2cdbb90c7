// Seeds the task registry with the processes that ran before the kernel
// programmes were attached: one synthetic task-init record per process goes
// through the same record handler as the ring buffer's records, so the
// registry learns them by its ordinary path.
#include "bpf/quor_bpf_task_scan.h"

#include <cerrno>
#include <cstring>

#include "bpf/quor_bpf_proc_info.h"
#include "bpf/quor_bpf_procfs_paths.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_state.h"

namespace Quor {
namespace Bpf {

int ScanRunningTasks(const std::function<void(quor_task_init_record*)>& submit) {
    int count = 0;
    const int rc = ForEachProcPid([&submit, &count](const std::string& pidName) {
        quor_task_init_record record;
        if (!ReadTaskInitRecord(pidName, &record)) return;  // gone meanwhile
        ++count;
        submit(&record);
    });
    if (rc != 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][initTaskInfo] read %s failed: %s",
              Procfs::PROC_FS_PATH, strerror(errno));
    }
    QuorBpfDataState::GetInstance()->RecordEvent(QUOR_EVENT_TASK_INIT, count);
    return count;
}

}  // namespace Bpf
}  // namespace Quor
