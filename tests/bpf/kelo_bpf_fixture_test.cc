// The fixture's ring-buffer injector, which the service's pump tests rely
// on: what a consumer reads through libbpf's ring_buffer must be exactly the
// injected bytes with exactly their length.
#include <gtest/gtest.h>

#include <numeric>

#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"

namespace kelo_test {
namespace {

TEST(RingBufferFixtureTest, EveryLengthArrivesByteForByte) {
  KELO_SKIP_WITHOUT_BPF();
  auto ring = RingBufferFixture::Create("/sys/fs/bpf/fixture_test/ring", 64 * 1024);
  ASSERT_NE(ring, nullptr);
  auto reader = RingBufferReader::Create(ring->fd());
  ASSERT_NE(reader, nullptr);

  // Lengths below the minimum test-run frame, around the 8-byte record
  // alignment of the ring buffer, and up to the limit.
  std::vector<size_t> lengths(40);
  std::iota(lengths.begin(), lengths.end(), 1);
  lengths.insert(lengths.end(), {63, 64, 65, 127, 1000, 2047, RingBufferFixture::kMaxInjectBytes});
  std::vector<std::vector<uint8_t>> sent;
  for (size_t len : lengths) {
    sent.emplace_back(len);
    for (size_t i = 0; i < len; ++i) sent.back()[i] = static_cast<uint8_t>(len + i * 7);
    ASSERT_TRUE(ring->Inject(sent.back().data(), len)) << "length " << len;
  }
  EXPECT_EQ(reader->Drain(), sent);
}

}  // namespace
}  // namespace kelo_test
