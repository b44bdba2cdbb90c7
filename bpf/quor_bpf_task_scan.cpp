// Seeds the task registry with the processes that ran before the kernel
// programmes were attached: one synthetic task-init record per process goes
// through the same record handler as the ring buffer's records, so the
// registry learns them by its ordinary path.
#include <cerrno>
#include <cstring>

#include "bpf/quor_bpf_proc_info.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_state.h"
#include "service/quor_bpf_service.h"

namespace Quor {
namespace Bpf {

void QuorBpfService::initTaskInfo() {
    int count = 0;
    const int rc = ForEachProcPid([this, &count](const std::string& pidName) {
        quor_task_init_record record;
        if (!ReadTaskInitRecord(pidName, &record)) return;  // gone meanwhile
        ++count;
        (void)handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
    });
    if (rc != 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][initTaskInfo] read %s failed: %s", PROC_FS_PATH,
              strerror(errno));
    }
    QuorBpfDataState::GetInstance()->RecordEvent(QUOR_EVENT_TASK_INIT, count);
}

}  // namespace Bpf
}  // namespace Quor
