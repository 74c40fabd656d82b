// Asking the running service for one of its files: find the process that
// hosts it, send it the file's signal, wait until the file has been written
// anew and read it.
//
// The service is found by a pid file when one is given, else by the
// credentials of the process listening on its socket (SO_PEERCRED of a
// connection made for the purpose and closed at once).
//
// A signal the process does not catch would end it (the service installs its
// handlers only once its pumps run), so a signal is sent only when the
// process's SigCgt mask shows a handler for it.
//
// Blocking calls for the tool's main thread.
#pragma once

#include <sys/types.h>

#include <string>

namespace Kelo {
namespace Bpf {

// Exit statuses of kelobpf-client.
inline constexpr int CLIENT_EXIT_OK = 0;
inline constexpr int CLIENT_EXIT_FAILED = 1;
inline constexpr int CLIENT_EXIT_USAGE = 2;
inline constexpr int CLIENT_EXIT_NO_SERVICE = 3;
inline constexpr int CLIENT_EXIT_PERMISSION = 4;

// Why a step failed: the message for standard error and the exit status.
struct ClientError {
  int exitStatus = CLIENT_EXIT_FAILED;
  std::string message;
};

// A blocking, close-on-exec stream socket connected to `name` taken as a
// file-system path, else as an abstract name; -1 with errno of the last
// attempt.
int ConnectToService(const std::string& name);

// The pid of the service: from `pidFile` when it is not empty, else from the
// peer of a connection to `socketName` (a file-system path, then an
// abstract name). CLIENT_EXIT_NO_SERVICE when there is no pid file, it holds
// no pid, that process is gone, or nothing listens on the socket.
bool FindServicePid(const std::string& pidFile, const std::string& socketName, pid_t* pid, ClientError* error);

// True when the SigCgt line of `statusText` (a /proc/<pid>/status) shows a
// handler for `signal`; false also when the line is missing or malformed.
bool SignalCaught(const std::string& statusText, int signal);

// Sends `signal` to `pid` and waits up to `timeoutSeconds` for `path` to be
// written anew (closed after writing, seen by inotify on its directory; by
// polling its status when the directory cannot be watched), then reads it
// into `text`. Fails with CLIENT_EXIT_PERMISSION when the signal may not be
// sent or the file not read, CLIENT_EXIT_NO_SERVICE when the process is
// gone, CLIENT_EXIT_FAILED when it has no handler for the signal yet or the
// file did not come in time. `procRoot` is where /proc/<pid>/status is read.
bool RequestServiceFile(pid_t pid, int signal, const std::string& path, double timeoutSeconds, std::string* text,
                        ClientError* error, const std::string& procRoot = "/proc");

}  // namespace Bpf
}  // namespace Kelo
