// Nothing lost silently, through the running service and real sockets: a
// client that reads too slowly loses only its own events and hears of each
// of them exactly once, and records that a kernel program could not write
// into an overrun ring are counted by the kernel, read by the service and
// told to subscribers, the three agreeing exactly. And the pacing rule: a
// publisher waits for a crowded connection's sender only when that
// connection asked to be paced, and never while the ring buffer it drains is
// more than half full.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "service/kelo_bpf_event_pacing.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/live_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"
#include "tests/support/state_file.h"
#include "tests/support/wait.h"

namespace Kelo {
namespace Bpf {
namespace {

using namespace std::chrono_literals;
using kelo_test::Bytes;
using kelo_test::RawRecord;

struct Client : kelo_test::IpcClient {
  Client() : IpcClient(KELO_BPF_CLIENT_SOCKET_NAME) {}
};

// What one client received of one event type: the events, and the losses it
// was told of by 50005 records.
struct Tally {
  std::vector<uint64_t> times;  // header time of each event received
  std::vector<kelo_events_lost_client_event> reports;
  uint64_t reported = 0;
  uint64_t others = 0;  // packages that are neither

  // Reads until received and reported-lost events add up to `expected`, or
  // nothing came for `quiet`.
  void ReadUntil(Client* client, int32_t type, uint64_t expected, std::chrono::milliseconds quiet = 10s) {
    while (times.size() + reported < expected) {
      std::optional<kelo_test::Package> package = client->Next(quiet);
      if (!package) return;
      int32_t recordType = -1;
      if (package->type == IPC_PACKAGE_TYPE_EVENT && package->payload.size() >= sizeof(recordType)) {
        memcpy(&recordType, package->payload.data(), sizeof(recordType));
      }
      if (recordType == KELO_CLIENT_EVENT_EVENTS_LOST) {
        ASSERT_EQ(package->payload.size(), sizeof(kelo_events_lost_client_event));
        reports.emplace_back();
        memcpy(&reports.back(), package->payload.data(), sizeof(reports.back()));
        EXPECT_EQ(reports.back().lost_type, type);
        reported += reports.back().count;
      } else if (recordType == type && package->payload.size() >= sizeof(kelo_event_header)) {
        kelo_event_header header;
        memcpy(&header, package->payload.data(), sizeof(header));
        times.push_back(header.ts);
      } else {
        ++others;
      }
    }
  }
};

void Publish(const std::string& record) {
  std::string copy = record;
  EventManager::GetInstance()->AppendEvent(copy.data(), static_cast<unsigned int>(copy.size()));
}

// The service with its pumps on fixture rings, so that signal 50 is served.
class ServiceLossTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    KELO_SKIP_WITHOUT_BPF();
    kelo_test::ResetErrorLog();
    ASSERT_TRUE(rings);
  }
  void StartService() { ASSERT_TRUE(kelo_test::StartServiceOnRings(*rings)); }

  std::unique_ptr<kelo_test::ServiceRingBuffers> rings = kelo_test::ServiceRingBuffers::Create();
};

TEST_F(ServiceLossTest, ASlowClientLosesOnlyItsOwnEventsAndHearsOfEachExactlyOnce) {
  ASSERT_NO_FATAL_FAILURE(StartService());
  Client fast, slow;
  ASSERT_TRUE(fast.Connect() && slow.Connect());
  ASSERT_EQ(fast.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_EVENT_FD_UPDATE), 0);
  ASSERT_EQ(slow.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_EVENT_FD_UPDATE), 0);
  ASSERT_EQ(slow.Ask(2, REQ_ADD_OBSERVER_EVENT, KELO_CLIENT_EVENT_EVENTS_LOST), 0);
  const uint64_t waitsBefore = EventManager::GetInstance()->PacingWaits();

  // Published in batches that the fast client takes whole before the next
  // one; the slow client reads nothing meanwhile, so its queue is trimmed
  // again and again while reports wait in it.
  constexpr uint64_t kBatch = 2000;
  constexpr uint64_t kEvents = 5 * IPC_QUEUE_HIGH_WATER;
  Tally fastTally;
  for (uint64_t sent = 0; sent < kEvents; sent += kBatch) {
    for (uint64_t i = sent; i < sent + kBatch; ++i) Publish(RawRecord(KELO_EVENT_FD_UPDATE, i + 1));
    ASSERT_NO_FATAL_FAILURE(fastTally.ReadUntil(&fast, KELO_EVENT_FD_UPDATE, sent + kBatch));
    ASSERT_EQ(fastTally.times.size(), sent + kBatch) << "the fast client lost events";
  }
  EXPECT_TRUE(fastTally.reports.empty());
  EXPECT_EQ(EventManager::GetInstance()->PacingWaits(), waitsBefore) << "nothing waits for an unpaced client";

  Tally slowTally;
  ASSERT_NO_FATAL_FAILURE(slowTally.ReadUntil(&slow, KELO_EVENT_FD_UPDATE, kEvents));
  EXPECT_EQ(slowTally.times.size() + slowTally.reported, kEvents);
  EXPECT_EQ(slowTally.others, 0u);
  EXPECT_FALSE(slow.Next(1500ms)) << "a loss told twice";
  // What arrived is in order and the newest are kept; the first report
  // starts at the first event missing, and no report covers the events
  // that arrived before it.
  ASSERT_FALSE(slowTally.reports.empty());
  for (const kelo_events_lost_client_event& report : slowTally.reports) {
    EXPECT_EQ(report.site, uint32_t{KELO_LOSS_SITE_QUEUE});
    EXPECT_LE(report.first_ts, report.last_ts);
  }
  ASSERT_TRUE(std::is_sorted(slowTally.times.begin(), slowTally.times.end()));
  EXPECT_EQ(slowTally.times.back(), kEvents) << "the newest are kept";
  uint64_t firstMissing = 1;
  while (firstMissing <= slowTally.times.size() && slowTally.times[firstMissing - 1] == firstMissing) ++firstMissing;
  EXPECT_EQ(slowTally.reports.front().first_ts, firstMissing);

  const std::optional<std::string> state = kelo_test::RequestStateText();
  ASSERT_TRUE(state);
  EXPECT_EQ(kelo_test::StateLine(*state, "QueueTrimmed"),
            std::vector<int64_t>{static_cast<int64_t>(slowTally.reported)});
  EXPECT_EQ(kelo_test::StateLine(*state, "PacingWaits"), std::vector<int64_t>{static_cast<int64_t>(waitsBefore)});
}

// The loss-test program set pinned where the normal pump looks for its ring
// buffer, status array and lost counts, with a ring of a few dozen records.
class OverrunRing {
 public:
  static constexpr uint32_t kRingBytes = 4096;

  void Load() {
    object_.reset(bpf_object__open_file(KELO_BPF_LOSS_TEST_OBJ, nullptr));
    ASSERT_EQ(libbpf_get_error(object_.get()), 0);
    bpf_map* ring = bpf_object__find_map_by_name(object_.get(), "ringbuf_map");
    ASSERT_NE(ring, nullptr);
    ASSERT_EQ(bpf_map__set_max_entries(ring, kRingBytes), 0);
    ASSERT_EQ(bpf_object__load(object_.get()), 0);
    ASSERT_TRUE(kelo_test::MakeDirs(KELO_BPF_FS_DIR));
    for (const char* name : {"ringbuf_map", "ringbuf_status", "ringbuf_lost"}) {
      const std::string path = std::string(KELO_BPF_FS_DIR) + "/map_" KELO_BPF_DEFINESET "_" + name;
      ASSERT_EQ(bpf_map__pin(bpf_object__find_map_by_name(object_.get(), name), path.c_str()), 0) << path;
    }
  }

  // Runs the emitting program `runs` times for records of `type`; how many
  // of them the ring took.
  uint64_t Emit(uint32_t type, uint32_t runs) {
    const uint64_t before = Written();
    // The emitter's frame: type, flags (0), stamp; at least an Ethernet
    // header's worth of bytes.
    std::vector<char> frame(std::max<size_t>(ETH_HLEN, 16), 0);
    memcpy(frame.data(), &type, sizeof(type));
    bpf_test_run_opts opts{};
    opts.sz = sizeof(opts);
    opts.data_in = frame.data();
    opts.data_size_in = static_cast<uint32_t>(frame.size());
    opts.repeat = runs;
    const int prog = bpf_program__fd(bpf_object__find_program_by_name(object_.get(), "kelo_loss_emit"));
    EXPECT_EQ(bpf_prog_test_run_opts(prog, &opts), 0) << std::strerror(errno);
    return Written() - before;
  }

  // The kernel's count of lost records of `type`, over all processors.
  uint64_t Lost(uint32_t type) { return kelo_test::LostCounts::Of(MapFd("ringbuf_lost"))->Total(type); }
  uint64_t Flags() { return kelo_test::StatusArray::Of(MapFd("ringbuf_status"))->Get(KELO_RB_STATUS_FLAGS); }

 private:
  int MapFd(const char* name) { return bpf_map__fd(bpf_object__find_map_by_name(object_.get(), name)); }
  // The program's count of records written, its only global.
  uint64_t Written() {
    uint32_t key = 0;
    uint64_t written = 0;
    EXPECT_EQ(bpf_map_lookup_elem(MapFd(".bss"), &key, &written), 0);
    return written;
  }

  struct Closer {
    void operator()(bpf_object* object) const { bpf_object__close(object); }
  };
  std::unique_ptr<bpf_object, Closer> object_;
};

TEST_F(ServiceLossTest, KernelCountsAreToldToSubscribersOfTheTypeOrItsDerivedEventsFromTheServicesStartOn) {
  // Lost before the service started: not the service's to tell.
  ASSERT_TRUE(rings->normalLost->Add(KELO_EVENT_TASK_EXIT, 100));
  ASSERT_NO_FATAL_FAILURE(StartService());
  Client derived, raw, unreported;
  ASSERT_TRUE(derived.Connect() && raw.Connect() && unreported.Connect());
  ASSERT_EQ(derived.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_CLIENT_EVENT_PROCESS_CREATE), 0);
  ASSERT_EQ(derived.Ask(2, REQ_ADD_OBSERVER_EVENT, KELO_CLIENT_EVENT_EVENTS_LOST), 0);
  ASSERT_EQ(raw.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_EVENT_FD_UPDATE), 0);
  ASSERT_EQ(raw.Ask(2, REQ_ADD_OBSERVER_EVENT, KELO_CLIENT_EVENT_EVENTS_LOST), 0);
  ASSERT_EQ(unreported.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_EVENT_TASK_CREATE), 0);

  const int cpus = libbpf_num_possible_cpus();
  ASSERT_TRUE(rings->normalLost->Add(KELO_EVENT_TASK_CREATE, 5, 0));
  ASSERT_TRUE(rings->normalLost->Add(KELO_EVENT_TASK_CREATE, 3, cpus - 1));
  ASSERT_TRUE(rings->gplLost->Add(KELO_EVENT_FD_UPDATE, 4));
  // A record wakes the pump, which has the counts read within a second.
  const std::string wake = RawRecord(KELO_EVENT_CGROUP_ATTACH, 1);
  ASSERT_TRUE(rings->normal->Inject(wake.data(), wake.size()));

  Tally derivedTally, rawTally;
  ASSERT_NO_FATAL_FAILURE(derivedTally.ReadUntil(&derived, KELO_EVENT_TASK_CREATE, 8));
  ASSERT_NO_FATAL_FAILURE(rawTally.ReadUntil(&raw, KELO_EVENT_FD_UPDATE, 4));
  for (Tally* tally : {&derivedTally, &rawTally}) {
    ASSERT_EQ(tally->reports.size(), 1u);
    EXPECT_EQ(tally->reports[0].site, uint32_t{KELO_LOSS_SITE_KERNEL});
    EXPECT_LT(tally->reports[0].first_ts, tally->reports[0].last_ts);
  }
  EXPECT_EQ(derivedTally.reported, 8u);
  EXPECT_EQ(rawTally.reported, 4u);
  EXPECT_FALSE(unreported.Next(1500ms)) << "reports only for subscribers of 50005";
  EXPECT_FALSE(derived.Next(0ms) || raw.Next(0ms));

  const std::optional<std::string> state = kelo_test::RequestStateText();
  ASSERT_TRUE(state);
  EXPECT_EQ(kelo_test::StateLine(*state, KELO_BPF_DEFINESET), (std::vector<int64_t>{0, 0, 8, 0, 0, 0, 0, 0}));
  EXPECT_EQ(kelo_test::StateLine(*state, KELO_BPF_GPL_DEFINESET), (std::vector<int64_t>{0, 0, 0, 0, 0, 0, 4, 0}));
}

TEST(ServiceOverrunTest, KernelLossesOfAnOverrunRingAgreeInCountersStateFileAndReports) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  KELO_SKIP_WITHOUT_BPF();
  OverrunRing ring;
  ASSERT_NO_FATAL_FAILURE(ring.Load());
  // Started as the daemon starts it, on this kernel side instead of the
  // real sets.
  kelo_test::MakeLogDirs();
  signal(SIGPIPE, SIG_IGN);
  kelo_test::SetServiceReady(true);
  ASSERT_TRUE(BpfServiceMain());
  ASSERT_TRUE(kelo_test::WaitUntil(kelo_test::ServiceListening));
  Client client;
  ASSERT_TRUE(client.Connect());
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_EVENT_FD_UPDATE), 0);
  ASSERT_EQ(client.Ask(2, REQ_ADD_OBSERVER_EVENT, KELO_CLIENT_EVENT_EVENTS_LOST), 0);
  ASSERT_TRUE(kelo_test::WaitUntil([&] { return ring.Flags() == (KELO_RB_FLAG_CORE | KELO_RB_FLAG_NORMAL); }));

  // The pump is held at its first record of the burst, so the ring overruns.
  constexpr uint32_t kRuns = 3000;
  const uint64_t burstStart = MonotonicNowNs();
  uint64_t written = 0;
  {
    MutexLock held(EventManager::keloRawEventManagerLock);
    written = ring.Emit(KELO_EVENT_FD_UPDATE, kRuns);
  }
  const uint64_t burstEnd = MonotonicNowNs();
  ASSERT_LT(written, uint64_t{kRuns} / 10) << "the ring took the burst: nothing was lost";
  EXPECT_EQ(ring.Lost(KELO_EVENT_FD_UPDATE), kRuns - written);

  Tally tally;
  ASSERT_NO_FATAL_FAILURE(tally.ReadUntil(&client, KELO_EVENT_FD_UPDATE, kRuns));
  EXPECT_EQ(tally.times.size(), written);
  EXPECT_EQ(tally.reported, kRuns - written);
  for (const kelo_events_lost_client_event& report : tally.reports) {
    EXPECT_EQ(report.site, uint32_t{KELO_LOSS_SITE_KERNEL});
    // The losses happened between two readings of the counts.
    EXPECT_LT(report.first_ts, burstEnd);
    EXPECT_GE(report.last_ts, burstStart);
  }

  const std::optional<std::string> state = kelo_test::RequestStateText();
  ASSERT_TRUE(state);
  std::vector<int64_t> expected(KELO_RB_LOST_ENTRIES, 0);
  expected[KELO_EVENT_FD_UPDATE] = static_cast<int64_t>(kRuns - written);
  EXPECT_EQ(kelo_test::StateLine(*state, KELO_BPF_DEFINESET), expected);
  EXPECT_EQ(KeloBpfService::GetInstance()->lossLedger().KernelLostTotal(0, KELO_EVENT_FD_UPDATE), kRuns - written);
}

constexpr uint32_t kGaugeRingBytes = 16384;
// A 56-byte record takes 64 bytes of ring.
constexpr size_t kRecordBytes = 56;
constexpr uint64_t kEntryBytes = 64;

std::unique_ptr<kelo_test::RingBufferFixture> RingHolding(const std::string& path, int records) {
  auto ring = kelo_test::RingBufferFixture::Create(path, kGaugeRingBytes);
  const std::string record(kRecordBytes, 'r');
  for (int i = 0; ring && i < records; ++i) EXPECT_TRUE(ring->Inject(record.data(), record.size()));
  return ring;
}

TEST(RingFillGaugeTest, ReadsTheUnconsumedBytesOfARealRing) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  KELO_SKIP_WITHOUT_BPF();
  constexpr int kHalf = kGaugeRingBytes / kEntryBytes / 2;
  auto ring = RingHolding("/sys/fs/bpf/gauge", kHalf);
  ASSERT_TRUE(ring);
  RingFillGauge gauge(ring->fd());
  EXPECT_EQ(gauge.Unconsumed(), kHalf * kEntryBytes);
  EXPECT_FALSE(gauge.MoreThanHalfFull()) << "exactly half";
  const std::string record(kRecordBytes, 'r');
  ASSERT_TRUE(ring->Inject(record.data(), record.size()));
  EXPECT_TRUE(gauge.MoreThanHalfFull());
  auto reader = kelo_test::RingBufferReader::Create(ring->fd());
  ASSERT_TRUE(reader);
  EXPECT_EQ(reader->Drain().size(), kHalf + 1u);
  EXPECT_EQ(gauge.Unconsumed(), 0u);

  kelo_test::LogCapture log;
  RingFillGauge notARing(kelo_test::StatusArray::Create("/sys/fs/bpf/status")->fd());
  EXPECT_EQ(notARing.Unconsumed(), 0u);
  EXPECT_TRUE(log.contains("[KeloBpfService][RingFillGauge] Not a ring buffer"));
}

TEST(PacingTest, APublisherWaitsOnlyForAPacedConnectionAndOnlyWhileItsRingIsAtMostHalfFull) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  KELO_SKIP_WITHOUT_BPF();
  kelo_test::ResetErrorLog();
  KeloBpfService::GetInstance()->start();
  EventManager* registry = EventManager::GetInstance();
  const uint64_t before = registry->PacingWaits();

  // Publishes `count` records of `type` and `bytes` bytes on a thread of its
  // own that drains `ring` (none: a thread that drains no ring).
  const auto publish = [](int32_t type, int count, size_t bytes, kelo_test::RingBufferFixture* ring) {
    std::thread([=] {
      std::unique_ptr<RingFillGauge> gauge = ring ? std::make_unique<RingFillGauge>(ring->fd()) : nullptr;
      RingFillGauge::Scope scope(gauge.get());
      std::string record = Bytes(type) + std::string(bytes - sizeof(type), 'p');
      for (int i = 0; i < count; ++i) {
        EventManager::GetInstance()->AppendEvent(record.data(), static_cast<unsigned int>(record.size()));
      }
    }).join();
  };

  // Not paced: the queue of a client that reads nothing passes the pacing
  // depth and is trimmed, and nothing waits.
  kelo_test::IpcClient unpaced(KELO_BPF_CLIENT_SOCKET_NAME);
  ASSERT_TRUE(unpaced.Connect());
  ASSERT_EQ(unpaced.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_EVENT_CGROUP_ATTACH), 0);
  publish(KELO_EVENT_CGROUP_ATTACH, 3 * static_cast<int>(IPC_QUEUE_HIGH_WATER), 8, nullptr);
  EXPECT_EQ(registry->PacingWaits(), before);
  EXPECT_GT(KeloBpfService::GetInstance()->lossLedger().TrimmedTotal(), 0u);

  // Paced: records large enough that the socket takes only a few dozen, so
  // that the queue stays between the pacing depth and the trim.
  kelo_test::IpcClient paced(KELO_BPF_CLIENT_SOCKET_NAME);
  ASSERT_TRUE(paced.Connect());
  ASSERT_EQ(paced.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_EVENT_DMABUF_SIZE), 0);
  EXPECT_EQ(paced.Ask(2, REQ_SET_PACING, 2), -1) << "only 0 and 1";
  ASSERT_EQ(paced.Ask(3, REQ_SET_PACING, 1), 0);
  constexpr size_t kLarge = 2000;
  // The ring the publisher drains is more than half full: no waiting.
  auto full = RingHolding("/sys/fs/bpf/full", kGaugeRingBytes / kEntryBytes / 2 + 1);
  ASSERT_TRUE(full);
  publish(KELO_EVENT_DMABUF_SIZE, static_cast<int>(PACE_START_DEPTH) + 100, kLarge, full.get());
  EXPECT_EQ(registry->PacingWaits(), before);
  // With room in its ring, the publisher waits for the stalled sender once,
  // and gives it up until its queue drains.
  auto roomy = RingHolding("/sys/fs/bpf/roomy", kGaugeRingBytes / kEntryBytes / 2);
  ASSERT_TRUE(roomy);
  publish(KELO_EVENT_DMABUF_SIZE, 10, kLarge, roomy.get());
  EXPECT_EQ(registry->PacingWaits(), before + 1);
  publish(KELO_EVENT_DMABUF_SIZE, 10, kLarge, roomy.get());
  EXPECT_EQ(registry->PacingWaits(), before + 1);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
