// Prints the processes that start and end on this machine, as kelobpfd reports
// them, for SECONDS (default 10). Usage: kelobpf-subscriber [SECONDS]
#include <kelobpf/kelo_bpf_client_lib.h>
#include <kelobpf/kelo_bpf_events.h>
#include <kelobpf/kelo_bpf_protocol.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

int main(int argc, char** argv) {
  if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
    std::printf("usage: kelobpf-subscriber [SECONDS]\nprints process starts and exits reported by kelobpfd\n");
    return argc == 2 && std::strcmp(argv[1], "--help") == 0 ? 0 : 2;
  }
  Kelo::Bpf::KeloBpfClientCallbacks callbacks;
  callbacks.onResponse = [](uint32_t, int type, int result) { std::printf("subscribed %d: %d\n", type, result); };
  callbacks.onEvent = [](const char* record, uint32_t size) {
    kelo_process_create_client_event started;  // records arrive at any alignment: copy them out
    kelo_process_exit_client_event ended;
    uint32_t type = 0;
    std::memcpy(&type, record, size < sizeof(type) ? 0 : sizeof(type));
    if (type == KELO_CLIENT_EVENT_PROCESS_CREATE && size == sizeof(started)) {
      std::memcpy(&started, record, size);
      std::printf("started pid=%d ppid=%d comm=%.16s\n", started.pid, started.ppid, started.comm);
    } else if (type == KELO_CLIENT_EVENT_PROCESS_EXIT && size == sizeof(ended)) {
      std::memcpy(&ended, record, size);
      std::printf("ended pid=%d comm=%.16s\n", ended.pid, ended.comm);
    }
    std::fflush(stdout);
  };
  Kelo::Bpf::KeloBpfClient client(Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME,
                                  {KELO_CLIENT_EVENT_PROCESS_CREATE, KELO_CLIENT_EVENT_PROCESS_EXIT}, callbacks);
  if (!client.start()) return 1;  // connects, and waits for the service, in the background
  std::this_thread::sleep_for(std::chrono::duration<double>(argc == 2 ? std::atof(argv[1]) : 10));
  return 0;
}
