// Socket and epoll helpers shared by the IPC framework. They log failures with
// the "BpfUtils" tag and report them by their result, with errno left as the
// failing call set it.
#pragma once

#include <cstdint>
#include <string>

// epoll_ctl ADD / MOD of fd with the given event mask and data.fd = fd.
bool EpollCtlAdd(int epfd, int fd, uint32_t events);
bool EpollCtlMod(int epfd, int fd, uint32_t events);

// Adds O_NONBLOCK to the descriptor's status flags.
bool Setnonblocking(int fd);

// The name under which the init system hands over the socket for `name`: its
// last path component. init creates the socket of a service's
// `socket <name> ...` line as /dev/socket/<name> and publishes its
// descriptor in the environment variable ANDROID_SOCKET_<name>, so a service
// socket "/mnt/bpfframework/kelobpfdispatcher" comes from the line
// `socket kelobpfdispatcher stream ...`.
std::string ControlSocketName(const char* name);

// A listening, non-blocking, close-on-exec stream socket for `name`: the one
// the init system handed over under ControlSocketName(name) if there is one
// (android_get_control_socket's rules; then put into listening state),
// otherwise a new one bound to `name` in the abstract namespace. The caller
// owns the result; -1 on failure.
int CreateNonblockingServerSocket(const char* name);

// A non-blocking, close-on-exec stream socket connected to `name`, taken
// first as a file-system path and then as an abstract name. The caller owns
// the result; -1 on failure.
int ConnectToServer(const char* name);
