#include "utils/kelo_bpf_ipc_epoll_manager.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

namespace {

using kelo_test::WaitUntil;

// Long enough for a spurious wake-up of the loop to show.
constexpr auto QUIET_PERIOD = std::chrono::milliseconds(200);

cpu_set_t Processors(std::vector<int> cpus) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int cpu : cpus) CPU_SET(cpu, &set);
  return set;
}

// One end of a socket pair watched by a manager; the callbacks count what
// they see in the fixture, which outlives the manager's worker.
class EpollManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    mine.reset(fds[0]);
    peer.reset(fds[1]);
  }
  // A fresh manager (the previous one joined) that watches `mine`.
  void Watch(const EpollCallback& callback) {
    manager = std::make_unique<EpollManager>(10, 32, nullptr, "ipc-test", Processors({0}), -1);
    ASSERT_TRUE(manager->addMonitorFd(mine.get(), callback));
  }
  void Quiet() const { std::this_thread::sleep_for(QUIET_PERIOD); }
  int Drain() {
    char bytes[256];
    return static_cast<int>(read(mine.get(), bytes, sizeof(bytes)));
  }

  android::base::unique_fd mine;
  android::base::unique_fd peer;
  std::atomic<int> reads{0}, writes{0}, closes{0};
  std::unique_ptr<EpollManager> manager;  // last: its worker is joined first
};

TEST_F(EpollManagerTest, WriteInterestLastsUntilTheWriterHasNothingLeft) {
  std::atomic<int> moreWrites{3};
  std::atomic<bool> askedTwice{false};
  EpollCallback callback;
  callback.writeCallback = [&](epoll_event) {
    // Holds the loop while interest is on, so the second request meets it on.
    WaitUntil([&] { return askedTwice.load(); });
    ++writes;
    return moreWrites-- > 0 ? 0 : -3;
  };
  ASSERT_NO_FATAL_FAILURE(Watch(callback));
  manager->start();
  Quiet();
  EXPECT_EQ(manager->getWakeupCount(), 0u) << "an idle descriptor never wakes the loop";
  EXPECT_TRUE(manager->notifyWriteEventReady(mine.get()));
  EXPECT_TRUE(manager->notifyWriteEventReady(mine.get())) << "asking twice is fine";
  askedTwice = true;
  ASSERT_TRUE(WaitUntil([&] { return writes >= 4; }));
  Quiet();
  EXPECT_EQ(writes, 4) << "interest dropped after -3";
  EXPECT_EQ(manager->getWakeupCount(), 4u);

  // A failing writer (-1) loses interest too.
  ASSERT_TRUE(manager->delMonitorFd(mine.get()));
  writes = 0;
  callback.writeCallback = [&](epoll_event) {
    ++writes;
    return -1;
  };
  ASSERT_TRUE(manager->addMonitorFd(mine.get(), callback));
  EXPECT_TRUE(manager->notifyWriteEventReady(mine.get()));
  ASSERT_TRUE(WaitUntil([&] { return writes == 1; }));
  Quiet();
  EXPECT_EQ(writes, 1);
  EXPECT_FALSE(manager->notifyWriteEventReady(12345)) << "unknown descriptor";
  EXPECT_FALSE(manager->markWriteEventFinish(12345));
}

TEST_F(EpollManagerTest, RequestArrivingWhileTheWriterFindsNothingKeepsInterest) {
  EpollCallback callback;
  callback.writeCallback = [&](epoll_event event) {
    // A producer queues and notifies after this writer has looked at its
    // empty queue: the writer still reports nothing left.
    if (writes++ == 0) manager->notifyWriteEventReady(event.data.fd);
    return -3;
  };
  ASSERT_NO_FATAL_FAILURE(Watch(callback));
  manager->start();
  ASSERT_TRUE(manager->notifyWriteEventReady(mine.get()));
  ASSERT_TRUE(WaitUntil([&] { return writes == 2; })) << "the late request was stranded";
  Quiet();
  EXPECT_EQ(writes, 2) << "interest dropped once nothing new was asked for";
}

TEST_F(EpollManagerTest, HangUpGoesToTheCloseCallbackAlone) {
  EpollCallback callback;
  callback.readCallback = [&](epoll_event) {
    ++reads;
    return 0;
  };
  callback.closeCallback = [&](epoll_event event) {
    ++closes;
    manager->delMonitorFd(event.data.fd);
    return 0;
  };
  ASSERT_NO_FATAL_FAILURE(Watch(callback));
  // Data and hang-up both pending at the loop's first wait.
  ASSERT_EQ(write(peer.get(), "x", 1), 1);
  peer.reset();
  manager->start();
  ASSERT_TRUE(WaitUntil([&] { return closes == 1; }));
  Quiet();
  EXPECT_EQ(reads, 0);
  EXPECT_EQ(closes, 1);
  EXPECT_FALSE(manager->writeEventNow(mine.get())) << "forgotten after delMonitorFd";
}

TEST_F(EpollManagerTest, StopEndsTheLoopAndDestructionJoinsIt) {
  EpollCallback callback;
  callback.readCallback = [&](epoll_event) {
    Drain();
    ++reads;
    return 0;
  };
  ASSERT_NO_FATAL_FAILURE(Watch(callback));
  manager->start();
  ASSERT_EQ(write(peer.get(), "1", 1), 1);
  ASSERT_TRUE(WaitUntil([&] { return reads == 1; }));
  manager->stop();
  ASSERT_TRUE(WaitUntil([&] { return manager->getWakeupCount() == 2; })) << "the control event";
  ASSERT_EQ(write(peer.get(), "2", 1), 1);
  Quiet();
  EXPECT_EQ(reads, 1) << "no callbacks after stop";
  manager.reset();
  EXPECT_EQ(reads, 1);
}

TEST(EpollManagerThreadTest, WorkerIsNamedBoundAndInitialised) {
  const int lastCpu = static_cast<int>(std::thread::hardware_concurrency()) - 1;
  for (const auto& [cpus, expectedCpu] : {std::pair<std::vector<int>, int>{{lastCpu}, lastCpu}, {{}, 0}}) {
    kelo_test::LogCapture log;
    char name[16] = {};
    cpu_set_t affinity;
    CPU_ZERO(&affinity);
    std::atomic<bool> initialised{false};
    {
      EpollManager manager(
          10, 32,
          [&] {
            prctl(PR_GET_NAME, name);
            sched_getaffinity(0, sizeof(affinity), &affinity);
            initialised = true;
            return 0;
          },
          "ipc-named", Processors(cpus), -1);
      manager.start();
      ASSERT_TRUE(WaitUntil([&] { return initialised.load(); }));
    }
    EXPECT_EQ(std::string(name), "ipc-named");
    EXPECT_EQ(CPU_COUNT(&affinity), 1);
    EXPECT_TRUE(CPU_ISSET(expectedCpu, &affinity));
    EXPECT_EQ(log.contains("[EpollManager] cpu affinity invalid!"), cpus.empty());
    EXPECT_TRUE(log.contains("[EpollManager][mainThread] initFunc failed"));
  }
}

}  // namespace
