// `quorbpfctl top`: the live memory view in the terminal.
//
// Connects and subscribes first (so that nothing is missed while the
// baseline is fetched), has the daemon dump its task table for the starting
// figures, then redraws once a second (and at once on a resize) from a
// TopModel fed by the client's thread. q or Ctrl-C quits; SIGTERM and SIGHUP
// too. The terminal is restored on every way out.
// Call from the main thread: it blocks the stop signals before any thread
// starts and waits for them on a signalfd.
#pragma once

#include "tools/quorbpfctl/ctl_options.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

int RunTopCommand(const CtlOptions& options);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
