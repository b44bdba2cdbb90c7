// The signals that end a long-running command (watch, record, exporter):
// SIGINT, SIGTERM and SIGHUP. BlockStopSignals() blocks them in the calling
// thread and returns the set; call it before any other thread starts, so
// that every thread inherits the mask and only the command's own thread takes
// them (sigtimedwait on the set). SIGPIPE is ignored as well: a reader that
// went away is an error return, not the end of the process.
#pragma once

#include <signal.h>

namespace Quor {
namespace Bpf {
namespace Ctl {

inline sigset_t BlockStopSignals() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return stop;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
