// The command line of kelobpf-client: one subcommand per task, `watch` when
// none is named (so that `kelobpf-client --type 2` and
// `kelobpf-client fork exit` keep working).
#include <android/log.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "service/kelo_bpf_protocol.h"
#include "tools/kelo_bpf_client_commands.h"
#include "tools/kelo_bpf_client_signal.h"
#include "tools/kelo_bpf_client_types.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr const char* SUBCOMMANDS[] = {"watch", "top", "dump", "stats", "export"};
constexpr char DEFAULT_LISTEN[] = "127.0.0.1:9477";

std::string TypeNames() {
  std::string text = "Event types (name or number; older names in brackets are accepted too):\n";
  for (const ClientEventTypeInfo& info : ClientEventTypes()) {
    std::string aliases;
    for (const char* const* alias = info.aliases; *alias != nullptr; ++alias) {
      aliases += aliases.empty() ? " [" : ", ";
      aliases += *alias;
    }
    if (!aliases.empty()) aliases += "]";
    char line[160];
    snprintf(line, sizeof(line), "  %5u %-16s %s%s\n", info.type, info.name, info.description, aliases.c_str());
    text += line;
  }
  return text;
}

constexpr char EXIT_STATUSES[] =
    "Exit status: 0 success; 1 failure (subscription refused or unanswered, fewer events than --count within\n"
    "--duration, the service did not write its file in time, the service is not ready for signals);\n"
    "2 bad usage; 3 no service found (nothing listens on the socket, no process in the pid file);\n"
    "4 permission denied (signalling the service or reading its file).\n";

// A validator for event types given as names or numbers.
CLI::Validator EventTypeValidator() {
  return CLI::Validator(
      [](std::string& text) {
        return ParseEventType(text) ? std::string() : "unknown event type '" + text + "' (see the list below)";
      },
      "TYPE", "EventType");
}

// A validator for numbers above 0 (orZero: 0 or above), with a short message.
CLI::Validator Positive(bool orZero = false) {
  return CLI::Validator(
      [orZero](std::string& text) {
        char* end = nullptr;
        const double value = strtod(text.c_str(), &end);
        const bool ok =
            end != text.c_str() && *end == '\0' && std::isfinite(value) && (orZero ? value >= 0 : value > 0);
        if (ok) return std::string();
        return "'" + text + "' is not a number " + (orZero ? "of 0 or more" : "above 0");
      },
      orZero ? "NUMBER>=0" : "NUMBER>0", orZero ? "NonNegative" : "Positive");
}

void AddServiceOptions(CLI::App* command, ServiceOptions* service) {
  command->add_option("-s,--socket", service->socketName, "the service's socket (path, then abstract name)")
      ->capture_default_str();
  command->add_option("--pidfile", service->pidFile,
                      "pid file of the service (default: the process listening on --socket)");
  command->add_option("--timeout", service->timeout, "seconds to wait for a file the service writes on a signal")
      ->check(Positive())
      ->capture_default_str();
}

// Argument vector with "watch" inserted when no subcommand is named.
std::vector<std::string> WithDefaultSubcommand(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  if (argc >= 2) {
    const std::string first = argv[1];
    if (first == "-h" || first == "--help") return args;
    for (const char* name : SUBCOMMANDS) {
      if (first == name) return args;
    }
  }
  args.insert(args.begin() + 1, "watch");
  return args;
}

}  // namespace

int RunClient(int argc, char** argv) {
  // The subscriber library's information lines are for the service's log,
  // not for a user of the tool; warnings and errors still show.
  __android_log_set_minimum_priority(ANDROID_LOG_WARN);
  try {
    CLI::App app{
        "kelobpf-client: watch the kelobpf service's events, its live process table, its dumps and counters.\n"
        "Without a subcommand it runs `watch`."};
    app.require_subcommand(1, 1);
    app.footer(EXIT_STATUSES);

    WatchOptions watch;
    watch.socketName = KELO_BPF_CLIENT_SOCKET_NAME;
    std::vector<std::string> positionalTypes, optionTypes;
    std::vector<int32_t> pids;
    CLI::App* watchCommand = app.add_subcommand(
        "watch", "Subscribe to event types and print one line per event (default: every type), then a summary.");
    watchCommand->add_option("types", positionalTypes, "event types to subscribe to")->check(EventTypeValidator());
    watchCommand->add_option("-t,--type", optionTypes, "event type to subscribe to (repeatable)")
        ->check(EventTypeValidator());
    watchCommand->add_option("-c,--count", watch.count, "stop after N events shown")->check(Positive());
    watchCommand->add_option("-d,--duration", watch.duration, "stop after SECONDS (fractions allowed)")
        ->check(Positive(true));
    watchCommand->add_option("-s,--socket", watch.socketName, "the service's socket (path, then abstract name)")
        ->capture_default_str();
    watchCommand->add_flag("--json", watch.json, "one JSON object per line (fields in the README)");
    watchCommand->add_option("-p,--pid", pids, "only events of this process (repeatable)");
    watchCommand->add_option("--comm", watch.filter.commGlob, "only events of processes whose name matches GLOB");
    watchCommand
        ->add_option("--min-delta", watch.filter.minDelta,
                     "RSS events only when they moved at least BYTES (others pass)")
        ->check(Positive());
    watchCommand->footer(TypeNames() +
                         "Without --count and --duration it runs until SIGINT or SIGTERM, waiting for the service\n"
                         "and subscribing again after a lost connection.\n");

    TopOptions top;
    top.service.socketName = KELO_BPF_CLIENT_SOCKET_NAME;
    CLI::App* topCommand = app.add_subcommand(
        "top", "Live process table from a task dump and the derived events, sorted by RSS ('q' quits).");
    topCommand->add_option("-n,--iterations", top.iterations, "refresh N times, then exit (default: until stopped)")
        ->check(Positive());
    topCommand->add_option("-d,--delay", top.delay, "seconds between refreshes")
        ->check(Positive())
        ->capture_default_str();
    topCommand->add_flag("-b,--batch", top.batch, "plain text with every row, also on a terminal");
    AddServiceOptions(topCommand, &top.service);

    DumpOptions dump;
    dump.service.socketName = KELO_BPF_CLIENT_SOCKET_NAME;
    CLI::App* dumpCommand =
        app.add_subcommand("dump", "Have the service write a task dump or its state file, and print it.");
    dumpCommand
        ->add_option("kind", dump.kind,
                     "all (signal 51), user (52: processes with memory), short (53), short-user (54), state (50)")
        ->check(CLI::IsMember({"all", "user", "short", "short-user", "state"}))
        ->capture_default_str();
    AddServiceOptions(dumpCommand, &dump.service);

    StatsOptions stats;
    stats.service.socketName = KELO_BPF_CLIENT_SOCKET_NAME;
    CLI::App* statsCommand = app.add_subcommand(
        "stats",
        "Per-type event counts and rates since the service started and over its 30-minute window, losses, clients "
        "connected.");
    statsCommand->add_flag("--json", stats.json, "one JSON object");
    AddServiceOptions(statsCommand, &stats.service);

    ExportOptions exporter;
    exporter.service.socketName = KELO_BPF_CLIENT_SOCKET_NAME;
    exporter.listen = DEFAULT_LISTEN;
    CLI::App* exportCommand =
        app.add_subcommand("export", "Serve the figures of `stats` to Prometheus over HTTP (GET /metrics).");
    exportCommand->add_option("-l,--listen", exporter.listen, "ADDR:PORT to listen on (IPv6 in brackets)")
        ->capture_default_str();
    AddServiceOptions(exportCommand, &exporter.service);

    std::vector<std::string> args = WithDefaultSubcommand(argc, argv);
    std::vector<char*> pointers;
    for (std::string& arg : args) pointers.push_back(arg.data());
    try {
      app.parse(static_cast<int>(pointers.size()), pointers.data());
    } catch (const CLI::CallForHelp& e) {
      return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
      return app.exit(e);
    } catch (const CLI::ParseError& e) {
      std::fprintf(stderr, "kelobpf-client: %s\nRun 'kelobpf-client %s--help' for the usage.\n", e.what(),
                   args.size() > 1 && args[1] != "-h" && args[1] != "--help" ? (args[1] + " ").c_str() : "");
      return CLIENT_EXIT_USAGE;
    }

    if (*watchCommand) {
      for (const std::string& text : positionalTypes) watch.types.push_back(*ParseEventType(text));
      for (const std::string& text : optionTypes) watch.types.push_back(*ParseEventType(text));
      if (watch.types.empty()) watch.types = DefaultWatchTypes();
      watch.filter.pids = pids;
      return RunWatch(watch);
    }
    if (*topCommand) return RunTop(top);
    if (*dumpCommand) return RunDump(dump);
    if (*statsCommand) return RunStats(stats);
    if (*exportCommand) return RunExport(exporter);
    return CLIENT_EXIT_USAGE;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kelobpf-client: %s\n", e.what());
    return CLIENT_EXIT_FAILED;
  }
}

}  // namespace Bpf
}  // namespace Kelo
