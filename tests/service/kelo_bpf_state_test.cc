#include "service/kelo_bpf_state.h"

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"
#include "tests/support/state_file.h"

namespace Kelo {
namespace Bpf {
namespace {

using Row = std::vector<int64_t>;

constexpr char kHeaderColumns[] =
    "EventCount, kelo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, dmabuf_size_info, "
    "cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, PollCount, ";
constexpr char kZeroRow[] = "0, 0, 0, 0, 0, 0, 0, 0, 0, 0, \r\n";
constexpr uint64_t kStart = 1700000000;

// The clock of the windows under test: the cases set the seconds directly.
std::atomic<uint64_t> fakeNow{kStart};
uint64_t FakeClock() { return fakeNow.load(); }

std::string ReadFile(const std::string& path) {
  std::string text;
  EXPECT_TRUE(android::base::ReadFileToString(path, &text)) << path;
  return text;
}

std::string Header(int64_t curIndex, int64_t firstIndex) {
  return std::string(kHeaderColumns) + std::to_string(curIndex) + ", " + std::to_string(firstIndex) + " ";
}

// The exact layout is pinned by the byte-for-byte cases; this reads the
// header line and the numbers of each row (newest first).
struct Dump {
  std::string header;
  std::vector<Row> rows;
};
Dump ParseDump(const std::string& text) {
  Dump dump{text.substr(0, text.find("\r\n")), kelo_test::StateRows(text)};
  for (const Row& row : dump.rows) EXPECT_EQ(row.size(), 10u);
  return dump;
}

// The state file has a fixed path under /data, private to the sandbox.
class DataStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    kelo_test::MakeLogDirs();
    fakeNow = kStart;
    state_ = std::make_unique<KeloBpfDataState>(FakeClock);
  }

  std::string DumpText() {
    state_->DumpState();
    return ReadFile(KeloBpfDataState::KELOTASK_DUMP_TEMPLATE);
  }
  Dump DumpParsed() { return ParseDump(DumpText()); }

  std::unique_ptr<KeloBpfDataState> state_;
};

TEST_F(DataStateTest, FreshWindowDumpsHeaderAndOneZeroRowAndUnknownKindsChangeNothing) {
  const std::string fresh = std::string(kHeaderColumns) + "0, 0 \r\n" + kZeroRow;
  EXPECT_EQ(DumpText(), fresh);
  fakeNow += 3;
  for (int kind : {9, -1, INT_MIN, INT_MAX}) state_->RecordEvent(kind, 1);
  EXPECT_EQ(DumpText(), fresh);
  // Nor did they move the window: the next count does.
  state_->RecordEvent(STATE_COUNTER_POLL, 1);
  EXPECT_EQ(DumpParsed().header, Header(3, 0));
}

TEST_F(DataStateTest, GapOfSecondsGivesZeroRowsNewestFirst) {
  for (int i = 0; i < 3; ++i) state_->RecordEvent(STATE_COUNTER_KMEM_RSS_INFO, 1);
  state_->RecordEvent(STATE_COUNTER_SCHED_TASK_EXIT, 1);
  state_->RecordEvent(STATE_COUNTER_POLL, 1);
  state_->RecordEvent(STATE_COUNTER_POLL, 1);
  fakeNow += 5;
  state_->RecordEvent(STATE_COUNTER_KELO_TASK_INIT, 2);
  state_->RecordEvent(STATE_COUNTER_DMABUF_UPDATE, 1);
  state_->RecordEvent(STATE_COUNTER_POLL, 1);

  const std::string source = __FILE__;
  EXPECT_EQ(DumpText(), ReadFile(source.substr(0, source.rfind('/')) + "/testdata/bpfservice_state_gap.csv"));
}

TEST_F(DataStateTest, WindowKeepsTheLast1800Seconds) {
  for (int second = 0; second < 2000; ++second) {
    state_->RecordEvent(STATE_COUNTER_DMABUF_SIZE_INFO, second);
    state_->RecordEvent(STATE_COUNTER_POLL, 1);
    fakeNow += 1;
  }
  fakeNow -= 1;
  const Dump dump = DumpParsed();
  EXPECT_EQ(dump.header, Header(1999, 1999 - 1799));
  ASSERT_EQ(dump.rows.size(), 1800u);
  for (size_t i = 0; i < dump.rows.size(); ++i) {
    const int64_t second = 1999 - static_cast<int64_t>(i);
    EXPECT_EQ(dump.rows[i], (Row{second, 0, 0, 0, 0, second, 0, 0, 0, 1})) << "row " << i;
  }
  // What left the window is still in the totals.
  EXPECT_EQ(state_->Total(STATE_COUNTER_DMABUF_SIZE_INFO), 1999u * 2000u / 2);
  EXPECT_EQ(state_->Total(STATE_COUNTER_POLL), 2000u);
  EXPECT_EQ(state_->Total(STATE_COUNTER_KINDS), 0u);
  EXPECT_EQ(state_->TotalsLines(),
            "EventsSinceStart, kelo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, dmabuf_size_info, "
            "cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, polls, \r\n"
            "Counted, 0, 0, 0, 0, 1999000, 0, 0, 0, 2000, \r\n");
}

TEST_F(DataStateTest, SkippedSecondsAreClearedOfEarlierLaps) {
  // Fill every slot once, then skip four seconds: their slots held counts of
  // 1800 seconds earlier.
  for (int second = 0; second < 1800; ++second) {
    state_->RecordEvent(STATE_COUNTER_SCHED_TASK_CREATE, 1);
    fakeNow += 1;
  }
  fakeNow += 4;
  state_->RecordEvent(STATE_COUNTER_SCHED_TASK_CREATE, 1);
  Dump dump = DumpParsed();
  EXPECT_EQ(dump.header, Header(1804, 1804 - 1799));
  ASSERT_EQ(dump.rows.size(), 1800u);
  EXPECT_EQ(dump.rows[0], (Row{1, 0, 0, 1, 0, 0, 0, 0, 0, 0}));
  for (size_t i = 1; i <= 4; ++i) EXPECT_EQ(dump.rows[i], Row(10, 0)) << "row " << i;
  EXPECT_EQ(dump.rows[5][3], 1);

  // A jump far beyond the window, as when the time base is set after the
  // first count, clears every slot.
  fakeNow += 1700000000;
  state_->RecordEvent(STATE_COUNTER_POLL, 1);
  dump = DumpParsed();
  EXPECT_EQ(dump.header, Header(1700001804, 1700001804 - 1799));
  ASSERT_EQ(dump.rows.size(), 1800u);
  EXPECT_EQ(dump.rows[0], (Row{0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
  for (size_t i = 1; i < dump.rows.size(); ++i) EXPECT_EQ(dump.rows[i], Row(10, 0)) << "row " << i;
}

TEST_F(DataStateTest, ClockSteppingBackStaysInsideTheWindow) {
  state_->RecordEvent(STATE_COUNTER_POLL, 1);
  fakeNow -= 5;
  state_->RecordEvent(STATE_COUNTER_POLL, 1);
  // The newest second now lies before the oldest: no rows.
  EXPECT_EQ(DumpText(), Header(-5, 0) + "\r\n");
}

TEST_F(DataStateTest, FailedOpenIsLogged) {
  ASSERT_EQ(mkdir(KeloBpfDataState::KELOTASK_DUMP_PATH, 0775), 0);
  ASSERT_EQ(mkdir(KeloBpfDataState::KELOTASK_DUMP_TEMPLATE, 0775), 0);
  // Not empty, so that it cannot be replaced.
  ASSERT_TRUE(android::base::WriteStringToFile("x", std::string(KeloBpfDataState::KELOTASK_DUMP_TEMPLATE) + "/x"));
  kelo_test::LogCapture log;
  state_->DumpState();
  EXPECT_TRUE(log.contains("BpfUtils E"));
  EXPECT_TRUE(log.contains("[KeloBpfDataState][DumpState] open file failed!"));
}

// A tally hands its counts over at Flush, on its own after FLUSH_EVENTS
// events, and when it goes; each handing-over lands in the second it happens.
TEST_F(DataStateTest, TallyHandsItsCountsOverInBatches) {
  {
    EventTally tally(state_.get());
    tally.Add(STATE_COUNTER_KMEM_RSS_INFO);
    tally.Add(STATE_COUNTER_KMEM_RSS_INFO);
    for (int kind : {9, -1, INT_MIN}) tally.Add(kind);
    EXPECT_EQ(DumpParsed().rows[0], Row(10, 0)) << "nothing before the flush";
    tally.Flush();
    EXPECT_EQ(DumpParsed().rows[0], (Row{2, 0, 2, 0, 0, 0, 0, 0, 0, 0}));

    fakeNow += 1;
    for (int i = 1; i < EventTally::FLUSH_EVENTS; ++i) tally.Add(STATE_COUNTER_POLL);
    EXPECT_EQ(DumpParsed().header, Header(0, 0)) << "one short of a batch: nothing reached the new second";
    tally.Add(STATE_COUNTER_SCHED_TASK_CREATE);
    EXPECT_EQ(DumpParsed().rows[0], (Row{1, 0, 0, 1, 0, 0, 0, 0, 0, EventTally::FLUSH_EVENTS - 1}));

    fakeNow += 1;
    tally.Add(STATE_COUNTER_DMABUF_UPDATE);
  }
  const Dump dump = DumpParsed();
  EXPECT_EQ(dump.header, Header(2, 0));
  EXPECT_EQ(dump.rows[0], (Row{1, 0, 0, 0, 0, 0, 0, 0, 1, 0})) << "handed over when the tally went";
}

// Two producers count while a third thread dumps; the clock moves on meanwhile.
TEST_F(DataStateTest, ProducersAndADumperShareTheWindow) {
  constexpr int kCounts = 20000;
  std::atomic<bool> counting{true};
  auto producer = [this](int type, bool tick) {
    for (int i = 0; i < kCounts; ++i) {
      state_->RecordEvent(type, 1);
      if (tick && i % 1000 == 999) fakeNow += 1;
    }
  };
  std::thread dumper([&] {
    do {
      state_->DumpState();
    } while (counting.load());
  });
  std::thread first(producer, STATE_COUNTER_KMEM_RSS_INFO, true);
  std::thread second(producer, STATE_COUNTER_POLL, false);
  first.join();
  second.join();
  counting = false;
  dumper.join();

  int64_t events = 0, polls = 0;
  for (const Row& row : DumpParsed().rows) {
    EXPECT_EQ(row[0], row[2]);
    events += row[2];
    polls += row[9];
  }
  EXPECT_EQ(events, kCounts);
  EXPECT_EQ(polls, kCounts);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
