#include "utils/kelo_bpf_ipc_package_manager.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait.h"

namespace {

using kelo_test::ErrorLogCount;
using kelo_test::Frame;
using kelo_test::U32;

constexpr size_t BUFFER_SIZE = 32768;

class IpcPackageManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    kelo_test::ResetErrorLog();
    buffer.allocate(BUFFER_SIZE);
  }
  std::string contents() const { return std::string(buffer.buffer.data(), buffer.bufferDataCursor); }
  // Leaves `room` bytes of the buffer free and fills them with
  // fillNextIpcPackagesToBuffer; what the packages moved took, their number
  // in *moved.
  std::string fillNextInto(size_t room, size_t* moved) {
    const size_t start = BUFFER_SIZE - room;
    buffer.bufferDataCursor = start;
    *moved = queue.fillNextIpcPackagesToBuffer(&buffer);
    return std::string(buffer.buffer.data() + start, buffer.bufferDataCursor - start);
  }
  bool logged(const std::string& text) const { return kelo_test::ErrorLogText().find(text) != std::string::npos; }
  IpcPackageManager queue;
  BufferState buffer;
};

TEST_F(IpcPackageManagerTest, SerialisesEveryFormOntoTheWire) {
  KeloReqIpcPackage req{7, 51, 4, "args"};
  KeloRespIpcPackage resp{7, -1, 0, nullptr};
  queue.appendReqIpcPackage(&req);
  queue.appendRespIpcPackage(&resp);
  EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(3, "event", 5));
  EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(4, "event", 5)) << "type above 3";
  const std::string prebuilt = U32(2) + U32(1) + "p";
  queue.buildAndAppendIpcPackage(prebuilt.data(), prebuilt.size());
  EXPECT_EQ(queue.getIpcPackageCount(), 4u);

  EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
  EXPECT_EQ(contents(), Frame(0, U32(7) + U32(51) + U32(4) + "args") + Frame(1, U32(7) + U32(0xFFFFFFFF) + U32(0)) +
                            Frame(3, "event") + Frame(2, "p"));
  EXPECT_FALSE(queue.fillIpcPackageToBuffer(&buffer)) << "empty queue";
  EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
}

TEST_F(IpcPackageManagerTest, OverflowTrimsToTheLowWaterMarkOncePerBurst) {
  KeloReqIpcPackage req{1, 2, 0, nullptr};
  KeloRespIpcPackage resp{1, 0, 0, nullptr};
  // One append of each form; the error-log code tells the forms apart.
  const struct {
    int code;
    const char* logText;
    std::function<void(IpcPackageManager&)> append;
  } forms[] = {
      {3, "[BuildAndAppendIpc] ipc Package Queue too big: 10001",
       [](IpcPackageManager& q) { q.buildAndAppendIpcPackage("\x02\0\0\0\0\0\0\0", 8); }},
      {4, "[AppendSecondIpc] ipc Package Queue too big: 10001",
       [](IpcPackageManager& q) { q.buildAndAppendSecondIpcPackage(2, nullptr, 0); }},
      {5, "[AppendReqIpc] ipc Package Queue too big: 10001",
       [&](IpcPackageManager& q) { q.appendReqIpcPackage(&req); }},
      {6, "[AppendRespIpc] ipc Package Queue too big: 10001",
       [&](IpcPackageManager& q) { q.appendRespIpcPackage(&resp); }},
  };
  for (const auto& form : forms) {
    IpcPackageManager q;
    // The first package is marked so that it can be told from the others.
    q.buildAndAppendSecondIpcPackage(3, "first", 5);
    for (int i = 1; i <= 10000; ++i) form.append(q);
    EXPECT_EQ(q.getIpcPackageCount(), 10001u);
    EXPECT_EQ(ErrorLogCount(form.code), 0);

    kelo_test::LogCapture log;
    form.append(q);
    EXPECT_EQ(q.getIpcPackageCount(), 5001u) << form.code;
    EXPECT_EQ(ErrorLogCount(form.code), 1) << form.code;
    EXPECT_TRUE(logged("Error: B&A Ipc Package queue full 10000"));
    EXPECT_EQ(log.count(form.logText), 1) << form.code;
    form.append(q);
    EXPECT_EQ(q.getIpcPackageCount(), 5002u) << "no second trim below the mark";

    BufferState out;
    out.allocate(BUFFER_SIZE);
    ASSERT_TRUE(q.fillNextIpcPackageToBuffer(&out));
    EXPECT_EQ(std::string(out.buffer.data(), out.bufferDataCursor).find("first"), std::string::npos)
        << "the oldest packages were dropped";
  }
}

TEST_F(IpcPackageManagerTest, PackageOfTheWholeBufferFitsOneByteMoreIsRemoved) {
  const std::string fits(BUFFER_SIZE - 4 - 8, 'f');
  const std::string tooBig(BUFFER_SIZE - 4 - 8 + 1, 't');
  kelo_test::LogCapture log;
  queue.buildAndAppendSecondIpcPackage(2, tooBig.data(), tooBig.size());
  queue.buildAndAppendSecondIpcPackage(2, fits.data(), fits.size());
  EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
  EXPECT_EQ(ErrorLogCount(8), 1);
  EXPECT_TRUE(logged("Error: fillNextIpcPackageToBuffer ipc package damaged"));
  EXPECT_EQ(queue.getIpcPackageCount(), 1u);
  EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));
  EXPECT_EQ(buffer.bufferDataCursor, BUFFER_SIZE) << "exactly full";

  buffer.clear();
  queue.buildAndAppendSecondIpcPackage(2, "a", 1);
  queue.buildAndAppendSecondIpcPackage(2, tooBig.data(), tooBig.size());
  queue.buildAndAppendSecondIpcPackage(2, "b", 1);
  EXPECT_FALSE(queue.fillIpcPackageToBuffer(&buffer)) << "stopped by the oversized package";
  EXPECT_EQ(ErrorLogCount(7), 1);
  EXPECT_EQ(log.count("The ipc package is too big! remove this package"), 2);
  EXPECT_EQ(contents(), Frame(2, "a"));
  EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
  EXPECT_EQ(contents(), Frame(2, "a") + Frame(2, "b"));
}

// The batched drain must leave queue, buffer and error log exactly as the
// one-package-at-a-time loop it replaces would.
TEST_F(IpcPackageManagerTest, BatchedDrainStopsWhereTheOneByOneLoopStops) {
  const std::string tooBig(BUFFER_SIZE, 't');
  const std::string filler(BUFFER_SIZE - 4 - 8 - 20, 'f');
  struct Run {
    std::string contents;
    size_t left;
    int code8;
  };
  auto drain = [&](bool batched) {
    IpcPackageManager q;
    BufferState out;
    out.allocate(BUFFER_SIZE);
    kelo_test::ResetErrorLog();
    q.buildAndAppendSecondIpcPackage(2, "a", 1);
    q.buildAndAppendSecondIpcPackage(2, tooBig.data(), tooBig.size());
    q.buildAndAppendSecondIpcPackage(2, filler.data(), filler.size());
    q.buildAndAppendSecondIpcPackage(2, "0123456789", 10);
    std::vector<Run> runs;
    for (int call = 0; call < 3; ++call) {
      if (batched) {
        q.fillNextIpcPackagesToBuffer(&out);
      } else {
        while (q.fillNextIpcPackageToBuffer(&out)) {
        }
      }
      runs.push_back({std::string(out.buffer.data(), out.bufferDataCursor), q.getIpcPackageCount(), ErrorLogCount(8)});
    }
    return runs;
  };
  const std::vector<Run> loop = drain(false);
  const std::vector<Run> batched = drain(true);
  ASSERT_EQ(loop.size(), batched.size());
  for (size_t i = 0; i < loop.size(); ++i) {
    EXPECT_EQ(batched[i].contents, loop[i].contents) << "call " << i;
    EXPECT_EQ(batched[i].left, loop[i].left) << "call " << i;
    EXPECT_EQ(batched[i].code8, loop[i].code8) << "call " << i;
  }
  // First call: "a", then the oversized package is dropped and ends the run;
  // second: the filler; third: no room for the last package, which stays.
  EXPECT_EQ(batched[0].contents, Frame(2, "a"));
  EXPECT_EQ(batched[0].code8, 1);
  EXPECT_EQ(batched[1].contents, Frame(2, "a") + Frame(2, filler));
  EXPECT_EQ(batched[2].left, 1u);
}

// Events framed into runs reach the wire as the same frames, in queue order
// with the packages around them, counted one by one, split where the buffer
// runs out of room and shown one by one to the listener of a trim.
TEST_F(IpcPackageManagerTest, RunsOfEventsKeepEveryPackagesPlaceAndCount) {
  const auto event = [](int n) { return "event-" + std::to_string(n); };
  KeloReqIpcPackage req{9, 50, 0, nullptr};
  for (int n = 0; n < 3; ++n) ASSERT_TRUE(queue.appendEventToRun(3, event(n).data(), event(n).size()));
  queue.appendReqIpcPackage(&req);
  for (int n = 3; n < 5; ++n) queue.appendEventToRun(3, event(n).data(), event(n).size());
  EXPECT_TRUE(queue.buildAndPushFrontSecondIpcPackage(3, "front", 5));
  EXPECT_FALSE(queue.appendEventToRun(4, "x", 1)) << "type above 3";
  EXPECT_EQ(queue.getIpcPackageCount(), 7u);

  // Room for the front package and one and a half events: the run gives
  // its first whole frame and keeps the rest.
  const size_t eventFrame = Frame(3, event(0)).size();
  size_t moved = 0;
  EXPECT_EQ(fillNextInto(Frame(3, "front").size() + eventFrame + eventFrame / 2, &moved),
            Frame(3, "front") + Frame(3, event(0)));
  EXPECT_EQ(moved, 2u);
  EXPECT_EQ(queue.getIpcPackageCount(), 5u);
  buffer.clear();
  EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
  EXPECT_EQ(contents(), Frame(3, event(1)) + Frame(3, event(2)) + Frame(0, U32(9) + U32(50) + U32(0)) +
                            Frame(3, event(3)) + Frame(3, event(4)));
  EXPECT_EQ(queue.getIpcPackageCount(), 0u);

  // Many runs' worth, drained through a full buffer several times over.
  std::string expected;
  for (int n = 0; n < 5000; ++n) {
    queue.appendEventToRun(3, event(n).data(), event(n).size());
    expected += Frame(3, event(n));
  }
  std::string wire;
  while (queue.getIpcPackageCount() != 0) {
    buffer.clear();
    ASSERT_GT(queue.fillNextIpcPackagesToBuffer(&buffer), 0u);
    wire += contents();
  }
  EXPECT_EQ(wire, expected);

  // A trim takes whole runs from the front; the listener sees each package.
  std::vector<std::string> removed;
  IpcPackageManager trimmed;
  trimmed.setTrimListener([&removed](const std::deque<KeloIpcPackage>& packages) {
    for (const KeloIpcPackage& package : packages) removed.emplace_back(package.data.data(), package.size);
  });
  for (int n = 0; n <= static_cast<int>(IPC_QUEUE_HIGH_WATER) + 1; ++n) {
    trimmed.appendEventToRun(3, event(n).data(), event(n).size());
  }
  ASSERT_GE(removed.size(), IPC_QUEUE_HIGH_WATER - IPC_QUEUE_LOW_WATER);
  EXPECT_EQ(trimmed.getIpcPackageCount() + removed.size(), IPC_QUEUE_HIGH_WATER + 2);
  for (size_t n = 0; n < removed.size(); ++n) {
    ASSERT_EQ(removed[n], Frame(3, event(static_cast<int>(n))).substr(4)) << n;
  }
  EXPECT_EQ(ErrorLogCount(4), 1);
  buffer.clear();
  trimmed.fillNextIpcPackagesToBuffer(&buffer);
  const std::string oldestKept = Frame(3, event(static_cast<int>(removed.size())));
  EXPECT_EQ(contents().substr(0, oldestKept.size()), oldestKept);
}

// Queues that take slices of one frame block send exactly their frames, in
// place among their other packages, also after the publisher let go of the
// block and when a slice leaves in parts; a trim shows each package.
TEST_F(IpcPackageManagerTest, SlicesOfASharedBlockKeepTheirFramesAndCount) {
  const auto event = [](int n) { return "shared-" + std::to_string(n); };
  std::string frames;
  std::vector<size_t> starts;
  for (int n = 0; n < 8; ++n) {
    starts.push_back(frames.size());
    frames += Frame(3, event(n));
  }
  starts.push_back(frames.size());
  const auto slice = [&starts](int first, int end) {
    return FrameSlice{starts[first], starts[end] - starts[first], static_cast<uint32_t>(end - first)};
  };
  auto block = std::make_shared<const std::string>(frames);
  IpcPackageManager copying;
  queue.buildAndAppendSecondIpcPackage(3, "before", 6);
  queue.appendSharedFrames(block, {slice(1, 4), slice(5, 8)}, false);
  copying.appendSharedFrames(block, {slice(0, 2)}, true);
  copying.appendEventToRun(3, "after", 5);
  block.reset();
  EXPECT_EQ(queue.getIpcPackageCount(), 7u);
  EXPECT_EQ(copying.getIpcPackageCount(), 3u);

  // Room for the package and one and a half frames of the first slice.
  const size_t frame = Frame(3, event(0)).size();
  size_t moved = 0;
  EXPECT_EQ(fillNextInto(Frame(3, "before").size() + frame + frame / 2, &moved),
            Frame(3, "before") + Frame(3, event(1)));
  EXPECT_EQ(moved, 2u);
  buffer.clear();
  EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
  EXPECT_EQ(contents(), frames.substr(starts[2], starts[4] - starts[2]) + frames.substr(starts[5]));
  EXPECT_EQ(queue.getIpcPackageCount(), 0u);
  buffer.clear();
  EXPECT_TRUE(copying.fillIpcPackageToBuffer(&buffer));
  EXPECT_EQ(contents(), frames.substr(0, starts[2]) + Frame(3, "after"));

  std::vector<std::string> removed;
  IpcPackageManager trimmed;
  trimmed.setTrimListener([&removed](const std::deque<KeloIpcPackage>& packages) {
    for (const KeloIpcPackage& package : packages) removed.emplace_back(package.data.data(), package.size);
  });
  for (int n = 0; n <= static_cast<int>(IPC_QUEUE_HIGH_WATER); n += 2) {
    const std::string pair = Frame(3, event(n)) + Frame(3, event(n + 1));
    const uint32_t second = static_cast<uint32_t>(Frame(3, event(n)).size());
    trimmed.appendSharedFrames(std::make_shared<const std::string>(pair), {FrameSlice{0, second, 1}}, false);
    trimmed.appendSharedFrames(std::make_shared<const std::string>(pair), {FrameSlice{second, pair.size() - second, 1}},
                               false);
  }
  ASSERT_GE(removed.size(), IPC_QUEUE_HIGH_WATER - IPC_QUEUE_LOW_WATER);
  for (size_t n = 0; n < removed.size(); ++n) {
    ASSERT_EQ(removed[n], Frame(3, event(static_cast<int>(n))).substr(4)) << n;
  }
}

TEST_F(IpcPackageManagerTest, PackageWaitsForRoomAndWaitersForPackages) {
  queue.waitEventReady(0);
  std::thread producer([this] { queue.buildAndAppendIpcPackage("0123456789", 10); });
  queue.waitEventReady(60 * 1000);
  producer.join();
  buffer.bufferDataCursor = BUFFER_SIZE - 10;  // the package needs 14 bytes
  EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
  EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer)) << "not a failure, only no room yet";
  EXPECT_EQ(queue.getIpcPackageCount(), 1u);
  buffer.bufferDataCursor = BUFFER_SIZE - 14;
  EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));
  EXPECT_EQ(ErrorLogCount(7) + ErrorLogCount(8), 0);
}

// A fill limit (one socket message) bounds how far fills bring the data,
// in both fill forms; a frame beyond the limit still goes, alone, into an
// empty buffer, from a run as from a package.
TEST_F(IpcPackageManagerTest, FillsStopAtTheFillLimitAndABiggerFrameGoesAlone) {
  buffer.fillLimit = 100;
  const std::string small(20, 's');
  const std::string big(150, 'b');
  for (int n = 0; n < 4; ++n) queue.appendEventToRun(3, small.data(), small.size());
  queue.buildAndAppendSecondIpcPackage(2, big.data(), big.size());
  queue.appendEventToRun(3, big.data(), big.size());
  const std::string smallFrame = Frame(3, small);
  ASSERT_EQ(smallFrame.size(), 32u);

  const auto drain = [this](bool bulk) {
    buffer.clear();
    if (bulk) {
      EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer));
    } else {
      queue.fillNextIpcPackagesToBuffer(&buffer);
    }
    return contents();
  };
  EXPECT_EQ(drain(false), smallFrame + smallFrame + smallFrame);
  EXPECT_EQ(drain(true), smallFrame) << "the package does not go behind data beyond the limit";
  EXPECT_EQ(drain(true), Frame(2, big));
  EXPECT_EQ(drain(false), Frame(3, big));
  EXPECT_EQ(queue.getIpcPackageCount(), 0u);
  EXPECT_EQ(ErrorLogCount(7) + ErrorLogCount(8), 0);
}

// A publisher waiting for the sender to bring a queue down is woken when the
// sender gets there, not when its time runs out.
TEST_F(IpcPackageManagerTest, ADepthWaiterWakesWhenTheSenderGetsThere) {
  for (int n = 0; n < 10; ++n) queue.buildAndAppendIpcPackage("0123456789", 10);
  EXPECT_FALSE(queue.waitDepthAtMost(5, std::chrono::microseconds(1000)));
  std::atomic<bool> reached{false};
  const auto start = std::chrono::steady_clock::now();
  std::thread publisher([this, &reached] {
    pthread_setname_np(pthread_self(), "DepthWaiter");
    reached = queue.waitDepthAtMost(5, std::chrono::seconds(60));
  });
  ASSERT_TRUE(kelo_test::WaitUntil([] { return kelo_test::ThreadSleepsIn("DepthWaiter", "futex"); }));
  buffer.bufferDataCursor = BUFFER_SIZE - 5 * 14;  // room for five packages
  EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 5u);
  publisher.join();
  EXPECT_TRUE(reached);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

TEST_F(IpcPackageManagerTest, WritingIntoACorruptBufferIsFatal) {
  GTEST_FLAG_SET(death_test_style, kelo_test::ThreadsafeDeathTestStyle());
  queue.buildAndAppendSecondIpcPackage(2, "x", 1);
  buffer.bufferDataCursor = BUFFER_SIZE + 1;
  EXPECT_DEATH(queue.fillNextIpcPackageToBuffer(&buffer), "Check failed: bufferState->write\\(ipcPackage.size\\)");
  EXPECT_DEATH(queue.fillIpcPackageToBuffer(&buffer), "Check failed: bufferState->write\\(ipcPackage.size\\)");
}

}  // namespace
