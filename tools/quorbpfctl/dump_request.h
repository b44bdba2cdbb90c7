// DumpRequest: asks the daemon for a diagnostic file by signal and waits
// until the daemon has finished writing it.
//
// The daemon answers a signal asynchronously: a dump thread removes the old
// file, creates a new one and writes it. "Written" is therefore judged by
// three things together, not by the file merely existing:
//   1. the file is a different one than before the signal (inode, device or
//      modification time changed, or there was none before);
//   2. the writer has closed it (inotify IN_CLOSE_WRITE on the directory;
//      where inotify is unavailable, the size stayed the same over two polls);
//   3. the caller's completeness check accepts the contents (the header's
//      line count matches the rows, say).
// The signal is sent only once the process has a handler for it (SigCgt in
// /proc/<pid>/status): the default action of these real-time signals would
// end a daemon that is still starting. The directory is watched before the
// signal is sent, so a fast writer is
// not missed; the file is also polled every 50 ms, so a missed event costs
// only latency.
//
//   DumpRequest request(pid, 51, "/data/.../DUMPTASK_INFO", 5000);
//   std::string text, error;
//   int rc = request.Run([](const std::string& t) { return TaskDumpComplete(t); }, &text, &error);
//
// One request at a time per object; any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace Quor {
namespace Bpf {
namespace Ctl {

class DumpRequest {
public:
    using CompleteCheck = std::function<bool(const std::string& contents)>;

    DumpRequest(int32_t pid, int signo, std::string path, int timeoutMs);

    // kExitOk with the file's contents, or kExitNotRunning (the process is
    // gone), kExitPermission (may not signal it or read the file),
    // kExitTimeout, with `error` set.
    int Run(const CompleteCheck& complete, std::string* contents, std::string* error) const;

private:
    int32_t pid_;
    int signo_;
    std::string path_;
    int timeoutMs_;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
