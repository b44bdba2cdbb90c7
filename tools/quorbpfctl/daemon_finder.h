// DaemonFinder: which process is the quorbpfd daemon, so that quorbpfctl can
// send it the dump signals.
//
// In order: a pid given on the command line (it must exist); the pid file the
// daemon writes (/run/quorbpfd.pid), trusted only while that process is
// still named quorbpfd (a stale file after a crash may name a recycled pid);
// else a search of <proc>/*/comm for "quorbpfd". Several matches are an error
// rather than a guess.
//
//   DaemonFinder finder;                  // or DaemonFinder("/tmp/fakeproc")
//   DaemonLookup found = finder.Find(0, "/run/quorbpfd.pid");
//   if (found.pid == 0) { fprintf(stderr, "%s\n", found.error.c_str()); exit(found.exitCode); }
//
// Reads the file system only; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quor {
namespace Bpf {
namespace Ctl {

struct DaemonLookup {
    int32_t pid = 0;     // 0: not found
    int exitCode = 0;    // when not found: kExitNotRunning or kExitFailure
    std::string error;   // when not found
    std::string source;  // when found: "--daemon-pid", the pid file's path or "process list"
};

class DaemonFinder {
public:
    explicit DaemonFinder(std::string procRoot = "/proc", std::string name = "quorbpfd");

    DaemonLookup Find(int32_t explicitPid, const std::string& pidFile) const;
    // Every process whose comm is the daemon's name, in pid order.
    std::vector<int32_t> FindByName() const;
    // The process's comm, "" when it does not exist.
    std::string CommOf(int32_t pid) const;

private:
    std::string procRoot_;
    std::string name_;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
