// The subcommands of kelobpf-client. Each runs on the tool's main thread
// (watch and top add the subscriber's worker), prints to standard output,
// reports failures on standard error as "kelobpf-client: ..." and returns
// the exit status (CLIENT_EXIT_* in tools/kelo_bpf_client_signal.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/kelo_bpf_client_filter.h"

namespace Kelo {
namespace Bpf {

// How the service is reached.
struct ServiceOptions {
  std::string socketName;
  // Empty: find the service through its socket.
  std::string pidFile;
  // Seconds to wait for a file the service writes on a signal.
  double timeout = 5.0;
};

struct WatchOptions {
  std::string socketName;
  std::vector<int> types;
  uint64_t count = 0;      // 0: no limit
  double duration = -1.0;  // < 0: no limit
  bool json = false;
  EventFilterOptions filter;
};
int RunWatch(const WatchOptions& options);

struct TopOptions {
  ServiceOptions service;
  uint64_t iterations = 0;  // 0: until stopped
  double delay = 1.0;
  bool batch = false;
};
int RunTop(const TopOptions& options);

struct DumpOptions {
  ServiceOptions service;
  // all, user, short, short-user or state.
  std::string kind = "all";
};
int RunDump(const DumpOptions& options);

struct StatsOptions {
  ServiceOptions service;
  bool json = false;
};
int RunStats(const StatsOptions& options);

struct ExportOptions {
  ServiceOptions service;
  // ADDR:PORT; ADDR a name, an IPv4 address or an IPv6 address in brackets.
  std::string listen;
};
int RunExport(const ExportOptions& options);

// The whole tool: parses the command line and runs the subcommand.
int RunClient(int argc, char** argv);

}  // namespace Bpf
}  // namespace Kelo
