// The daemon and the client tool as binaries, the way the live run uses them.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/e2e/kelo_bpf_e2e_support.h"

namespace {

using namespace kelo_e2e;

constexpr int SIGNAL_DUMP_STATE = 50;

bool LogHas(const Tool& tool, const std::string& text) { return tool.Err().find(text) != std::string::npos; }

TEST(E2eTools, ClientToolPrintsTheForkOfAChildAndBothToolsStopCleanly) {
  Tool daemon(KELO_DAEMON_PATH, {"--load"}, "daemon");
  ASSERT_TRUE(daemon.Started());
  ASSERT_TRUE(WaitUntil([&] { return LogHas(daemon, "[kelobpfd] Ready"); })) << daemon.Err();
  ASSERT_TRUE(WaitUntil(ServiceListening));
  Tool client(KELO_CLIENT_PATH, {"--type", "2", "--type", "3"}, "client");
  ASSERT_TRUE(client.Started());
  ASSERT_TRUE(WaitUntil([&] { return client.Out().find("response reqId=1 type=3 result=0") != std::string::npos; }))
      << client.Out() << client.Err();

  // Children until the client shows one of them: the kernel side may still be
  // switching task events on when the first is made.
  std::string forkLine;
  ASSERT_TRUE(WaitUntil([&] {
    forkLine = " pid=" + std::to_string(ForkAndReapChild()) + " ppid=" + std::to_string(getpid());
    return WaitUntil([&] { return client.Out().find(forkLine) != std::string::npos; }, 500ms);
  })) << client.Out();
  EXPECT_NE(client.Out().find("fork ts="), std::string::npos);
  EXPECT_NE(client.Out().find("kind=process"), std::string::npos);

  client.Signal(SIGTERM);
  EXPECT_EQ(client.Wait(), 0) << client.Err();
  EXPECT_NE(client.Out().find("summary type=2 name=fork events="), std::string::npos);
  EXPECT_EQ(client.Out().find("summary type=2 name=fork events=0\n"), std::string::npos);

  daemon.Signal(SIGNAL_DUMP_STATE);
  EXPECT_TRUE(WaitUntil([] { return StateFileTotals().has_value(); }));
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.Wait(), 0) << daemon.Err();
  EXPECT_TRUE(LogHas(daemon, "[kelobpfd] Service stopped, producers joined")) << daemon.Err();
}

TEST(E2eTools, DaemonStoppedBeforeReadinessEndsWithSuccess) {
  Tool daemon(KELO_DAEMON_PATH, {"--no-ready"}, "daemon");
  ASSERT_TRUE(WaitUntil(ServiceListening)) << daemon.Err();
  daemon.Signal(SIGINT);
  EXPECT_EQ(daemon.Wait(), 0) << daemon.Err();
  EXPECT_TRUE(LogHas(daemon, "[kelobpfd] Service stopped before it was made ready")) << daemon.Err();
}

TEST(E2eTools, DaemonWithTheServiceDisabledEndsWithSuccessAtOnce) {
  Tool daemon(KELO_DAEMON_PATH, {"--prop", "persist.sys.stability.bpfframework.disable=1"}, "daemon");
  EXPECT_EQ(daemon.Wait(), 0) << daemon.Err();
  EXPECT_TRUE(LogHas(daemon, "[BpfServiceMain] Starting KELO Bpf Service disabled!")) << daemon.Err();
  EXPECT_TRUE(LogHas(daemon, "Property ro.kernel.version=")) << daemon.Err();
}

TEST(E2eTools, ClientWithoutAServiceFailsWhenItsDurationEnds) {
  Tool client(KELO_CLIENT_PATH, {"--type", "2", "--duration", "0.5"}, "client");
  EXPECT_EQ(client.Wait(), 1);
  EXPECT_NE(client.Err().find("subscription of type 2 was not answered"), std::string::npos) << client.Err();
  EXPECT_NE(client.Out().find("summary type=2 name=fork events=0"), std::string::npos) << client.Out();
}

TEST(E2eTools, BadUsageEndsBothToolsWithStatusTwo) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--type", "two"}, {"--count", "0"}, {"--duration", "-1"}, {"extra"}}) {
    Tool client(KELO_CLIENT_PATH, args, "client");
    EXPECT_EQ(client.Wait(), 2) << args[0];
  }
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--prop", "no-value-given"}, {"--ready-delay", "soon"}, {"extra"}}) {
    Tool daemon(KELO_DAEMON_PATH, args, "daemon");
    EXPECT_EQ(daemon.Wait(), 2) << args[0];
  }
}

}  // namespace
