// The pacing rule: a publisher waits for a crowded connection's sender only
// when that connection asked to be paced, and never while the ring buffer it
// drains is more than half full.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "service/kelo_bpf_event_pacing.h"
#include "service/kelo_bpf_service.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace Kelo {
namespace Bpf {
namespace {

using kelo_test::Bytes;

constexpr uint32_t kRingBytes = 16384;
// A 56-byte record takes 64 bytes of ring.
constexpr size_t kRecordBytes = 56;
constexpr uint64_t kEntryBytes = 64;

std::unique_ptr<kelo_test::RingBufferFixture> RingHolding(const std::string& path, int records) {
  auto ring = kelo_test::RingBufferFixture::Create(path, kRingBytes);
  const std::string record(kRecordBytes, 'r');
  for (int i = 0; ring && i < records; ++i) EXPECT_TRUE(ring->Inject(record.data(), record.size()));
  return ring;
}

TEST(RingFillGaugeTest, ReadsTheUnconsumedBytesOfARealRing) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  KELO_SKIP_WITHOUT_BPF();
  constexpr int kHalf = kRingBytes / kEntryBytes / 2;
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

  EXPECT_EQ(RingFillGauge::OfThisThread(), nullptr);
  {
    RingFillGauge::Scope scope(&gauge);
    EXPECT_EQ(RingFillGauge::OfThisThread(), &gauge);
  }
  EXPECT_EQ(RingFillGauge::OfThisThread(), nullptr);

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
  auto full = RingHolding("/sys/fs/bpf/full", kRingBytes / kEntryBytes / 2 + 1);
  ASSERT_TRUE(full);
  publish(KELO_EVENT_DMABUF_SIZE, static_cast<int>(PACE_START_DEPTH) + 100, kLarge, full.get());
  EXPECT_EQ(registry->PacingWaits(), before);
  // With room in its ring, the publisher waits for the stalled sender once,
  // and gives it up until its queue drains.
  auto roomy = RingHolding("/sys/fs/bpf/roomy", kRingBytes / kEntryBytes / 2);
  ASSERT_TRUE(roomy);
  publish(KELO_EVENT_DMABUF_SIZE, 10, kLarge, roomy.get());
  EXPECT_EQ(registry->PacingWaits(), before + 1);
  publish(KELO_EVENT_DMABUF_SIZE, 10, kLarge, roomy.get());
  EXPECT_EQ(registry->PacingWaits(), before + 1);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
