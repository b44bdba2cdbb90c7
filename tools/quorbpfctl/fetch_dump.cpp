#include "tools/quorbpfctl/fetch_dump.h"

#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/daemon_finder.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

int FetchDump(const CtlOptions& options, int signo, const char* fileName,
              const DumpRequest::CompleteCheck& complete, std::string* contents, FILE* err) {
    const DaemonLookup daemon = DaemonFinder().Find(options.daemonPid, options.pidFile);
    if (daemon.pid == 0) {
        fprintf(err, "quorbpfctl: %s\n", daemon.error.c_str());
        return daemon.exitCode;
    }
    const std::string path = options.dumpDir + "/" + fileName;
    std::string error;
    const int rc =
        DumpRequest(daemon.pid, signo, path, options.timeoutMs).Run(complete, contents, &error);
    if (rc != kExitOk) fprintf(err, "quorbpfctl: %s\n", error.c_str());
    return rc;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
