#include "ipc/socket_utils.h"

#include <cutils/sockets.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "diag/quor_bpf_log.h"

namespace {

bool EpollCtl(int op, int epfd, int fd, unsigned int events) {
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(epfd, op, fd, &event) != -1;
}

}  // namespace

int CreateNonblockingServerSocket(const char* path) {
    int fd = android_get_control_socket(path);
    const bool fromInit = fd != -1;
    if (!fromInit) {
        fd = socket_local_server(path, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
        if (fd < 0) {
            QLOGE(QUOR_TAG_UTILS, "Create socket: %s failed: %d, message: %s", path, errno,
                  strerror(errno));
            return -1;
        }
    }
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) == -1 || !Setnonblocking(fd)) {
        const int err = errno;
        (void)close(fd);
        QLOGE(QUOR_TAG_UTILS, "Setnonblocking (%s) failed: %d, message: %s", path, err,
              strerror(err));
        return -1;
    }
    // socket_local_server already listens; a socket from init may not yet.
    if (fromInit && listen(fd, 4) == -1) {
        const int err = errno;
        (void)close(fd);
        QLOGE(QUOR_TAG_UTILS, "Listen (%s) failed: %s", path, strerror(err));
        return -1;
    }
    return fd;
}

int ConnectToServer(const char* path) {
    int fd = socket_local_client(path, ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
    if (fd == -1) fd = socket_local_client(path, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    if (fd == -1) {
        const int err = errno;
        QLOGE(QUOR_TAG_UTILS, "Failed to create socket: %d, message: %s", err, strerror(err));
        errno = err;
        return -1;
    }
    if (!Setnonblocking(fd)) {
        const int err = errno;
        (void)close(fd);
        QLOGE(QUOR_TAG_UTILS, "Setnonblocking %s path failed: %d, message: %s", path, err,
              strerror(err));
        errno = err;
        return -1;
    }
    return fd;
}

bool Setnonblocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) return false;
    return fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

bool EpollCtlAdd(int epfd, int fd, unsigned int events) {
    return EpollCtl(EPOLL_CTL_ADD, epfd, fd, events);
}

bool EpollCtlMod(int epfd, int fd, unsigned int events) {
    return EpollCtl(EPOLL_CTL_MOD, epfd, fd, events);
}
