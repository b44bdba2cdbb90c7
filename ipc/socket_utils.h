// Helpers for the local stream sockets and epoll registrations of the IPC.
//
// Server sockets live in the abstract namespace (or come from init as a
// control socket); clients try a filesystem socket of that name first and
// then the abstract one. All helpers log failures at ERROR with the tag
// "BpfUtils" and return -1 or false; none throws. They are reentrant.
#pragma once

// A listening, non-blocking, close-on-exec stream socket for `path`, or -1.
// A socket handed over by init under that name is preferred; otherwise one is
// bound in the abstract namespace (backlog 4).
int CreateNonblockingServerSocket(const char* path);

// A connected, non-blocking stream socket to the server at `path`, or -1.
// The connect itself blocks (local sockets answer at once).
int ConnectToServer(const char* path);

// Adds O_NONBLOCK to the descriptor's status flags.
bool Setnonblocking(int fd);

// epoll_ctl ADD / MOD with interest `events` and the descriptor as event data.
bool EpollCtlAdd(int epfd, int fd, unsigned int events);
bool EpollCtlMod(int epfd, int fd, unsigned int events);
