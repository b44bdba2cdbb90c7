// `quorbpfctl stats`: has the daemon write its event statistics, prints
// events per second per type over the last minute and the whole window, and
// with --plot writes the SVG chart (rate_plot.h).
// Blocking; call from the main thread.
#pragma once

#include <cstdio>
#include <string>

#include "tools/quorbpfctl/ctl_options.h"
#include "tools/quorbpfctl/state_table.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

int RunStatsCommand(const CtlOptions& options, FILE* out, FILE* err);

// The printed summary of a parsed statistics file.
std::string FormatStatsSummary(const StateTable& table);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
