// `quorbpfctl record`: the service's events as a trace file that Perfetto's
// UI and chrome://tracing open (trace_model.h decides what is drawn,
// trace_writer.h writes it).
//
// Subscribes first, then opens the trace with the daemon's task table, so
// that nothing starting in between is missed (records wait for the table).
// Writes as it goes;
// reports events, bytes and undecodable records on stderr once a second. Ctrl-C (SIGINT, SIGTERM,
// SIGHUP) or the end of --duration ends every open slice and closes the file, which is then valid
// JSON. Blocks the stop signals in the calling thread: call from the main thread.
#pragma once

#include <cstdio>

#include "tools/quorbpfctl/ctl_options.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

constexpr const char* kDefaultTraceFile = "quorbpf-trace.json";

int RunRecordCommand(const CtlOptions& options, FILE* err);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
