// `kelobpf-client stats` and `kelobpf-client dump`, and the figures that
// `export` serves.
#include <android-base/file.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <map>

#include "helper/kelo_bpf_helper_strings.h"
#include "tools/kelo_bpf_client_figures.h"
#include "tools/kelo_bpf_client_types.h"

namespace Kelo {
namespace Bpf {
namespace {

double Rate(int64_t count, int64_t seconds) { return seconds > 0 ? static_cast<double>(count) / seconds : 0.0; }

// The tool's name of a counter kind; polls are not an event type.
std::string KindName(int kind) {
  if (kind == STATE_POLL_KIND) return "polls";
  const char* name = EventTypeName(static_cast<uint32_t>(kind));
  return name != nullptr ? name : StateKindColumn(kind);
}

const std::map<std::string, int>& DumpSignals() {
  static const std::map<std::string, int> SIGNALS = {
      {"all", SIGNAL_DUMP_ALL},     {"user", SIGNAL_DUMP_USER},
      {"short", SIGNAL_DUMP_SHORT}, {"short-user", SIGNAL_DUMP_SHORT_USER},
      {"state", SIGNAL_STATE},
  };
  return SIGNALS;
}

int Report(const ClientError& error) {
  std::fprintf(stderr, "kelobpf-client: %s\n", error.message.c_str());
  return error.exitStatus;
}

}  // namespace

std::string ServiceFilePath(const char* name) { return std::string(SERVICE_FILES_DIR) + "/" + name; }

bool CollectServiceFigures(const ServiceOptions& options, ServiceFigures* figures, ClientError* error,
                           const std::string& procNetUnix) {
  ServiceFigures out;
  std::string table;
  if (android::base::ReadFileToString(procNetUnix, &table)) {
    out.clients = CountConnectedClients(table, options.socketName);
  }
  if (!FindServicePid(options.pidFile, options.socketName, &out.pid, error)) return false;
  std::string text;
  if (!RequestServiceFile(out.pid, SIGNAL_STATE, ServiceFilePath(STATE_FILE), options.timeout, &text, error)) {
    return false;
  }
  std::string problem;
  if (!ParseStateFile(text, &out.state, &problem)) {
    error->exitStatus = CLIENT_EXIT_FAILED;
    error->message = ServiceFilePath(STATE_FILE) + ": " + problem;
    return false;
  }
  std::string procStat, procUptime;
  std::optional<int64_t> age;
  if (android::base::ReadFileToString("/proc/" + std::to_string(out.pid) + "/stat", &procStat) &&
      android::base::ReadFileToString("/proc/uptime", &procUptime)) {
    age = ServiceAgeSeconds(procStat, procUptime, sysconf(_SC_CLK_TCK));
  }
  out.summary = SummarizeState(out.state, 10, age);
  *figures = std::move(out);
  return true;
}

std::string StatsText(const ServiceFigures& f) {
  const StateSummary& s = f.summary;
  std::string text = StringPrintf("service pid %d, clients connected: %s\n", f.pid,
                                  f.clients < 0 ? "unknown" : std::to_string(f.clients).c_str());
  text += StringPrintf("window: %" PRId64 " s of service time%s\n", s.windowSeconds,
                       s.sinceStart ? " (since the service started)" : " (older seconds have left the window)");
  const bool started = s.startTotals && s.serviceSeconds;
  if (started) text += StringPrintf("running for %" PRId64 " s\n", *s.serviceSeconds);
  text += StringPrintf("%-16s %5s", "type", "code");
  if (started) text += StringPrintf(" %12s %10s", "since start", "per s");
  text += StringPrintf(" %12s %10s %10s %10s\n", "window", "per s",
                       StringPrintf("last %" PRId64 " s", s.recentSeconds).c_str(), "per s");
  const auto row = [&](const std::string& name, const std::string& code, int64_t start, int64_t window,
                       int64_t recent) {
    text += StringPrintf("%-16s %5s", name.c_str(), code.c_str());
    if (started) text += StringPrintf(" %12" PRId64 " %10.2f", start, Rate(start, *s.serviceSeconds));
    text += StringPrintf(" %12" PRId64 " %10.2f %10" PRId64 " %10.2f\n", window, Rate(window, s.windowSeconds), recent,
                         Rate(recent, s.recentSeconds));
  };
  for (int kind = 0; kind < STATE_KINDS; ++kind) {
    if (kind == STATE_POLL_KIND) {
      row("all events", "-", started ? s.startEvents() : 0, s.windowEvents(), s.recentEvents());
    }
    row(KindName(kind), kind == STATE_POLL_KIND ? "-" : std::to_string(kind), started ? (*s.startTotals)[kind] : 0,
        s.windowTotals[kind], s.recentTotals[kind]);
  }
  text += "losses and other figures of the service:\n";
  if (f.state.extraLines.empty()) text += "  (none reported)\n";
  for (const std::string& line : f.state.extraLines) text += "  " + line + "\n";
  return text;
}

Json StatsJson(const ServiceFigures& f) {
  const StateSummary& s = f.summary;
  Json types = Json::array();
  for (int kind = 0; kind < STATE_POLL_KIND; ++kind) {
    Json type = {{"type", kind},
                 {"name", KindName(kind)},
                 {"column", StateKindColumn(kind)},
                 {"window", s.windowTotals[kind]},
                 {"window_rate", Rate(s.windowTotals[kind], s.windowSeconds)},
                 {"recent", s.recentTotals[kind]},
                 {"recent_rate", Rate(s.recentTotals[kind], s.recentSeconds)}};
    if (s.startTotals) type["total"] = (*s.startTotals)[kind];
    types.push_back(type);
  }
  Json extra = Json::array();
  for (const std::string& line : f.state.extraLines) {
    Json holder = Json::object();
    PutComm(&holder, "line", line);
    extra.push_back(holder["line"]);
  }
  Json object = {{"pid", f.pid},
                 {"clients", f.clients},
                 {"window_seconds", s.windowSeconds},
                 {"since_start", s.sinceStart},
                 {"service_seconds", s.serviceSeconds ? Json(*s.serviceSeconds) : Json()},
                 {"recent_seconds", s.recentSeconds},
                 {"types", types},
                 {"events",
                  {{"total", s.startTotals ? Json(s.startEvents()) : Json()},
                   {"window", s.windowEvents()},
                   {"window_rate", Rate(s.windowEvents(), s.windowSeconds)},
                   {"recent", s.recentEvents()},
                   {"recent_rate", Rate(s.recentEvents(), s.recentSeconds)}}},
                 {"polls",
                  {{"total", s.startTotals ? Json((*s.startTotals)[STATE_POLL_KIND]) : Json()},
                   {"window", s.windowTotals[STATE_POLL_KIND]},
                   {"window_rate", Rate(s.windowTotals[STATE_POLL_KIND], s.windowSeconds)},
                   {"recent", s.recentTotals[STATE_POLL_KIND]},
                   {"recent_rate", Rate(s.recentTotals[STATE_POLL_KIND], s.recentSeconds)}}},
                 {"extra_lines", extra}};
  return object;
}

int RunStats(const StatsOptions& options) {
  ServiceFigures figures;
  ClientError error;
  if (!CollectServiceFigures(options.service, &figures, &error)) return Report(error);
  const std::string text = options.json ? JsonLine(StatsJson(figures)) + "\n" : StatsText(figures);
  std::fputs(text.c_str(), stdout);
  return CLIENT_EXIT_OK;
}

int RunDump(const DumpOptions& options) {
  const auto found = DumpSignals().find(options.kind);
  if (found == DumpSignals().end()) {
    std::fprintf(stderr, "kelobpf-client: unknown dump '%s' (all, user, short, short-user or state)\n",
                 options.kind.c_str());
    return CLIENT_EXIT_USAGE;
  }
  const int signal = found->second;
  ClientError error;
  pid_t pid = 0;
  if (!FindServicePid(options.service.pidFile, options.service.socketName, &pid, &error)) return Report(error);
  std::string text;
  const std::string path = ServiceFilePath(signal == SIGNAL_STATE ? STATE_FILE : TASK_DUMP_FILE);
  if (!RequestServiceFile(pid, signal, path, options.service.timeout, &text, &error)) return Report(error);
  if (!android::base::WriteStringToFd(text, STDOUT_FILENO)) {
    std::fprintf(stderr, "kelobpf-client: cannot write the dump: %s\n", strerror(errno));
    return CLIENT_EXIT_FAILED;
  }
  return CLIENT_EXIT_OK;
}

}  // namespace Bpf
}  // namespace Kelo
