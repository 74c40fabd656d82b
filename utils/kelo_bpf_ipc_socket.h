// Socket and epoll helpers shared by the IPC framework. They log failures with
// the "BpfUtils" tag and report them by their result, with errno left as the
// failing call set it.
#pragma once

#include <cstdint>

// epoll_ctl ADD / MOD of fd with the given event mask and data.fd = fd.
bool EpollCtlAdd(int epfd, int fd, uint32_t events);
bool EpollCtlMod(int epfd, int fd, uint32_t events);

// Adds O_NONBLOCK to the descriptor's status flags.
bool Setnonblocking(int fd);

// A listening, non-blocking, close-on-exec stream socket for `name`: the one
// the init system handed over under that name if there is one (then put into
// listening state), otherwise a new one bound to `name` in the abstract
// namespace. The caller owns the result; -1 on failure.
int CreateNonblockingServerSocket(const char* name);

// A non-blocking, close-on-exec stream socket connected to `name`, taken
// first as a file-system path and then as an abstract name. The caller owns
// the result; -1 on failure.
int ConnectToServer(const char* name);
