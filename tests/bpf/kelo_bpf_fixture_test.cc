// The fixture's ring-buffer injector: what a consumer reads through libbpf's
// ring_buffer must be exactly the injected bytes with exactly their length.
#include <gtest/gtest.h>

#include <numeric>

#include "bpf/kelo_bpf_events.h"
#include "tests/support/bpf_fixture.h"

namespace kelo_test {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr char kRingPath[] = "/sys/fs/bpf/fixture_test/ring";
constexpr uint32_t kSmallRing = 4096;

Bytes Pattern(size_t len, uint8_t seed) {
  Bytes bytes(len);
  for (size_t i = 0; i < len; ++i) {
    bytes[i] = static_cast<uint8_t>(seed + i * 7);
  }
  return bytes;
}

TEST(RingBufferFixtureTest, EveryLengthArrivesByteForByte) {
  auto ring = RingBufferFixture::Create(kRingPath, 64 * 1024);
  ASSERT_NE(ring, nullptr);
  auto reader = RingBufferReader::Create(ring->fd());
  ASSERT_NE(reader, nullptr);

  // Lengths below the minimum test-run frame, around the 8-byte record
  // alignment of the ring buffer, and up to the limit.
  std::vector<size_t> lengths(40);
  std::iota(lengths.begin(), lengths.end(), 1);
  for (size_t len : {63, 64, 65, 127, 1000, 2047, 2048}) {
    lengths.push_back(len);
  }
  std::vector<Bytes> sent;
  for (size_t len : lengths) {
    sent.push_back(Pattern(len, static_cast<uint8_t>(len)));
    ASSERT_TRUE(ring->Inject(sent.back().data(), sent.back().size())) << "length " << len;
  }

  std::vector<Bytes> received = reader->Drain();
  ASSERT_EQ(received.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(received[i], sent[i]) << "record " << i << " of length " << sent[i].size();
  }
}

TEST(RingBufferFixtureTest, FullRingRefusesWithoutCorruptingEarlierRecords) {
  auto ring = RingBufferFixture::Create(kRingPath, kSmallRing);
  ASSERT_NE(ring, nullptr);
  Bytes record = Pattern(100, 3);
  size_t accepted = 0;
  while (ring->Inject(record.data(), record.size())) {
    ++accepted;
    ASSERT_LT(accepted, kSmallRing / record.size()) << "ring never filled up";
  }
  EXPECT_GT(accepted, 0u);

  auto reader = RingBufferReader::Create(ring->fd());
  ASSERT_NE(reader, nullptr);
  std::vector<Bytes> received = reader->Drain();
  ASSERT_EQ(received.size(), accepted);
  for (const Bytes& r : received) {
    EXPECT_EQ(r, record);
  }
  // Consuming made room again.
  EXPECT_TRUE(ring->Inject(record.data(), record.size()));
}

TEST(ServiceRingBuffersTest, PinsAtTheServicePathsWithZeroedStatus) {
  auto rings = ServiceRingBuffers::Create();
  ASSERT_NE(rings, nullptr);
  auto status = StatusArray::Open("/sys/fs/bpf/kelo/map_KeloBpfGplDefineset_ringbuf_status");
  ASSERT_NE(status, nullptr);
  for (uint32_t key = 0; key < KELO_RB_STATUS_ENTRIES; ++key) {
    EXPECT_EQ(status->Get(key), 0u) << "entry " << key;
  }
  // Writes through one descriptor are seen through the other.
  ASSERT_TRUE(rings->gplStatus->Set(KELO_RB_STATUS_FLAGS, KELO_RB_FLAG_CORE | KELO_RB_FLAG_NORMAL));
  EXPECT_EQ(status->Get(KELO_RB_STATUS_FLAGS), uint64_t{KELO_RB_FLAG_CORE | KELO_RB_FLAG_NORMAL});

  auto normal = RingBufferFixture::Open("/sys/fs/bpf/kelo/map_KeloBpfDefineset_ringbuf_map");
  ASSERT_NE(normal, nullptr);
  auto reader = RingBufferReader::Create(rings->normal->fd());
  ASSERT_NE(reader, nullptr);
  kelo_rss_stat_event rss{};
  rss.header.type = KELO_EVENT_RSS_STAT;
  ASSERT_TRUE(normal->InjectRecord(rss));
  EXPECT_EQ(reader->Drain().size(), 1u);
}

}  // namespace
}  // namespace kelo_test
