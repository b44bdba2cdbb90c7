#include "tools/quorbpfctl/dump_request.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "tools/quorbpfctl/ctl_exit_codes.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr int kPollMs = 50;
// Larger than any dump the daemon writes (a 30-minute statistics table is
// about 100 KB); a bigger file is not one of ours.
constexpr size_t kMaxFileBytes = 64 * 1024 * 1024;

struct FileIdentity {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    timespec mtime = {};
    off_t size = 0;

    bool SameFileAs(const FileIdentity& other) const {
        return exists == other.exists && dev == other.dev && ino == other.ino &&
               mtime.tv_sec == other.mtime.tv_sec && mtime.tv_nsec == other.mtime.tv_nsec;
    }
};

FileIdentity Identify(const std::string& path) {
    FileIdentity id;
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0) return id;
    id.exists = true;
    id.dev = st.st_dev;
    id.ino = st.st_ino;
    id.mtime = st.st_mtim;
    id.size = st.st_size;
    return id;
}

// 0 with the contents, or the errno of the failure.
int ReadWhole(const std::string& path, std::string* contents) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    contents->clear();
    char buffer[65536];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            const int err = errno;
            close(fd);
            return err;
        }
        if (got == 0) break;
        contents->append(buffer, static_cast<size_t>(got));
        if (contents->size() > kMaxFileBytes) {
            close(fd);
            return EFBIG;
        }
    }
    close(fd);
    return 0;
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Reads pending inotify events; true when one says `name` was closed after
// writing or moved into place.
bool DrainInotify(int fd, const std::string& name) {
    bool closed = false;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got <= 0) break;
        for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(inotify_event)) <= got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            const ssize_t next = offset + static_cast<ssize_t>(sizeof(inotify_event)) + event->len;
            if (next > got) break;
            if (event->len > 0 && (event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) &&
                strnlen(event->name, event->len) == name.size() &&
                memcmp(event->name, name.data(), name.size()) == 0) {
                closed = true;
            }
            offset = next;
        }
    }
    return closed;
}

// Whether `pid` has a handler for `signo`, from the SigCgt mask of its
// procfs status; true when that cannot be read (no procfs: just send it).
bool CatchesSignal(int32_t pid, int signo) {
    std::string status;
    if (ReadWhole("/proc/" + std::to_string(pid) + "/status", &status) != 0) return true;
    const size_t at = status.find("\nSigCgt:");
    if (at == std::string::npos) return true;
    const unsigned long long mask = strtoull(status.c_str() + at + 8, nullptr, 16);
    return signo >= 1 && signo <= 64 && ((mask >> (signo - 1)) & 1ULL) != 0;
}

}  // namespace

DumpRequest::DumpRequest(int32_t pid, int signo, std::string path, int timeoutMs)
    : pid_(pid), signo_(signo), path_(std::move(path)), timeoutMs_(timeoutMs) {}

int DumpRequest::Run(const CompleteCheck& complete, std::string* contents,
                     std::string* error) const {
    const FileIdentity before = Identify(path_);
    const std::string name = BaseName(path_);
    int inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (inotifyFd >= 0 && inotify_add_watch(inotifyFd, DirectoryOf(path_).c_str(),
                                            IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
        // No directory yet (the daemon creates it) or no inotify: poll only.
        close(inotifyFd);
        inotifyFd = -1;
    }
    const auto finish = [&](int rc) {
        if (inotifyFd >= 0) close(inotifyFd);
        return rc;
    };

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs_);
    // The default action of these real-time signals ends the process: a
    // daemon still starting has not installed its handlers yet, and must not
    // be sent one before it has.
    while (!CatchesSignal(pid_, signo_)) {
        if (kill(pid_, 0) != 0 && errno == ESRCH) {
            *error = "the daemon (pid " + std::to_string(pid_) + ") went away";
            return finish(kExitNotRunning);
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            *error = "the daemon (pid " + std::to_string(pid_) + ") does not handle signal " +
                     std::to_string(signo_) + " yet (still starting?) after " +
                     std::to_string(timeoutMs_ / 1000) + " s";
            return finish(kExitTimeout);
        }
        const timespec pause = {0, kPollMs * 1000000L};
        nanosleep(&pause, nullptr);
    }
    if (kill(pid_, signo_) != 0) {
        const int err = errno;
        if (err == EPERM) {
            *error = "permission denied sending signal " + std::to_string(signo_) + " to pid " +
                     std::to_string(pid_) + " (run as root or as the daemon's user)";
            return finish(kExitPermission);
        }
        *error = "cannot signal pid " + std::to_string(pid_) + ": " + strerror(err);
        return finish(err == ESRCH ? kExitNotRunning : kExitFailure);
    }

    bool closed = false;
    off_t lastSize = -1;
    for (;;) {
        if (inotifyFd >= 0) {
            pollfd pfd = {inotifyFd, POLLIN, 0};
            (void)poll(&pfd, 1, kPollMs);
            if (DrainInotify(inotifyFd, name)) closed = true;
        } else {
            const timespec pause = {0, kPollMs * 1000000L};
            nanosleep(&pause, nullptr);
        }
        const FileIdentity now = Identify(path_);
        if (now.exists && !now.SameFileAs(before)) {
            // Without inotify, a size unchanged over two polls stands for the close.
            const bool settled = inotifyFd >= 0 ? closed : now.size == lastSize;
            lastSize = now.size;
            if (settled) {
                const int err = ReadWhole(path_, contents);
                if (err == EACCES || err == EPERM) {
                    *error = "permission denied reading " + path_;
                    return finish(kExitPermission);
                }
                if (err == 0 && complete(*contents)) return finish(kExitOk);
            }
        }
        if (kill(pid_, 0) != 0 && errno == ESRCH) {
            *error = "the daemon (pid " + std::to_string(pid_) + ") went away";
            return finish(kExitNotRunning);
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            *error = "the daemon (pid " + std::to_string(pid_) + ") did not write " + path_ +
                     " within " + std::to_string(timeoutMs_ / 1000) + " s";
            return finish(kExitTimeout);
        }
    }
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
