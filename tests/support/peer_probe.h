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

enum class ProbeResult { kAccepted, kRefused, kError };  // 0, 1, 2 in test output

inline ProbeResult ProbeAs(const std::string& socketName, uid_t uid, gid_t gid,
                           const std::vector<gid_t>& groups) {
    const std::string request = Request(7, 51, 2);
    sockaddr_un addr;
    const socklen_t addrLen = AbstractAddress(socketName, &addr);
    const pid_t child = fork();
    if (child < 0) return ProbeResult::kError;
    if (child == 0) {
        const int fd =
            setgroups(groups.size(), groups.data()) != 0 || setgid(gid) != 0 || setuid(uid) != 0
                ? -1
                : socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), addrLen) != 0) _exit(2);
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(request.size())) {
            _exit(1);  // already closed
        }
        pollfd p = {fd, POLLIN, 0};
        char reply[64];
        _exit(poll(&p, 1, 5000) != 1 ? 2 : recv(fd, reply, sizeof(reply), 0) > 0 ? 0 : 1);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return ProbeResult::kError;
    return static_cast<ProbeResult>(std::min(WEXITSTATUS(status), 2));
}

}  // namespace quortest
