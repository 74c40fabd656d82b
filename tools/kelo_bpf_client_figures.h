// The service's figures as `stats` and `export` show them: per-type counts
// and rates from the state file (signal 50), the lines the service adds
// after its window (losses and the like), and the clients connected to its
// socket.
#pragma once

#include <sys/types.h>

#include <string>

#include "tools/kelo_bpf_client_commands.h"
#include "tools/kelo_bpf_client_files.h"
#include "tools/kelo_bpf_client_json.h"
#include "tools/kelo_bpf_client_signal.h"

namespace Kelo {
namespace Bpf {

struct ServiceFigures {
  pid_t pid = 0;
  StateFile state;
  StateSummary summary;
  // Connections the service has accepted (CountConnectedClients); -1 when
  // /proc/net/unix could not be read.
  int clients = -1;
};

// Counts the clients (before this tool connects to find the service, so
// that its own short connection is not among them), finds the service,
// asks for a fresh state file and reads it. Main thread; blocks up to
// options.timeout.
bool CollectServiceFigures(const ServiceOptions& options, ServiceFigures* figures, ClientError* error,
                           const std::string& procNetUnix = "/proc/net/unix");

// The figures as `stats` prints them (README, "stats").
std::string StatsText(const ServiceFigures& figures);
Json StatsJson(const ServiceFigures& figures);

// The path of a file the service writes in its directory.
std::string ServiceFilePath(const char* name);

}  // namespace Bpf
}  // namespace Kelo
