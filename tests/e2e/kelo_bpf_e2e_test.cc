// The whole system: the real kernel programs loaded and pinned by the
// loader, the service started through its entry function and made ready, and
// subscribers on the real socket: a raw one in this process, or the daemon
// and the client tool (with the subscriber library) as binaries, the way the
// live run uses them.
//
// Every test case runs in its own sandbox (private bpffs, tracefs, tmpfs
// /data and network namespace), so the service's fixed paths and socket name
// are private to it; and in its own process, so each gets a fresh service.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/init_socket.h"
#include "tests/support/ipc_client.h"
#include "tests/support/live_service.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/state_file.h"
#include "tests/support/tool.h"
#include "tests/support/wait.h"
#include "utils/kelo_bpf_ipc_socket.h"

namespace {

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KELO_TEST_UNDER_TSAN 1
#endif
#endif
#ifdef KELO_TEST_UNDER_TSAN
constexpr bool UNDER_THREAD_SANITIZER = true;
#else
constexpr bool UNDER_THREAD_SANITIZER = false;
#endif

using namespace std::chrono_literals;
using Kelo::Bpf::KeloBpfDataState;
using Kelo::Bpf::KeloBpfService;
using kelo_test::RunChild;
using kelo_test::Tool;
using kelo_test::WaitUntil;

using kelo_test::ServiceListening;
using kelo_test::StartServiceLikeTheDaemon;

// A package as a short tag: "response <reqId>: <result>", or the record type
// of an event, followed by " child" for the whole-process fork or exit
// record of pid child.
std::string Tag(const kelo_test::Package& package, pid_t child) {
  if (package.type == IPC_PACKAGE_TYPE_RESPONSE) {
    return "response " + std::to_string(package.Word(0)) + ": " + std::to_string(static_cast<int32_t>(package.Word(1)));
  }
  const uint32_t type = package.Word(0);
  kelo_task_create_event fork{};
  kelo_task_exit_event exit{};
  bool ofChild = false;
  if (type == KELO_EVENT_TASK_CREATE && package.payload.size() == sizeof(fork)) {
    memcpy(&fork, package.payload.data(), sizeof(fork));
    ofChild = fork.pid == child && fork.ppid == getpid() && fork.kind == KELO_TASK_KIND_PROCESS;
  } else if (type == KELO_EVENT_TASK_EXIT && package.payload.size() == sizeof(exit)) {
    memcpy(&exit, package.payload.data(), sizeof(exit));
    ofChild = exit.pid == child && exit.kind == KELO_TASK_KIND_PROCESS;
  }
  return std::to_string(type) + (ofChild ? " child" : "");
}

// Children until the client tool shows the fork of one of them: the kernel
// side may still be switching task events on when the first is made.
bool PrintsTheForkOfAChild(const Tool& client) {
  return WaitUntil([&] {
    const std::string forkLine = " pid=" + std::to_string(RunChild()) + " ppid=" + std::to_string(getpid());
    return WaitUntil([&] { return client.Printed(forkLine); }, 500ms);
  });
}

TEST(E2eService, SubscriberGetsItsResponsesThenTheForkAndExitOfAChild) {
  KELO_SKIP_WITHOUT_BPF();
  StartServiceLikeTheDaemon();
  kelo_test::IpcClient client(Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME);
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(client.Send(kelo_test::Request(0, Kelo::Bpf::REQ_ADD_OBSERVER_EVENT, KELO_EVENT_TASK_CREATE) +
                          kelo_test::Request(1, Kelo::Bpf::REQ_ADD_OBSERVER_EVENT, KELO_EVENT_TASK_EXIT)));
  // Packages in arrival order up to one tagged `tag`; other processes of the
  // machine fork and exit too.
  std::vector<std::string> tags;
  const auto readUntil = [&](const std::string& tag, pid_t child) {
    while (std::find(tags.begin(), tags.end(), tag) == tags.end()) {
      std::optional<kelo_test::Package> package = client.Next();
      if (!package) return false;
      tags.push_back(Tag(*package, child));
    }
    return true;
  };
  ASSERT_TRUE(readUntil("response 0: 0", 0) && readUntil("response 1: 0", 0)) << android::base::Join(tags, ", ");
  // Task events flow once the normal pump has switched them on.
  ASSERT_TRUE(WaitUntil([] {
    auto status = kelo_test::StatusArray::Open(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_status"));
    return status && (status->Get(KELO_RB_STATUS_FLAGS) & KELO_RB_FLAG_CORE) != 0;
  }));
  ASSERT_TRUE(readUntil("3 child", RunChild())) << android::base::Join(tags, ", ");

  const auto first = [&](const std::string& prefix) {
    return std::find_if(tags.begin(), tags.end(),
                        [&](const std::string& tag) { return android::base::StartsWith(tag, prefix); }) -
           tags.begin();
  };
  EXPECT_LT(first("2 child"), first("3 child"));
  // Each subscription is answered under the id its request carried before
  // any event of its type arrives; only the subscribed types (2 and 3) are
  // delivered.
  EXPECT_LT(first("response 0: 0"), first("2"));
  EXPECT_LT(first("response 1: 0"), first("3"));
  for (const std::string& tag : tags) EXPECT_TRUE(tag[0] == 'r' || tag[0] == '2' || tag[0] == '3') << tag;
}

TEST(E2eTools, DaemonEndsWithSuccessWhenStoppedBeforeReadinessOrDisabled) {
  Tool waiting(KELO_DAEMON_PATH, {"--no-ready"}, "waiting");
  ASSERT_TRUE(WaitUntil(ServiceListening)) << waiting.Err();
  waiting.Signal(SIGINT);
  EXPECT_EQ(waiting.Wait(), 0) << waiting.Err();
  EXPECT_TRUE(waiting.Logged("[kelobpfd] Service stopped before it was made ready")) << waiting.Err();

  Tool disabled(KELO_DAEMON_PATH, {"--prop", "persist.sys.stability.bpfframework.disable=1"}, "disabled");
  EXPECT_EQ(disabled.Wait(), 0) << disabled.Err();
  EXPECT_TRUE(disabled.Logged("[BpfServiceMain] Starting KELO Bpf Service disabled!")) << disabled.Err();
  EXPECT_TRUE(disabled.Logged("Property ro.kernel.version=")) << disabled.Err();
}

// With a budget of a second the pump polls on a 750 ms timer after every
// record it hands on; a stop must not wait for that timer.
TEST(E2eTools, DaemonEndsWithinASecondOfSigtermWhileItsPumpWaitsOnItsTimer) {
  KELO_SKIP_WITHOUT_BPF();
  Tool refused(KELO_DAEMON_PATH, {"--latency-budget-ms", "1001"}, "refused");
  EXPECT_EQ(refused.Wait(), 2) << refused.Err();

  Tool daemon(KELO_DAEMON_PATH, {"--load", "--latency-budget-ms", "1000"}, "daemon");
  ASSERT_TRUE(WaitUntil([&] { return daemon.Logged("[kelobpfd] Ready"); })) << daemon.Err();
  EXPECT_TRUE(daemon.Logged("Property persist.sys.stability.bpfframework.latency_budget_ms=1000")) << daemon.Err();
  ASSERT_TRUE(WaitUntil(ServiceListening));
  kelo_test::IpcClient client(Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME);
  ASSERT_TRUE(client.Connect());
  ASSERT_EQ(client.Ask(0, Kelo::Bpf::REQ_ADD_OBSERVER_EVENT, KELO_EVENT_TASK_CREATE), 0);
  // A fork record handed on starts the timer.
  ASSERT_TRUE(WaitUntil([&] {
    RunChild();
    return client.Next(100ms).has_value();
  }));
  const auto start = std::chrono::steady_clock::now();
  daemon.Signal(SIGTERM);
  // The pumps leave their waits and are joined within the second; under
  // ThreadSanitizer the process's own exit takes longer than that.
  EXPECT_TRUE(WaitUntil([&] { return daemon.Logged("[kelobpfd] Service stopped, producers joined"); }, 1s))
      << daemon.Err();
  EXPECT_EQ(daemon.Wait(UNDER_THREAD_SANITIZER ? 5s : 1s), 0) << daemon.Err();
  if (!UNDER_THREAD_SANITIZER) {
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  }
}

// As init starts the daemon from tools/kelobpfd.rc: the socket of its
// `socket` line handed over, readiness left to the platform. Clients reach
// the service through the socket's path, and no abstract name is bound.
TEST(E2eTools, DaemonServesOnTheSocketInitHandsOver) {
  std::unique_ptr<kelo_test::InitSocket> init =
      kelo_test::InitSocket::Create(ControlSocketName(Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME));
  ASSERT_TRUE(init);
  init->Publish();
  Tool daemon(KELO_DAEMON_PATH, {"--no-ready"}, "daemon");
  // The daemon's listen() shows on the test's descriptor of the same socket.
  ASSERT_TRUE(WaitUntil([&] {
    int accepting = 0;
    socklen_t length = sizeof(accepting);
    return getsockopt(init->fd(), SOL_SOCKET, SO_ACCEPTCONN, &accepting, &length) == 0 && accepting == 1;
  })) << daemon.Err();
  Tool client(KELO_CLIENT_PATH, {"--socket", init->reachablePath(), "--type", "2"}, "client");
  ASSERT_TRUE(WaitUntil([&] { return client.Printed("response reqId=0 type=2 result=0"); }))
      << client.Out() << client.Err() << daemon.Err();
  EXPECT_FALSE(ServiceListening());

  client.Signal(SIGTERM);
  EXPECT_EQ(client.Wait(), 0) << client.Err();
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.Wait(), 0) << daemon.Err();
  EXPECT_TRUE(daemon.Logged("[kelobpfd] Service stopped before it was made ready")) << daemon.Err();
}

TEST(E2eTools, ClientWithoutAServiceFailsWhenItsDurationEndsAndBadUsageEndsEitherToolWithTwo) {
  Tool client(KELO_CLIENT_PATH, {"--type", "2", "--duration", "0.5"}, "client");
  EXPECT_EQ(client.Wait(), 1);
  EXPECT_TRUE(client.Logged("subscription of type 2 was not answered")) << client.Err();
  EXPECT_TRUE(client.Printed("summary type=2 name=fork events=0")) << client.Out();

  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--type", "two"}, {"--count", "0"}, {"--duration", "-1"}, {"extra"}}) {
    EXPECT_EQ(Tool(KELO_CLIENT_PATH, args, "client").Wait(), 2) << args[0];
  }
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--prop", "no-value-given"}, {"--ready-delay", "soon"}, {"extra"}}) {
    EXPECT_EQ(Tool(KELO_DAEMON_PATH, args, "daemon").Wait(), 2) << args[0];
  }
}

// The test plays the service: it answers the client tool's subscriptions
// and tells it of losses, which the summary adds up per type that lost them.
TEST(E2eTools, ClientSummaryAddsUpTheLossesTheServiceReported) {
  constexpr char SOCKET[] = "kelo_fake_service";
  android::base::unique_fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, SOCKET, strlen(SOCKET));
  const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + strlen(SOCKET));
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), length), 0) << strerror(errno);
  ASSERT_EQ(listen(listener.get(), 1), 0);

  Tool client(KELO_CLIENT_PATH, {"fork", "lost", "--socket", SOCKET, "--duration", "1", "--json"}, "client");
  android::base::unique_fd service(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  ASSERT_NE(service.get(), -1);
  char requests[2 * 28];
  ASSERT_TRUE(android::base::ReadFully(service.get(), requests, sizeof(requests)));
  std::string frames = kelo_test::Frame(1, kelo_test::U32(0) + kelo_test::U32(0) + kelo_test::U32(0)) +
                       kelo_test::Frame(1, kelo_test::U32(1) + kelo_test::U32(0) + kelo_test::U32(0));
  for (uint64_t count : {5u, 7u}) {
    kelo_events_lost_client_event report{};
    report.type = KELO_CLIENT_EVENT_EVENTS_LOST;
    report.lost_type = KELO_EVENT_TASK_CREATE;
    report.count = count;
    frames += kelo_test::Frame(3, kelo_test::Bytes(report));
  }
  // Cut short: no count to add.
  frames += kelo_test::Frame(3, kelo_test::U32(KELO_CLIENT_EVENT_EVENTS_LOST) + kelo_test::U32(KELO_EVENT_TASK_EXIT));
  ASSERT_TRUE(android::base::WriteFully(service.get(), frames.data(), frames.size()));
  EXPECT_EQ(client.Wait(), 0) << client.Err();
  EXPECT_TRUE(client.Printed(R"({"record":"summary","type":50005,"name":"lost","events":3})")) << client.Out();
  EXPECT_TRUE(client.Printed(R"({"record":"summary","lost_type":2,"name":"fork","lost":12})")) << client.Out();
  EXPECT_FALSE(client.Printed(R"("lost_type":3)")) << client.Out();
}

TEST(E2eTools, DaemonPrintsItsVersionAndKeepsItsPidFileOnlyWhileItRuns) {
  Tool version(KELO_DAEMON_PATH, {"--version"}, "version");
  EXPECT_EQ(version.Wait(), 0);
  EXPECT_EQ(version.Out(), "kelobpfd " KELO_VERSION "\n");

  const std::string pidFile = "/data/kelobpfd.pid";
  Tool daemon(KELO_DAEMON_PATH, {"--no-ready", "--pidfile", pidFile}, "daemon");
  std::string text;
  ASSERT_TRUE(WaitUntil([&] { return android::base::ReadFileToString(pidFile, &text); })) << daemon.Err();
  EXPECT_EQ(text, std::to_string(daemon.Pid()) + "\n");
  // What a dump request finds through the pid file before the service takes
  // the dump signals: the daemon drops it and lives on, and the client tool
  // does not send it (the emulator shows every signal as caught).
  daemon.Signal(kelo_test::SIGNAL_DUMP_STATE);
  EXPECT_FALSE(daemon.Wait(300ms).has_value());
  if (!kelo_test::UnderEmulation()) {
    Tool dump(KELO_CLIENT_PATH, {"dump", "--pidfile", pidFile}, "dump");
    EXPECT_EQ(dump.Wait(), 1);
    EXPECT_TRUE(dump.Logged("does not handle signal 51 yet")) << dump.Err();
    EXPECT_FALSE(daemon.Wait(200ms).has_value()) << "the daemon must still run";
  }
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.Wait(), 0) << daemon.Err();
  EXPECT_NE(access(pidFile.c_str(), F_OK), 0) << "pid file left behind";

  // A pid file that another process has taken over since is left alone.
  Tool second(KELO_DAEMON_PATH, {"--no-ready", "--pidfile", pidFile}, "second");
  ASSERT_TRUE(WaitUntil([&] { return android::base::ReadFileToString(pidFile, &text); })) << second.Err();
  ASSERT_TRUE(android::base::WriteStringToFile("1\n", pidFile));
  second.Signal(SIGTERM);
  EXPECT_EQ(second.Wait(), 0) << second.Err();
  EXPECT_TRUE(android::base::ReadFileToString(pidFile, &text));
  EXPECT_EQ(text, "1\n");

  // A pid file that cannot be written ends the daemon with 1.
  Tool unwritable(KELO_DAEMON_PATH, {"--no-ready", "--pidfile", "/data/missing/kelobpfd.pid"}, "unwritable");
  EXPECT_EQ(unwritable.Wait(), 1);
  EXPECT_TRUE(unwritable.Logged("Cannot write pid file /data/missing/kelobpfd.pid")) << unwritable.Err();
  EXPECT_EQ(Tool(KELO_DAEMON_PATH, {"--pidfile", ""}, "empty").Wait(), 2);
}

// setpriv's --bounding-set argument for the capabilities of the systemd
// unit's CapabilityBoundingSet= line ("-all,+bpf,+perfmon,..."), minus
// `without`; empty when the unit has no such line.
std::string UnitBoundingSet(const std::string& without = "") {
  std::string unit;
  if (!android::base::ReadFileToString(KELO_DAEMON_UNIT_PATH, &unit)) return "";
  for (const std::string& line : android::base::Split(unit, "\n")) {
    if (!android::base::StartsWith(line, "CapabilityBoundingSet=")) continue;
    std::string set = "-all";
    for (const std::string& cap : android::base::Split(line.substr(line.find('=') + 1), " ")) {
      if (cap.empty() || cap == without) continue;
      std::string name = cap.substr(cap.find('_') + 1);
      std::transform(name.begin(), name.end(), name.begin(), ::tolower);
      set += ",+" + name;
    }
    return set;
  }
  return "";
}

// The systemd unit takes every capability but its bounding set from the
// daemon: with exactly that set it loads, attaches, delivers events to the
// client tool, writes its state file and stops cleanly, as does the tool;
// without CAP_PERFMON (so the set is really in force) the kernel refuses
// every program.
TEST(E2eTools, DaemonWithTheCapabilitiesOfItsSystemdUnitServesTheClientToolAndBothStopCleanly) {
  KELO_SKIP_WITHOUT_BPF();
  const std::string bounding = UnitBoundingSet();
  ASSERT_NE(bounding.find("+bpf,+perfmon"), std::string::npos) << bounding;
  const std::string pidFile = "/data/kelobpfd.pid";
  Tool daemon("/usr/bin/setpriv",
              {"--bounding-set", bounding, "--inh-caps=-all", "--", KELO_DAEMON_PATH, "--load", "--pidfile", pidFile},
              "daemon");
  ASSERT_TRUE(WaitUntil([&] { return daemon.Logged("[kelobpfd] Ready"); }) && WaitUntil(ServiceListening))
      << daemon.Err();
  Tool client(KELO_CLIENT_PATH, {"--type", "2", "--type", "3"}, "client");
  ASSERT_TRUE(WaitUntil([&] { return client.Printed("response reqId=1 type=3 result=0"); }))
      << client.Out() << client.Err();
  ASSERT_TRUE(PrintsTheForkOfAChild(client)) << client.Out();
  EXPECT_TRUE(client.Printed("kind=process"));
  // The subscriber library sends request ids from 0 in the order of the
  // types and matches each answer to its type, before any event.
  EXPECT_LT(client.Out().find("response reqId=0 type=2 result=0"), client.Out().find("fork ts="));
  EXPECT_LT(client.Out().find("response reqId=1 type=3 result=0"), client.Out().find("fork ts="));
  client.Signal(SIGTERM);
  EXPECT_EQ(client.Wait(), 0) << client.Err();
  EXPECT_TRUE(client.Printed("summary type=2 name=fork events="));
  EXPECT_FALSE(client.Printed("summary type=2 name=fork events=0\n"));

  daemon.Signal(kelo_test::SIGNAL_DUMP_STATE);
  std::string state;
  EXPECT_TRUE(WaitUntil([&] {
    return android::base::ReadFileToString(KeloBpfDataState::KELOTASK_DUMP_TEMPLATE, &state) &&
           android::base::StartsWith(state, "EventCount, ");
  }));
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.Wait(), 0) << daemon.Err();
  EXPECT_TRUE(daemon.Logged("[kelobpfd] Service stopped, producers joined")) << daemon.Err();
  EXPECT_NE(access(pidFile.c_str(), F_OK), 0) << "pid file left behind";

  Tool restricted(
      "/usr/bin/setpriv",
      {"--bounding-set", UnitBoundingSet("CAP_PERFMON"), "--inh-caps=-all", "--", KELO_DAEMON_PATH, "--load"},
      "restricted");
  ASSERT_TRUE(WaitUntil([&] { return restricted.Logged("[kelobpfd] Ready"); })) << restricted.Err();
  EXPECT_TRUE(restricted.Logged("[kelobpfd] Pinned 0 programs")) << restricted.Err();
  restricted.Signal(SIGTERM);
  EXPECT_EQ(restricted.Wait(), 0) << restricted.Err();
}

}  // namespace
