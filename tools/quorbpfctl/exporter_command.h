// `quorbpfctl exporter`: Prometheus metrics of the service's events
// (exporter_metrics.h), served at /metrics (metrics_http_server.h) or, with
// --textfile, written to DIR/quorbpf.prom every --interval seconds for
// node_exporter's textfile collector: to a hidden file first, then renamed,
// so a reader never sees half a file.
//
// Subscribes first, then seeds the live processes from the daemon's task
// table. Runs until SIGINT, SIGTERM or SIGHUP; blocks them in the calling
// thread before any other thread starts: call from the main thread.
#pragma once

#include <cstdio>
#include <string>

#include "tools/quorbpfctl/ctl_options.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

constexpr const char* kTextfileName = "quorbpf.prom";

int RunExporterCommand(const CtlOptions& options, FILE* err);

// Writes `text` to dir/name through a temporary file and a rename.
bool WriteFileAtomically(const std::string& dir, const std::string& name, const std::string& text,
                         std::string* error);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
