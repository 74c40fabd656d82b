// Shared pieces of the end-to-end tests: waiting, the host preparation a
// hosting daemon does, a recording subscriber, child processes that exit at
// once, the state file, and running the daemon and client binaries.
//
// Every test case runs in its own sandbox (private bpffs, tracefs, tmpfs
// /data and network namespace), so the service's fixed paths and socket name
// are private to it; and in its own process, so each gets a fresh service.
#pragma once

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"
#include "tools/kelo_bpf_client_lib.h"
#include "utils/kelo_bpf_mutex.h"

extern char** environ;

namespace kelo_e2e {

using namespace std::chrono_literals;

// Polls `done` until it holds or `limit` passed; the limit only bounds a
// broken test, it is not a speed requirement.
inline bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 30s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

// What a hosting daemon does before the service starts on this host: the
// parents of the service's directory and the kernel version property.
inline void PrepareHost() {
  mkdir("/data/kelolog", 0775);
  mkdir("/data/kelolog/stability", 0775);
  utsname name;
  ASSERT_EQ(uname(&name), 0);
  unsigned major = 0, minor = 0;
  ASSERT_EQ(sscanf(name.release, "%u.%u", &major, &minor), 2);
  android::base::SetProperty("ro.kernel.version", std::to_string(major) + "." + std::to_string(minor));
  // A subscriber that goes away must not take the test process with it.
  signal(SIGPIPE, SIG_IGN);
}

// True once the service's abstract socket is listening in this sandbox.
inline bool ServiceListening() {
  std::string table;
  return android::base::ReadFileToString("/proc/net/unix", &table) &&
         table.find(std::string("@") + Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME) != std::string::npos;
}

// A child that exits at once; reaped before returning. Its pid.
inline pid_t ForkAndReapChild() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  return child;
}

// One package as the subscriber received it.
struct Received {
  bool response = false;
  int type = 0;        // subscribed type (response) or record type (event)
  uint32_t reqId = 0;  // response only
  int result = 0;      // response only
  std::string record;  // event only

  template <typename Record>
  Record As() const {
    Record out{};
    memcpy(&out, record.data(), std::min(sizeof(out), record.size()));
    return out;
  }
};

// A KeloBpfClient that keeps everything it receives, in arrival order.
class RecordingClient {
 public:
  explicit RecordingClient(std::vector<int> types)
      : client(Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME, std::move(types), Callbacks()) {}

  bool Start() { return client.start(); }

  std::vector<Received> Packages() EXCLUDES(mutex) {
    Kelo::Bpf::MutexLock lock(mutex);
    return packages;
  }

  // Index of the first package matching `match`, if any.
  std::optional<size_t> Find(const std::function<bool(const Received&)>& match) {
    const std::vector<Received> all = Packages();
    for (size_t i = 0; i < all.size(); ++i) {
      if (match(all[i])) return i;
    }
    return std::nullopt;
  }

 private:
  Kelo::Bpf::KeloBpfClientCallbacks Callbacks() {
    Kelo::Bpf::KeloBpfClientCallbacks callbacks;
    callbacks.onResponse = [this](uint32_t reqId, int type, int result) { Add({true, type, reqId, result, {}}); };
    callbacks.onEvent = [this](const char* record, uint32_t size) {
      uint32_t type = 0;
      if (size >= sizeof(type)) memcpy(&type, record, sizeof(type));
      Add({false, static_cast<int>(type), 0, 0, std::string(record, size)});
    };
    return callbacks;
  }
  void Add(Received package) EXCLUDES(mutex) {
    Kelo::Bpf::MutexLock lock(mutex);
    packages.push_back(std::move(package));
  }

  // Guards packages: the client's worker appends, the test reads.
  Kelo::Bpf::Mutex mutex;
  std::vector<Received> packages GUARDED_BY(mutex);
  // Last: its worker is joined before the record goes away.
  Kelo::Bpf::KeloBpfClient client;
};

// Column sums of the state file's data rows (10 numbers each: the event sum,
// then the counters of kinds 0 to 8); nothing when the file is not there.
inline std::optional<std::vector<long long>> StateFileTotals() {
  std::string text;
  if (!android::base::ReadFileToString(Kelo::Bpf::KeloBpfDataState::KELOTASK_DUMP_TEMPLATE, &text)) {
    return std::nullopt;
  }
  std::vector<std::string> lines = android::base::Split(text, "\n");
  if (lines.empty() || !android::base::StartsWith(lines[0], "EventCount, ")) return std::nullopt;
  std::vector<long long> totals(10, 0);
  for (size_t i = 1; i < lines.size(); ++i) {
    std::vector<std::string> fields = android::base::Split(lines[i], ",");
    if (fields.size() < totals.size()) continue;
    for (size_t column = 0; column < totals.size(); ++column) totals[column] += atoll(fields[column].c_str());
  }
  return totals;
}

// A daemon or client binary of this build, run with its output in files.
class Tool {
 public:
  Tool(const std::string& path, std::vector<std::string> args, const std::string& name)
      : outPath(std::string("/data/") + name + ".out"), errPath(std::string("/data/") + name + ".err") {
    std::vector<std::string> argv{path};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (std::string& arg : argv) raw.push_back(arg.data());
    raw.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    // The test runner may block signals the tools rely on.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::vector<std::string> env = ToolEnvironment();
    std::vector<char*> rawEnv;
    for (std::string& entry : env) rawEnv.push_back(entry.data());
    rawEnv.push_back(nullptr);
    if (posix_spawn(&pid, path.c_str(), &actions, &attributes, raw.data(), rawEnv.data()) != 0) pid = -1;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Tool() {
    if (pid > 0 && !exited) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  Tool(const Tool&) = delete;
  Tool& operator=(const Tool&) = delete;

  bool Started() const { return pid > 0; }
  void Signal(int signal) const { kill(pid, signal); }
  // The exit status once the tool has ended, or nothing after `limit`
  // (signal deaths count as 128 + signal).
  std::optional<int> Wait(std::chrono::milliseconds limit = 30s) {
    int status = 0;
    if (!WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit)) return std::nullopt;
    exited = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  std::string Out() const { return Read(outPath); }
  std::string Err() const { return Read(errPath); }

 private:
  // This environment, except that a ThreadSanitizer build of a tool does
  // not report the service's client endpoint thread, which nothing joins by
  // design (the service has no orderly shutdown and the daemon ends with
  // _exit).
  static std::vector<std::string> ToolEnvironment() {
    constexpr char TSAN_OPTIONS[] = "TSAN_OPTIONS=";
    std::vector<std::string> env;
    std::string tsanOptions = TSAN_OPTIONS;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (android::base::StartsWith(*entry, TSAN_OPTIONS)) {
        tsanOptions += std::string(*entry + strlen(TSAN_OPTIONS)) + ":";
      } else {
        env.emplace_back(*entry);
      }
    }
    // Last, so that it wins over the same flag given before.
    env.push_back(tsanOptions + "report_thread_leaks=0");
    return env;
  }

  static std::string Read(const std::string& path) {
    std::string text;
    android::base::ReadFileToString(path, &text);
    return text;
  }

  const std::string outPath;
  const std::string errPath;
  pid_t pid = -1;
  bool exited = false;
};

}  // namespace kelo_e2e
