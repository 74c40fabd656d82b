#include "utils/kelo_bpf_ipc_epoll_manager.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/utils/kelo_bpf_ipc_test_support.h"

namespace {

using kelo_ipc_test::WaitFor;

// Long enough for a spurious wake-up of the loop to show.
constexpr auto QUIET_PERIOD = std::chrono::milliseconds(200);

cpu_set_t Processors(std::vector<int> cpus) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int cpu : cpus) CPU_SET(cpu, &set);
  return set;
}

class EpollManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    mine.reset(fds[0]);
    peer.reset(fds[1]);
  }
  static int drain(int fd) {
    char bytes[256];
    return static_cast<int>(read(fd, bytes, sizeof(bytes)));
  }
  android::base::unique_fd mine;
  android::base::unique_fd peer;
};

TEST_F(EpollManagerTest, ReadResultDecidesWhetherWriteRunsForTheSameEvent) {
  for (int readResult : {0, 2, 1, -1, -2, -3}) {
    EpollManager manager(10, 32, nullptr, "ipc-test", Processors({0}), -1);
    std::atomic<uint32_t> firstWriteMask{0};
    std::atomic<int> writes{0};
    EpollCallback callback;
    callback.readCallback = [&](epoll_event event) {
      drain(event.data.fd);
      return readResult;
    };
    callback.writeCallback = [&](epoll_event event) {
      if (writes++ == 0) firstWriteMask = event.events;
      return -3;
    };
    ASSERT_TRUE(manager.addMonitorFd(mine.get(), callback));
    // Readable and writable before the loop's first wait: one event with both.
    ASSERT_EQ(write(peer.get(), "x", 1), 1);
    ASSERT_TRUE(manager.notifyWriteEventReady(mine.get()));
    manager.start();
    ASSERT_TRUE(WaitFor([&] { return writes > 0; })) << readResult;
    const bool sameEvent = (firstWriteMask & EPOLLIN) != 0;
    EXPECT_EQ(sameEvent, readResult == 0 || readResult == 2) << readResult;
  }
}

TEST_F(EpollManagerTest, RequestArrivingWhileTheWriterFindsNothingKeepsInterest) {
  EpollManager manager(10, 32, nullptr, "ipc-test", Processors({0}), -1);
  std::atomic<int> writes{0};
  EpollCallback callback;
  callback.writeCallback = [&](epoll_event event) {
    // A producer queues and notifies after this writer has looked at its
    // empty queue: the writer still reports nothing left.
    if (writes++ == 0) manager.notifyWriteEventReady(event.data.fd);
    return -3;
  };
  ASSERT_TRUE(manager.addMonitorFd(mine.get(), callback));
  manager.start();
  ASSERT_TRUE(manager.notifyWriteEventReady(mine.get()));
  ASSERT_TRUE(WaitFor([&] { return writes == 2; })) << "the late request was stranded";
  std::this_thread::sleep_for(QUIET_PERIOD);
  EXPECT_EQ(writes, 2) << "interest dropped once nothing new was asked for";
}

TEST_F(EpollManagerTest, WriteInterestLastsUntilTheWriterHasNothingLeft) {
  EpollManager manager(10, 32, nullptr, "ipc-test", Processors({0}), -1);
  std::atomic<int> writes{0};
  std::atomic<int> moreWrites{3};
  std::atomic<bool> askedTwice{false};
  EpollCallback callback;
  callback.writeCallback = [&](epoll_event) {
    // Holds the loop while interest is on, so the second request meets it on.
    WaitFor([&] { return askedTwice.load(); });
    ++writes;
    return moreWrites-- > 0 ? 0 : -3;
  };
  ASSERT_TRUE(manager.addMonitorFd(mine.get(), callback));
  manager.start();
  std::this_thread::sleep_for(QUIET_PERIOD);
  EXPECT_EQ(manager.getWakeupCount(), 0u) << "an idle descriptor never wakes the loop";

  EXPECT_TRUE(manager.notifyWriteEventReady(mine.get()));
  EXPECT_TRUE(manager.notifyWriteEventReady(mine.get())) << "asking twice is fine";
  askedTwice = true;
  ASSERT_TRUE(WaitFor([&] { return writes >= 4; }));
  std::this_thread::sleep_for(QUIET_PERIOD);
  EXPECT_EQ(writes, 4) << "interest dropped after -3";
  EXPECT_EQ(manager.getWakeupCount(), 4u);

  // A failing writer (-1) loses interest too.
  ASSERT_TRUE(manager.delMonitorFd(mine.get()));
  std::atomic<int> failures{0};
  callback.writeCallback = [&](epoll_event) {
    ++failures;
    return -1;
  };
  ASSERT_TRUE(manager.addMonitorFd(mine.get(), callback));
  EXPECT_TRUE(manager.notifyWriteEventReady(mine.get()));
  ASSERT_TRUE(WaitFor([&] { return failures == 1; }));
  std::this_thread::sleep_for(QUIET_PERIOD);
  EXPECT_EQ(failures, 1);

  EXPECT_FALSE(manager.notifyWriteEventReady(12345)) << "unknown descriptor";
  EXPECT_FALSE(manager.markWriteEventFinish(12345));
}

TEST_F(EpollManagerTest, HangUpGoesToTheCloseCallbackAlone) {
  EpollManager manager(10, 32, nullptr, "ipc-test", Processors({0}), -1);
  std::atomic<int> reads{0};
  std::atomic<int> closes{0};
  EpollCallback callback;
  callback.readCallback = [&](epoll_event) {
    ++reads;
    return 0;
  };
  callback.closeCallback = [&](epoll_event event) {
    ++closes;
    manager.delMonitorFd(event.data.fd);
    return 0;
  };
  ASSERT_TRUE(manager.addMonitorFd(mine.get(), callback));
  // Data and hang-up both pending at the loop's first wait.
  ASSERT_EQ(write(peer.get(), "x", 1), 1);
  peer.reset();
  manager.start();
  ASSERT_TRUE(WaitFor([&] { return closes == 1; }));
  std::this_thread::sleep_for(QUIET_PERIOD);
  EXPECT_EQ(reads, 0);
  EXPECT_EQ(closes, 1);
  EXPECT_FALSE(manager.writeEventNow(mine.get())) << "forgotten after delMonitorFd";
}

TEST_F(EpollManagerTest, StopEndsTheLoop) {
  std::atomic<int> reads{0};
  {
    EpollManager manager(10, 32, nullptr, "ipc-test", Processors({0}), -1);
    EpollCallback callback;
    callback.readCallback = [&](epoll_event event) {
      drain(event.data.fd);
      ++reads;
      return 0;
    };
    ASSERT_TRUE(manager.addMonitorFd(mine.get(), callback));
    manager.start();
    ASSERT_EQ(write(peer.get(), "1", 1), 1);
    ASSERT_TRUE(WaitFor([&] { return reads == 1; }));
    manager.stop();
    ASSERT_TRUE(WaitFor([&] { return manager.getWakeupCount() == 2; })) << "the control event";
    ASSERT_EQ(write(peer.get(), "2", 1), 1);
    std::this_thread::sleep_for(QUIET_PERIOD);
    EXPECT_EQ(reads, 1) << "no callbacks after stop";
  }  // joins the stopped worker
  EXPECT_EQ(reads, 1);
}

TEST(EpollManagerThreadTest, WorkerIsNamedBoundAndInitialised) {
  const int lastCpu = static_cast<int>(std::thread::hardware_concurrency()) - 1;
  for (const auto& [cpus, expectedCpu] : {std::pair<std::vector<int>, int>{{lastCpu}, lastCpu}, {{}, 0}}) {
    kelo_test::LogCapture log;
    std::string threadName;
    cpu_set_t affinity;
    CPU_ZERO(&affinity);
    std::atomic<bool> initialised{false};
    {
      EpollManager manager(
          10, 32,
          [&] {
            char nameBytes[16] = {};
            prctl(PR_GET_NAME, nameBytes);
            threadName = nameBytes;
            sched_getaffinity(0, sizeof(affinity), &affinity);
            initialised = true;
            return 0;
          },
          "ipc-named", Processors(cpus), -1);
      manager.start();
      ASSERT_TRUE(WaitFor([&] { return initialised.load(); }));
    }
    EXPECT_EQ(threadName, "ipc-named");
    EXPECT_EQ(CPU_COUNT(&affinity), 1);
    EXPECT_TRUE(CPU_ISSET(expectedCpu, &affinity));
    EXPECT_EQ(log.contains("[EpollManager] cpu affinity invalid!"), cpus.empty());
    EXPECT_TRUE(log.contains("[EpollManager][mainThread] initFunc failed"));
  }
}

}  // namespace
