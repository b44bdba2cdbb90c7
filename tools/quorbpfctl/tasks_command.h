// `quorbpfctl tasks`: has the daemon dump its task table and prints the file.
//
// The variant follows the options: --normal for the short columns,
// --no-kernel to leave out tasks without memory (signals 51 to 54).
// Blocking; call from the main thread.
#pragma once

#include <cstdio>

#include "tools/quorbpfctl/ctl_options.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

int RunTasksCommand(const CtlOptions& options, FILE* out, FILE* err);

// The signal that asks for the variant the options choose.
int TaskDumpSignal(bool normal, bool noKernel);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
