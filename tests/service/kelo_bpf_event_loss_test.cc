// The loss ledger fed by real queue trims: what a trim drops is counted per
// connection and told per type and site at most once a second, a report that
// is itself trimmed is told again, and the state file's loss lines.
#include "service/kelo_bpf_event_loss.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/ipc_client.h"
#include "tests/support/sandbox.h"
#include "utils/kelo_bpf_ipc_package_manager.h"

namespace Kelo {
namespace Bpf {
namespace {

using namespace std::chrono_literals;
using kelo_test::Bytes;
using kelo_test::RawRecord;
using Clock = LossLedger::Clock;

constexpr int FD = 7;
constexpr uint64_t TRIM_TIME_NS = 999;

// A connection's queue whose trims go to the ledger, as the service wires it.
class TrimmedQueue {
 public:
  TrimmedQueue(LossLedger* ledger, int fd) {
    queue.setTrimListener(
        [ledger, fd](const std::deque<KeloIpcPackage>& removed) { ledger->QueueTrimmed(fd, removed, TRIM_TIME_NS); });
  }
  void Event(const std::string& record) {
    queue.buildAndAppendSecondIpcPackage(3, record.data(), static_cast<uint32_t>(record.size()));
  }
  void Report(const kelo_events_lost_client_event& report) {
    queue.buildAndPushFrontSecondIpcPackage(3, reinterpret_cast<const char*>(&report), sizeof(report));
  }
  IpcPackageManager queue;
};

class LossLedgerTest : public ::testing::Test {
 protected:
  // Trims write to the error log under /data.
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    kelo_test::ResetErrorLog();
  }

  LossLedger ledger;
  const Clock::time_point start = Clock::now();
};

void ExpectReport(const LossLedger::Report& report, int fd, int32_t type, uint32_t site, uint64_t count,
                  uint64_t firstTs, uint64_t lastTs) {
  // The record is packed: its fields are copied out, never referenced.
  kelo_events_lost_client_event record;
  memcpy(&record, &report.record, sizeof(record));
  const uint64_t fields[] = {
      record.type, static_cast<uint64_t>(record.lost_type), record.site, record.count, record.first_ts, record.last_ts};
  const uint64_t expected[] = {
      KELO_CLIENT_EVENT_EVENTS_LOST, static_cast<uint64_t>(type), site, count, firstTs, lastTs};
  EXPECT_EQ(report.fd, fd);
  for (size_t i = 0; i < std::size(fields); ++i) EXPECT_EQ(fields[i], expected[i]) << "field " << i;
}

TEST_F(LossLedgerTest, TrimmedEventsAreToldPerTypeAtMostOnceASecondOnlyToSubscribers) {
  TrimmedQueue subscribed(&ledger, FD);
  TrimmedQueue silent(&ledger, FD + 1);
  // A response, then raw records (their own times) and derived ones (no
  // time) in turn: the last append finds 10001 queued and trims the oldest
  // 5001.
  const auto event = [](uint64_t i) {
    return i % 2 == 0 ? RawRecord(KELO_EVENT_FD_UPDATE, 100 + i) : Bytes(int32_t{50001}) + "derived";
  };
  KeloRespIpcPackage response = {1, 0, 0, nullptr};
  for (TrimmedQueue* q : {&subscribed, &silent}) {
    q->queue.appendRespIpcPackage(&response);
    for (uint64_t i = 0; i <= IPC_QUEUE_HIGH_WATER; ++i) q->Event(event(i));
  }
  EXPECT_EQ(ledger.TrimmedTotal(), 2 * 5001u);

  Clock::time_point next;
  const std::vector<int> subscribers = {FD};
  std::vector<LossLedger::Report> due = ledger.TakeDue(start, subscribers, &next);
  ASSERT_EQ(due.size(), 2u) << "one per type, none for the connection that did not subscribe";
  ExpectReport(due[0], FD, KELO_EVENT_FD_UPDATE, KELO_LOSS_SITE_QUEUE, 2500, 100, 100 + 4998);
  ExpectReport(due[1], FD, 50001, KELO_LOSS_SITE_QUEUE, 2500, TRIM_TIME_NS, TRIM_TIME_NS);
  EXPECT_EQ(next, start + 1s);

  // A second trim within the second waits for it: the rest of the first
  // burst.
  for (uint64_t i = 0; i < 5001; ++i) subscribed.Event(RawRecord(KELO_EVENT_FD_UPDATE, 20000 + i));
  EXPECT_TRUE(ledger.TakeDue(start + 999ms, subscribers, &next).empty());
  EXPECT_EQ(next, start + 1s);
  due = ledger.TakeDue(start + 1s, subscribers, &next);
  ASSERT_EQ(due.size(), 2u);
  ExpectReport(due[0], FD, KELO_EVENT_FD_UPDATE, KELO_LOSS_SITE_QUEUE, 2501, 100 + 5000, 100 + 10000);
  ExpectReport(due[1], FD, 50001, KELO_LOSS_SITE_QUEUE, 2500, TRIM_TIME_NS, TRIM_TIME_NS);
  EXPECT_TRUE(ledger.TakeDue(start + 3s, subscribers, &next).empty());
  EXPECT_EQ(next, Clock::time_point::max());
  // The losses of the connection that did not subscribe were dropped, not
  // kept for later.
  EXPECT_TRUE(ledger.TakeDue(start + 5s, {FD, FD + 1}, &next).empty());
}

TEST_F(LossLedgerTest, AReportTrimmedBeforeItWasSentIsToldAgainWithWhatCameSince) {
  TrimmedQueue q(&ledger, FD);
  for (uint64_t i = 0; i <= IPC_QUEUE_HIGH_WATER; ++i) q.Event(RawRecord(KELO_EVENT_TASK_EXIT, 10 + i));
  q.Event(RawRecord(KELO_EVENT_TASK_EXIT, 1));
  Clock::time_point next;
  std::vector<LossLedger::Report> due = ledger.TakeDue(start, {FD}, &next);
  ASSERT_EQ(due.size(), 1u);
  ExpectReport(due[0], FD, KELO_EVENT_TASK_EXIT, KELO_LOSS_SITE_QUEUE, 5001, 10, 10 + 5000);

  // The report waits at the front of the queue; the client still does not
  // read, and the next trim drops it with 5000 records more.
  q.Report(due[0].record);
  for (uint64_t i = 0; i < IPC_QUEUE_HIGH_WATER - 5000; ++i) q.Event(RawRecord(KELO_EVENT_TASK_EXIT, 50000 + i));
  EXPECT_EQ(ledger.TrimmedTotal(), 5001u + 5000u) << "the report is no loss";
  due = ledger.TakeDue(start + 1s, {FD}, &next);
  ASSERT_EQ(due.size(), 1u);
  ExpectReport(due[0], FD, KELO_EVENT_TASK_EXIT, KELO_LOSS_SITE_QUEUE, 5001 + 5000, 10, 10 + 10000);
}

TEST_F(LossLedgerTest, KernelLossesReachTheirConnectionsAndTheStateLines) {
  TrimmedQueue q(&ledger, FD);
  for (uint64_t i = 0; i <= IPC_QUEUE_HIGH_WATER + 1; ++i) q.Event(RawRecord(KELO_EVENT_RSS_STAT, i));
  ledger.KernelLost(0, KELO_EVENT_TASK_CREATE, {5, 100, 200}, {3, FD});
  ledger.KernelLost(0, KELO_EVENT_TASK_CREATE, {2, 200, 300}, {3});
  ledger.KernelLost(1, KELO_EVENT_DMABUF_UPDATE, {4, 150, 250}, {});
  EXPECT_EQ(ledger.KernelLostTotal(0, KELO_EVENT_TASK_CREATE), 7u);
  EXPECT_EQ(ledger.KernelLostTotal(1, KELO_EVENT_DMABUF_UPDATE), 4u);

  Clock::time_point next;
  const std::vector<LossLedger::Report> due = ledger.TakeDue(start, {3, FD}, &next);
  ASSERT_EQ(due.size(), 3u);
  ExpectReport(due[0], 3, KELO_EVENT_TASK_CREATE, KELO_LOSS_SITE_KERNEL, 7, 100, 300);
  ExpectReport(due[1], FD, KELO_EVENT_RSS_STAT, KELO_LOSS_SITE_QUEUE, 5001, 0, 5000);
  ExpectReport(due[2], FD, KELO_EVENT_TASK_CREATE, KELO_LOSS_SITE_KERNEL, 5, 100, 200);

  ledger.ConnectionClosed(FD);
  EXPECT_EQ(ledger.StateLines(),
            "KernelLost, kelo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, dmabuf_size_info, "
            "cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, \r\n"
            "KeloBpfDefineset, 0, 0, 7, 0, 0, 0, 0, 0, \r\n"
            "KeloBpfGplDefineset, 0, 0, 0, 0, 0, 0, 0, 4, \r\n"
            "QueueTrimmed, 5001, \r\n"
            "LossReports, 3, \r\n");
  TrimmedQueue reused(&ledger, FD);
  for (uint64_t i = 0; i <= IPC_QUEUE_HIGH_WATER + 1; ++i) reused.Event(RawRecord(KELO_EVENT_RSS_STAT, i));
  EXPECT_NE(ledger.StateLines().find("QueueTrimmed, 10002, \r\nQueueTrimmedConnection, 7, 5001, \r\n"),
            std::string::npos);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
