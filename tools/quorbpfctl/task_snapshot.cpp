#include "tools/quorbpfctl/task_snapshot.h"

#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/fetch_dump.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

int FetchTaskSnapshot(const CtlOptions& options, TaskDump* dump, FILE* err) {
    std::string text;
    const int rc = FetchDump(
        options, kSignalTasksNormalNoKernel, kTaskDumpFile,
        [](const std::string& contents) { return TaskDumpComplete(contents, false); }, &text, err);
    if (rc != kExitOk) return rc;
    std::string error;
    if (!ParseTaskDump(text, dump, &error)) {
        fprintf(err, "quorbpfctl: %s\n", error.c_str());
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
