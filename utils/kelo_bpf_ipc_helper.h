// The IPC framework in one include: package format and buffers, socket
// helpers, the epoll loop, the Unix socket endpoint, the outgoing package
// queue and the receiving-side dispatch.
#pragma once

#include "utils/kelo_bpf_ipc_epoll_manager.h"
#include "utils/kelo_bpf_ipc_package.h"
#include "utils/kelo_bpf_ipc_package_handler.h"
#include "utils/kelo_bpf_ipc_package_manager.h"
#include "utils/kelo_bpf_ipc_socket.h"
#include "utils/kelo_bpf_ipc_unix_manager.h"
