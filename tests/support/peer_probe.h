// Connects to the service as another user: a forked child takes the given
// credentials, connects, sends a subscription request and reports whether an
// answer came back (accepted) or the service closed the connection without
// one (refused). The child uses system calls only, so it is safe to fork from
// a multi-threaded test.
#pragma once

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/raw_ipc_client.h"

namespace quortest {

enum class ProbeResult { kAccepted, kRefused, kError };

inline ProbeResult ProbeAs(const std::string& socketName, uid_t uid, gid_t gid,
                           const std::vector<gid_t>& groups) {
    const std::string request = Request(7, 51, 2);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, socketName.data(), socketName.size());
    const socklen_t addrLen =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + socketName.size());
    const pid_t child = fork();
    if (child < 0) return ProbeResult::kError;
    if (child == 0) {
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(gid) != 0 || setuid(uid) != 0) {
            _exit(2);
        }
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), addrLen) != 0) _exit(2);
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(request.size())) {
            _exit(1);  // already closed
        }
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1) _exit(2);
        char reply[64];
        const ssize_t n = recv(fd, reply, sizeof(reply), 0);
        _exit(n > 0 ? 0 : 1);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return ProbeResult::kError;
    const int code = WEXITSTATUS(status);
    return code == 0   ? ProbeResult::kAccepted
           : code == 1 ? ProbeResult::kRefused
                       : ProbeResult::kError;
}

inline const char* ProbeName(ProbeResult result) {
    return result == ProbeResult::kAccepted  ? "accepted"
           : result == ProbeResult::kRefused ? "refused"
                                             : "error";
}

}  // namespace quortest
