// kelobpf-client's subcommands against the real daemon (kelobpfd --load in
// this test's sandbox): watch --json with a name filter, dump and stats,
// the exporter scraped with curl, and top on a terminal under tmux.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/support/emulation.h"
#include "tests/support/live_service.h"
#include "tests/support/process.h"
#include "tests/support/tool.h"
#include "tests/support/wait.h"
#include "tools/kelo_bpf_client_files.h"

namespace {

using namespace std::chrono_literals;
using kelo_test::RunChild;
using kelo_test::ServiceListening;
using kelo_test::Tool;
using kelo_test::WaitUntil;

// The daemon, loaded and ready, with the dump handlers installed (a dump of
// the state file succeeds).
std::unique_ptr<Tool> StartDaemon(std::vector<std::string> args = {"--load"}) {
  auto daemon = std::make_unique<Tool>(KELO_DAEMON_PATH, args, "daemon");
  EXPECT_TRUE(WaitUntil([&] { return daemon->Logged("[kelobpfd] Ready"); })) << daemon->Err();
  EXPECT_TRUE(WaitUntil(ServiceListening));
  EXPECT_TRUE(WaitUntil([] { return Tool(KELO_CLIENT_PATH, {"dump", "state"}, "probe").Wait() == 0; }, 60s));
  return daemon;
}

// A child named `name` that exits at once; its pid.
pid_t RunNamedChild(const char* name) {
  return RunChild([name] { prctl(PR_SET_NAME, name); });
}

// Output of a shell command and its exit status.
std::string Shell(const std::string& command, int* status = nullptr) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buffer[4096];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, got);
  const int result = pclose(pipe);
  if (status != nullptr) *status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
  return out;
}

TEST(E2eClient, WatchJsonPrintsOnlyTheEventsOfNamedProcessesAsOneObjectPerLine) {
  KELO_SKIP_WITHOUT_BPF();
  auto daemon = StartDaemon();
  Tool client(KELO_CLIENT_PATH, {"--json", "--comm", "kelo-probe-*", "exit", "process_exited", "--count", "2"},
              "client");
  ASSERT_TRUE(WaitUntil([&] { return client.Printed(R"("record":"response","req_id":1,"type":50002)"); }))
      << client.Out() << client.Err();
  std::set<int64_t> children;
  std::optional<int> status;
  ASSERT_TRUE(WaitUntil([&] {
    RunChild();  // unnamed: filtered out
    children.insert(RunNamedChild("kelo-probe-1"));
    status = client.Wait(300ms);
    return status.has_value();
  }));
  EXPECT_EQ(*status, 0) << client.Err();

  std::set<std::string> names;
  int events = 0;
  for (const std::string& line : android::base::Split(client.Out(), "\n")) {
    if (line.empty()) continue;
    const nlohmann::json object = nlohmann::json::parse(line);  // every line is one object
    if (object["record"] == "event") {
      ++events;
      names.insert(object["name"].get<std::string>());
      EXPECT_EQ(object["comm"], "kelo-probe-1") << line;
      EXPECT_EQ(children.count(object["pid"].get<int64_t>()), 1u) << line;
      // A sanitizer's helper thread may end before the process.
      if (object["name"] == "exit") {
        EXPECT_TRUE(object["kind"] == "process" || object["kind"] == "thread") << line;
      }
    } else if (object["record"] == "summary" && object.contains("filtered_out")) {
      EXPECT_EQ(object["events"], 2) << line;
    }
  }
  EXPECT_EQ(events, 2);
  EXPECT_TRUE(names.count("exit") || names.count("process_exited"));
}

TEST(E2eClient, DumpPrintsEachFileOfTheServiceAndSaysWhyItCannot) {
  KELO_SKIP_WITHOUT_BPF();
  auto daemon = StartDaemon();
  Tool all(KELO_CLIENT_PATH, {"dump"}, "dump-all");
  ASSERT_EQ(all.Wait(), 0) << all.Err();
  Kelo::Bpf::TaskDump dump;
  std::string problem;
  ASSERT_TRUE(Kelo::Bpf::ParseTaskDump(all.Out(), &dump, &problem)) << problem << all.Out();
  EXPECT_TRUE(dump.full);
  EXPECT_TRUE(std::any_of(dump.rows.begin(), dump.rows.end(), [](const Kelo::Bpf::TaskDumpRow& row) {
    return row.pid == getpid() && row.ppid == getppid() && row.anonKb > 0;
  })) << all.Out();
  EXPECT_TRUE(std::any_of(dump.rows.begin(), dump.rows.end(), [](const Kelo::Bpf::TaskDumpRow& row) {
    return row.ppid == 2;
  })) << "kernel threads are in the full dump";

  Tool shortUser(KELO_CLIENT_PATH, {"dump", "short-user"}, "dump-short-user");
  ASSERT_EQ(shortUser.Wait(), 0) << shortUser.Err();
  ASSERT_TRUE(Kelo::Bpf::ParseTaskDump(shortUser.Out(), &dump, &problem)) << problem;
  EXPECT_FALSE(dump.full);
  EXPECT_FALSE(dump.rows.empty());
  for (const auto& row : dump.rows) EXPECT_GT(row.anonKb + row.fileKb + row.shmemKb + row.swapKb, 0) << row.comm;

  Tool state(KELO_CLIENT_PATH, {"dump", "state"}, "dump-state");
  ASSERT_EQ(state.Wait(), 0) << state.Err();
  EXPECT_TRUE(android::base::StartsWith(state.Out(), "EventCount, kelo_task_init, ")) << state.Out();

  // By pid file, and a pid file that is not there.
  const std::string pidFile = "/data/kelobpfd.pid";
  ASSERT_TRUE(android::base::WriteStringToFile(std::to_string(daemon->Pid()) + "\n", pidFile));
  EXPECT_EQ(Tool(KELO_CLIENT_PATH, {"dump", "short", "--pidfile", pidFile, "--socket", "/none"}, "dump-pidfile").Wait(),
            0);
  Tool noPidFile(KELO_CLIENT_PATH, {"dump", "--pidfile", "/data/none.pid"}, "dump-nopidfile");
  EXPECT_EQ(noPidFile.Wait(), 3);
  EXPECT_TRUE(noPidFile.Logged("cannot read the pid file /data/none.pid")) << noPidFile.Err();

  // Without the rights to signal the daemon.
  Tool nobody("/usr/bin/setpriv",
              {"--reuid=65534", "--regid=65534", "--clear-groups", KELO_CLIENT_PATH, "dump", "user"}, "dump-nobody");
  const std::optional<int> nobodyStatus = nobody.Wait();
  // 126/127: this build tree is not reachable for an unprivileged user.
  if (nobodyStatus != 126 && nobodyStatus != 127) {
    EXPECT_EQ(nobodyStatus, 4) << nobody.Err();
    EXPECT_TRUE(nobody.Logged("not permitted to send signal 52 to the service")) << nobody.Err();
  }

  daemon->Signal(SIGTERM);
  EXPECT_EQ(daemon->Wait(), 0);
  Tool none(KELO_CLIENT_PATH, {"dump"}, "dump-none");
  EXPECT_EQ(none.Wait(), 3);
  EXPECT_TRUE(none.Logged("no service is listening on /mnt/bpfframework/kelobpfdispatcher")) << none.Err();
}

TEST(E2eClient, StatsCountsTheForksOfChildrenAndTheConnectedClients) {
  KELO_SKIP_WITHOUT_BPF();
  auto daemon = StartDaemon();
  Tool watcher(KELO_CLIENT_PATH, {"fork"}, "watcher");
  ASSERT_TRUE(WaitUntil([&] { return watcher.Printed("response reqId=0 type=2 result=0"); })) << watcher.Err();
  for (int i = 0; i < 5; ++i) RunChild();

  nlohmann::json stats;
  ASSERT_TRUE(WaitUntil([&] {
    Tool tool(KELO_CLIENT_PATH, {"stats", "--json"}, "stats-json");
    if (tool.Wait() != 0) return false;
    stats = nlohmann::json::parse(tool.Out());
    return stats["types"][2]["window"].get<int64_t>() >= 5;
  })) << stats.dump();
  EXPECT_EQ(stats["clients"], 1) << stats.dump();
  EXPECT_EQ(stats["types"][2]["name"], "fork");
  EXPECT_EQ(stats["pid"], daemon->Pid());
  EXPECT_TRUE(stats["since_start"].get<bool>()) << stats.dump();
  EXPECT_GE(stats["types"][2]["total"].get<int64_t>(), stats["types"][2]["window"].get<int64_t>()) << stats.dump();
  EXPECT_LT(stats["window_seconds"].get<int64_t>(), 600) << "the daemon's age, not the whole window";
  EXPECT_GT(stats["polls"]["window"].get<int64_t>(), 0);

  Tool text(KELO_CLIENT_PATH, {"stats"}, "stats");
  ASSERT_EQ(text.Wait(), 0) << text.Err();
  EXPECT_TRUE(text.Printed(", clients connected: 1\n")) << text.Out();
  EXPECT_TRUE(std::regex_search(text.Out(), std::regex("\nfork +2 +[1-9][0-9]* "))) << text.Out();
  EXPECT_TRUE(text.Printed("losses and other figures of the service:\n")) << text.Out();

  watcher.Signal(SIGTERM);
  EXPECT_EQ(watcher.Wait(), 0);
  ASSERT_TRUE(WaitUntil([&] {
    Tool tool(KELO_CLIENT_PATH, {"stats", "--json"}, "stats-json");
    return tool.Wait() == 0 && nlohmann::json::parse(tool.Out())["clients"] == 0;
  }));
}

// The value of the sample `name` in an exposition text; -1 when absent.
double Sample(const std::string& text, const std::string& name) {
  const size_t at = text.find("\n" + name + " ");
  if (at == std::string::npos) return -1;
  return strtod(text.c_str() + at + name.size() + 2, nullptr);
}

TEST(E2eClient, ExporterServesCountersThatGrowBetweenTwoScrapesWithCurl) {
  KELO_SKIP_WITHOUT_BPF();
  auto daemon = StartDaemon();
  Tool exporter(KELO_CLIENT_PATH, {"export", "--listen", "127.0.0.1:0"}, "export");
  std::smatch match;
  std::string err;  // outlives `match`, which points into it
  ASSERT_TRUE(WaitUntil([&] {
    err = exporter.Err();
    return std::regex_search(err, match, std::regex("serving metrics on (http://127\\.0\\.0\\.1:[0-9]+/metrics)"));
  })) << exporter.Err();
  const std::string url = match[1];
  const std::string fork = "kelobpf_events_total{type=\"fork\",code=\"2\"}";

  int status = -1;
  const std::string first = Shell("curl -sSf " + url, &status);
  ASSERT_EQ(status, 0) << first;
  EXPECT_EQ(Sample(first, "kelobpf_up"), 1) << first;
  const double forksBefore = Sample(first, fork);
  const double pollsBefore = Sample(first, "kelobpf_polls_total");
  ASSERT_GE(forksBefore, 0) << first;
  for (int i = 0; i < 5; ++i) RunChild();
  std::string second;
  ASSERT_TRUE(WaitUntil([&] {
    second = Shell("curl -sSf " + url, &status);
    return status == 0 && Sample(second, fork) >= forksBefore + 5;
  })) << second;
  EXPECT_GE(Sample(second, "kelobpf_polls_total"), pollsBefore);
  EXPECT_NE(second.find("# TYPE kelobpf_events_total counter\n"), std::string::npos);

  // A request with a malformed header line is refused, and the server goes on.
  EXPECT_EQ(Shell("curl -s -o /dev/null -w '%{http_code}' -H 'Bad Header: x' " + url), "400");
  EXPECT_EQ(Shell("curl -s -o /dev/null -w '%{http_code}' " + url), "200");

  exporter.Signal(SIGTERM);
  EXPECT_EQ(exporter.Wait(), 0) << exporter.Err();
}

TEST(E2eClient, TopShowsTheProcessTableInATerminalAndEndsOnQ) {
  KELO_SKIP_WITHOUT_BPF();
  // Started first, so that the service's start-up scan records its memory.
  kelo_test::Sleeper probe([](int) {
    constexpr size_t bytes = 96 << 20;
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) _exit(1);
    memset(memory, 1, bytes);
    prctl(PR_SET_NAME, "kelo-top-probe");
  });
  ASSERT_TRUE(WaitUntil([&] {
    std::string comm;
    return android::base::ReadFileToString("/proc/" + std::to_string(probe.pid) + "/comm", &comm) &&
           comm == "kelo-top-probe\n";
  }));
  auto daemon = StartDaemon();

  // Plain text once when the output is not a terminal.
  Tool once(KELO_CLIENT_PATH, {"top", "-n", "1"}, "top-once");
  ASSERT_EQ(once.Wait(), 0) << once.Err();
  EXPECT_TRUE(android::base::StartsWith(once.Out(), "kelobpf top - ")) << once.Out();
  EXPECT_TRUE(std::regex_search(
      once.Out(), std::regex("\n +" + std::to_string(probe.pid) + " +[0-9]+ +[0-9]+ +[0-9]{5,} .* kelo-top-probe\n")))
      << once.Out();
  EXPECT_EQ(once.Out().find('\x1b'), std::string::npos);

  const std::string tmux = "tmux -S /data/tmux.sock ";
  // The server and the client in its pane end with the test, whatever way.
  struct KillServer {
    std::string tmux;
    ~KillServer() { Shell(tmux + "kill-server 2>/dev/null"); }
  } killServer{tmux};
  const char* tsan = getenv("TSAN_OPTIONS");
  // The shell keeps the client's exit status, which tmux may learn late.
  const std::string statusFile = "/data/top.status";
  const std::string command = std::string("env TSAN_OPTIONS=") + (tsan != nullptr ? tsan : "") + " " +
                              KELO_CLIENT_PATH + " top -d 0.5; echo $? >" + statusFile;
  int status = -1;
  Shell(tmux + "new-session -d -s top -x 160 -y 200 '" + command + "' \\; set-option -t top remain-on-exit on",
        &status);
  ASSERT_EQ(status, 0);
  std::string screen;
  const std::string row = std::to_string(probe.pid);
  ASSERT_TRUE(WaitUntil([&] {
    screen = Shell(tmux + "capture-pane -p -t top");
    return screen.find("kelobpf top - ") != std::string::npos &&
           std::regex_search(screen, std::regex("\n +" + row + " +[0-9]+ +[0-9]+ +[0-9]{5,} .* kelo-top-probe\n"));
  })) << screen;

  Shell(tmux + "send-keys -t top q");
  std::string exitStatus;
  ASSERT_TRUE(WaitUntil([&] {
    return android::base::ReadFileToString(statusFile, &exitStatus) && !exitStatus.empty() && exitStatus.back() == '\n';
  })) << Shell(tmux + "capture-pane -p -t top");
  EXPECT_EQ(exitStatus, "0\n") << Shell(tmux + "capture-pane -p -t top");
  // The terminal's main screen is back.
  EXPECT_EQ(Shell(tmux + "capture-pane -p -t top").find("kelobpf top - "), std::string::npos);
}

}  // namespace
