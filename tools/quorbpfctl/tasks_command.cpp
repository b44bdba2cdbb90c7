#include "tools/quorbpfctl/tasks_command.h"

#include <string>

#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/fetch_dump.h"
#include "tools/quorbpfctl/task_dump.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

int TaskDumpSignal(bool normal, bool noKernel) {
    if (normal) return noKernel ? kSignalTasksNormalNoKernel : kSignalTasksNormal;
    return noKernel ? kSignalTasksNoKernel : kSignalTasks;
}

int RunTasksCommand(const CtlOptions& options, FILE* out, FILE* err) {
    const bool allRows = !options.noKernel;
    std::string text;
    const int rc = FetchDump(
        options, TaskDumpSignal(options.normal, options.noKernel), kTaskDumpFile,
        [allRows](const std::string& contents) { return TaskDumpComplete(contents, allRows); },
        &text, err);
    if (rc != kExitOk) return rc;
    if (fwrite(text.data(), 1, text.size(), out) != text.size() || fflush(out) != 0) {
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
