// FetchTaskSnapshot: the daemon's task table as parsed rows, for the
// commands that start from what is already running (record, exporter).
// Failures are reported on `err`; the exit code says which (ctl_exit_codes.h).
// Blocking for up to options.timeoutMs; any thread.
#pragma once

#include <cstdio>

#include "tools/quorbpfctl/ctl_options.h"
#include "tools/quorbpfctl/task_dump.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

int FetchTaskSnapshot(const CtlOptions& options, TaskDump* dump, FILE* err);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
