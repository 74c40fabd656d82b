// kelobpfd: hosts the service on a development host, standing in for the
// platform's daemon (and, with --load, for the platform's BPF loader).
//
//   kelobpfd [--prop KEY=VALUE]... [--load[=OBJDIR]] [--ready-delay SECONDS] [--no-ready]
//            [--pidfile PATH] [--latency-budget-ms MS]
//   kelobpfd --version | --help
//
// 1. Properties. There is no property service here: properties live in this
//    process, so the daemon sets those the service reads. "ro.kernel.version"
//    is the running kernel's "major.minor" (from uname); then every --prop is
//    set in order, so --prop can override it or set
//    "persist.sys.stability.bpfframework.disable". --latency-budget-ms MS
//    (0 to 1000) sets "persist.sys.stability.bpfframework.latency_budget_ms"
//    after them: how long a record may wait in its ring before the service
//    hands it on (default 10; 0 hands on every record at once). The host's property store
//    has no lock, so everything is set before the service's threads exist,
//    readiness included when it is due at once (see 5).
// 2. The service's directory /data/kelolog/stability/kelobpfframework is
//    created with its parents (a device has the parents already).
// 3. --load: the kernel program sets (from OBJDIR; default: see
//    DefaultBpfObjectDir, the install tree's share/kelobpf beside an installed
//    daemon, else the build tree's objects) are loaded and pinned under
//    /sys/fs/bpf/kelo. A program the kernel refuses is logged and left out; a
//    whole set or pin that fails ends the daemon.
// 4. BpfServiceMain() is called once. A disabled service ends the daemon.
//    --pidfile: once the service has started, PATH is replaced by a file
//    holding the daemon's pid and a newline; a pid file that cannot be
//    written stops the service and ends the daemon. It is removed when the
//    daemon ends (if it still holds this daemon's pid).
// 5. After --ready-delay seconds (default 0) "sys.kelo_bpf_ready" is set to
//    "1", unless --no-ready: only then does the service attach and poll.
//    With a delay it is set to "0" at first and rewritten in place later,
//    while the service reads it: an unsynchronised write inside the host's
//    property store, which ThreadSanitizer reports. Without a delay it is
//    set before the service starts.
// 6. It runs until SIGINT or SIGTERM.
//
// Clean exit: on SIGINT or SIGTERM the service is stopped and its producer
// threads are joined through KeloBpfService::Wait(), waking them out of their
// untimed ring-buffer polls (see kelo_bpf_daemon_stop.h). Files the service
// wrote stay as they are. The process then ends with _exit: the service's
// other threads (the client endpoint's loop, the dump thread) have no
// shutdown of their own and must not see static objects destroyed under them.
//
// Signals 50 (state file) and 51 to 54 (task dumps) are the service's once
// its producers run; until then the daemon ignores them.
//
// --version prints "kelobpfd <version>", --help the usage and the options;
// both exit 0.
//
// Exit status: 0 after a clean exit, after a stop that came before the
// service was made ready (nothing was attached), or when the service is
// disabled; 1 when setting up failed (the pid file included) or the
// producers did not end within STOP_GRACE; 2 for bad usage.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "tools/kelo_bpf_daemon_log.h"
#include "tools/kelo_bpf_daemon_stop.h"
#include "tools/kelo_bpf_loader_lib.h"
#include "tools/kelo_bpf_object_dir.h"
#include "tools/kelo_bpf_tool_args.h"
#include "utils/kelo_bpf_error_log.h"

namespace {

using namespace Kelo::Bpf;

constexpr char USAGE[] =
    "usage: kelobpfd [--prop KEY=VALUE]... [--load[=OBJDIR]] [--ready-delay SECONDS] [--no-ready]\n"
    "                [--pidfile PATH] [--latency-budget-ms MS]\n"
    "       kelobpfd --version | --help\n";
// --help: the usage, then every option. The manual page takes its options
// from this text.
constexpr char OPTIONS_HELP[] =
    "\n"
    "Hosts the kelobpf service: sets the properties it reads, optionally loads\n"
    "and pins the kernel programs, starts the service and marks it ready.\n"
    "\n"
    "Options:\n"
    "  --prop KEY=VALUE       set property KEY to VALUE before the service starts\n"
    "                         (repeatable; after ro.kernel.version)\n"
    "  --load[=OBJDIR]        load and pin the program sets under /sys/fs/bpf/kelo from\n"
    "                         OBJDIR (default: <bindir>/../share/kelobpf when installed,\n"
    "                         else the build tree's bpf/)\n"
    "  --ready-delay SECONDS  set sys.kelo_bpf_ready to 1 only SECONDS after the start\n"
    "  --no-ready             never set sys.kelo_bpf_ready: clients are served,\n"
    "                         nothing is attached\n"
    "  --pidfile PATH         keep the daemon's pid in PATH while it runs\n"
    "  --latency-budget-ms MS how long a record may wait in its ring before it is\n"
    "                         handed on (0 to 1000; default 10; 0 wakes per record)\n"
    "  --version              print \"kelobpfd <version>\" and exit\n"
    "  -h, --help             print this help and exit\n"
    "\n"
    "Exit status: 0 after a clean stop (SIGINT or SIGTERM), a stop before readiness or\n"
    "a disabled service; 1 when setting up failed or the producers did not end in\n"
    "time; 2 bad usage.\n";
constexpr char VERSION_TEXT[] = "kelobpfd " KELO_VERSION "\n";
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

constexpr char KERNEL_VERSION_PROPERTY[] = "ro.kernel.version";
constexpr char READY_VALUE[] = "1";
constexpr char NOT_READY_VALUE[] = "0";
// How long the producers get to leave their loops after a stop signal.
constexpr std::chrono::milliseconds STOP_GRACE{10000};
// The service's dump signals (state file, task dumps).
constexpr int FIRST_DUMP_SIGNAL = 50;
constexpr int LAST_DUMP_SIGNAL = 54;

struct Options {
  std::vector<std::pair<std::string, std::string>> properties;
  bool load = false;
  std::string objectDir;
  double readyDelay = 0;
  bool ready = true;
  std::string pidFile;
  // Empty: the property (or its default) decides.
  std::string latencyBudgetMs;
};

// A whole number of milliseconds from 0 to MAX_LATENCY_BUDGET_MS.
bool ValidLatencyBudget(const char* text) {
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text, &end, 10);
  const bool valid = end != text && *end == '\0' && errno == 0 && value >= 0 && value <= MAX_LATENCY_BUDGET_MS;
  errno = 0;
  return valid;
}

// The pid file this daemon wrote, removed on the way out; main thread only.
std::string writtenPidFile;

bool ParseOptions(int argc, char** argv, Options* options) {
  static const option LONG_OPTIONS[] = {
      {"prop", required_argument, nullptr, 'p'},
      {"load", optional_argument, nullptr, 'l'},
      {"ready-delay", required_argument, nullptr, 'r'},
      {"no-ready", no_argument, nullptr, 'n'},
      {"pidfile", required_argument, nullptr, 'P'},
      {"latency-budget-ms", required_argument, nullptr, 'L'},
      {"version", no_argument, nullptr, 'V'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  options->objectDir = DefaultBpfObjectDir();
  int opt;
  while ((opt = getopt_long(argc, argv, "p:r:h", LONG_OPTIONS, nullptr)) != -1) {
    switch (opt) {
      case 'p': {
        const std::string assignment = optarg;
        const size_t eq = assignment.find('=');
        if (eq == std::string::npos || eq == 0) return false;
        options->properties.emplace_back(assignment.substr(0, eq), assignment.substr(eq + 1));
        break;
      }
      case 'l':
        options->load = true;
        if (optarg != nullptr) options->objectDir = optarg;
        break;
      case 'r':
        if (!ParseSeconds(optarg, &options->readyDelay)) return false;
        break;
      case 'n':
        options->ready = false;
        break;
      case 'P':
        if (*optarg == '\0') return false;
        options->pidFile = optarg;
        break;
      case 'L':
        if (!ValidLatencyBudget(optarg)) return false;
        options->latencyBudgetMs = optarg;
        break;
      case 'V':
        std::fputs(VERSION_TEXT, stdout);
        exit(EXIT_OK);
      case 'h':
        std::fputs(USAGE, stdout);
        std::fputs(OPTIONS_HELP, stdout);
        exit(EXIT_OK);
      default:
        return false;
    }
  }
  return optind == argc;
}

// "major.minor" of the running kernel ("6.18" for "6.18.44-fc"), or "" when
// the release does not start that way.
std::string RunningKernelVersion() {
  utsname name;
  if (uname(&name) != 0) return "";
  unsigned major = 0;
  unsigned minor = 0;
  if (sscanf(name.release, "%u.%u", &major, &minor) != 2) return "";
  return std::to_string(major) + "." + std::to_string(minor);
}

bool SetProperty(const std::string& key, const std::string& value) {
  if (!android::base::SetProperty(key, value)) {
    KELO_LOGE(LOG_TAG_DAEMON, "[kelobpfd] Cannot set property %s=%s", key.c_str(), value.c_str());
    return false;
  }
  KELO_LOGI(LOG_TAG_DAEMON, "[kelobpfd] Property %s=%s", key.c_str(), value.c_str());
  return true;
}

// Readiness is due as soon as the service starts.
bool ReadyAtStart(const Options& options) { return options.ready && options.readyDelay == 0; }

// Everything set before the service starts (see 1 and 5 above).
bool SetStartProperties(const Options& options) {
  std::vector<std::pair<std::string, std::string>> properties;
  const std::string kernelVersion = RunningKernelVersion();
  if (kernelVersion.empty()) {
    KELO_LOGW(LOG_TAG_DAEMON, "[kelobpfd] Cannot tell the kernel version; %s stays unset", KERNEL_VERSION_PROPERTY);
  } else {
    properties.emplace_back(KERNEL_VERSION_PROPERTY, kernelVersion);
  }
  if (options.ready) {
    properties.emplace_back(KeloBpfService::KELO_BPF_READY, ReadyAtStart(options) ? READY_VALUE : NOT_READY_VALUE);
  }
  properties.insert(properties.end(), options.properties.begin(), options.properties.end());
  if (!options.latencyBudgetMs.empty()) properties.emplace_back(LATENCY_BUDGET_PROPERTY, options.latencyBudgetMs);
  for (const auto& [key, value] : properties) {
    if (!SetProperty(key, value)) return false;
  }
  return true;
}

// mkdir -p; true when dir exists afterwards.
bool MakeDirs(const std::string& dir) {
  for (size_t slash = dir.find('/', 1); slash != std::string::npos; slash = dir.find('/', slash + 1)) {
    mkdir(dir.substr(0, slash).c_str(), 0775);
  }
  mkdir(dir.c_str(), 0775);
  struct stat st;
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool LoadKernelSide(const std::string& objectDir) {
  BpfLoadReport report;
  const int failures = LoadAndPinBpfSets(DefaultBpfObjectSets(objectDir), KELO_BPF_FS_DIR, &report);
  KELO_LOGI(LOG_TAG_DAEMON, "[kelobpfd] Pinned %zu programs and %zu maps from %s under %s",
            report.pinnedPrograms.size(), report.pinnedMaps.size(), objectDir.c_str(), KELO_BPF_FS_DIR);
  for (const std::string& line : report.failedPrograms) {
    KELO_LOGW(LOG_TAG_DAEMON, "[kelobpfd] Program left out: %s", line.c_str());
  }
  for (const std::string& line : report.errors) {
    KELO_LOGE(LOG_TAG_DAEMON, "[kelobpfd] Load failed: %s", line.c_str());
  }
  if (failures != 0) {
    KELO_LOGW(LOG_TAG_DAEMON, "[kelobpfd] %d programs or pins failed", failures);
  }
  return report.errors.empty();
}

// Replaces `path` by a file holding this process's pid and a newline (written
// beside it and renamed into place, so a reader never sees it half written);
// false (logged) when that failed.
bool WritePidFile(const std::string& path) {
  const std::string temporary = path + ".tmp";
  const std::string text = std::to_string(getpid()) + "\n";
  if (!android::base::WriteStringToFile(text, temporary) || rename(temporary.c_str(), path.c_str()) != 0) {
    KELO_LOGE(LOG_TAG_DAEMON, "[kelobpfd] Cannot write pid file %s: %s", path.c_str(), strerror(errno));
    unlink(temporary.c_str());
    return false;
  }
  writtenPidFile = path;
  KELO_LOGI(LOG_TAG_DAEMON, "[kelobpfd] Pid file %s", path.c_str());
  return true;
}

// Removes the pid file written by WritePidFile, unless another process has
// put its own pid there since.
void RemovePidFile() {
  if (writtenPidFile.empty()) return;
  std::string text;
  if (android::base::ReadFileToString(writtenPidFile, &text) && text == std::to_string(getpid()) + "\n") {
    unlink(writtenPidFile.c_str());
  }
  writtenPidFile.clear();
}

// Stops a started service: a service never made ready is only stopped (its
// producers sleep in their readiness wait, nothing was attached and there is
// nothing to join); a ready one is stopped and its producers joined.
// EXIT_OK, or EXIT_FAILED when they did not end within STOP_GRACE.
int StopService() {
  // Read back, as the service reads it: --prop may have set it too.
  if (android::base::GetProperty(KeloBpfService::KELO_BPF_READY, NOT_READY_VALUE) == NOT_READY_VALUE) {
    KeloBpfService::GetInstance()->stop();
    KELO_LOGI(LOG_TAG_DAEMON, "[kelobpfd] Service stopped before it was made ready");
    return EXIT_OK;
  }
  if (StopServiceAndJoin(STOP_GRACE)) {
    KELO_LOGI(LOG_TAG_DAEMON, "[kelobpfd] Service stopped, producers joined");
    return EXIT_OK;
  }
  KELO_LOGE(LOG_TAG_DAEMON, "[kelobpfd] Producers did not end within %lld ms",
            static_cast<long long>(STOP_GRACE.count()));
  return EXIT_FAILED;
}

// Waits for SIGINT or SIGTERM (blocked in every thread) for at most
// `seconds`, forever when negative; true when one arrived.
bool WaitForStopSignal(const sigset_t& stopSignals, double seconds) {
  while (true) {
    int signal;
    if (seconds < 0) {
      signal = sigwaitinfo(&stopSignals, nullptr);
    } else {
      timespec timeout;
      timeout.tv_sec = static_cast<time_t>(seconds);
      timeout.tv_nsec = static_cast<long>((seconds - static_cast<double>(timeout.tv_sec)) * 1e9);
      signal = sigtimedwait(&stopSignals, nullptr, &timeout);
      if (signal < 0 && errno == EAGAIN) return false;
    }
    if (signal > 0) {
      KELO_LOGI(LOG_TAG_DAEMON, "[kelobpfd] Stop requested by signal %d", signal);
      return true;
    }
    // EINTR: some other signal's handler ran; keep waiting (a timed wait
    // then restarts its full time-out, which only delays readiness).
  }
}

int Run(const Options& options, const sigset_t& stopSignals) {
  if (!SetStartProperties(options)) return EXIT_FAILED;
  if (!MakeDirs(ERROR_LOG_DIR)) {
    KELO_LOGE(LOG_TAG_DAEMON, "[kelobpfd] Cannot create %s: %s", ERROR_LOG_DIR, strerror(errno));
    return EXIT_FAILED;
  }
  if (options.load && !LoadKernelSide(options.objectDir)) return EXIT_FAILED;
  if (WaitForStopSignal(stopSignals, 0)) return EXIT_OK;

  if (!BpfServiceMain()) {
    KELO_LOGI(LOG_TAG_DAEMON, "[kelobpfd] Service disabled; nothing to host");
    return EXIT_OK;
  }
  if (!options.pidFile.empty() && !WritePidFile(options.pidFile)) {
    StopService();
    return EXIT_FAILED;
  }

  bool declaredReady = ReadyAtStart(options);
  bool stopRequested = false;
  if (options.ready && !declaredReady) {
    stopRequested = WaitForStopSignal(stopSignals, options.readyDelay);
    if (!stopRequested) {
      if (!SetProperty(KeloBpfService::KELO_BPF_READY, READY_VALUE)) return EXIT_FAILED;
      declaredReady = true;
    }
  }
  if (declaredReady) KELO_LOGI(LOG_TAG_DAEMON, "[kelobpfd] Ready");
  if (!stopRequested) WaitForStopSignal(stopSignals, -1);
  return StopService();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fputs(USAGE, stderr);
    return EXIT_USAGE;
  }

  // Blocked before the service makes its threads, which inherit the mask: the
  // stop signals are taken only by the waits above.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  // A client that goes away while the service writes to it must cost only
  // that connection (send then fails with EPIPE).
  signal(SIGPIPE, SIG_IGN);
  // A dump request that comes before the service's pumps take these signals
  // (their default action ends the process) is dropped instead.
  for (int dumpSignal = FIRST_DUMP_SIGNAL; dumpSignal <= LAST_DUMP_SIGNAL; ++dumpSignal) signal(dumpSignal, SIG_IGN);
  if (!InstallWakeHandler()) {
    KELO_LOGE(LOG_TAG_DAEMON, "[kelobpfd] Cannot install the wake handler: %s", strerror(errno));
    return EXIT_FAILED;
  }

  const int status = Run(options, stopSignals);
  RemovePidFile();
  fflush(nullptr);
  _exit(status);
}
