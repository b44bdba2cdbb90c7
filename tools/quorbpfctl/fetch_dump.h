// FetchDump: finds the daemon and has it write one of its diagnostic files
// (DaemonFinder + DumpRequest), reporting failures on stderr in words a
// person can act on. Shared by `tasks`, `stats` and `top`.
//
//   std::string text;
//   int rc = FetchDump(options, 53, "DUMPTASK_INFO", check, &text, stderr);
//
// Blocks for up to options.timeoutMs; any thread.
#pragma once

#include <cstdio>
#include <string>

#include "tools/quorbpfctl/ctl_options.h"
#include "tools/quorbpfctl/dump_request.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

constexpr int kSignalState = 50;
constexpr int kSignalTasks = 51;
constexpr int kSignalTasksNoKernel = 52;
constexpr int kSignalTasksNormal = 53;
constexpr int kSignalTasksNormalNoKernel = 54;

constexpr const char* kTaskDumpFile = "DUMPTASK_INFO";
constexpr const char* kStateFile = "bpfservice_state.csv";

int FetchDump(const CtlOptions& options, int signo, const char* fileName,
              const DumpRequest::CompleteCheck& complete, std::string* contents, FILE* err);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
