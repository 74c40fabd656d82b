// The client tool's decoding of event records.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "bpf/kelo_bpf_events.h"
#include "tools/kelo_bpf_client_format.h"

namespace {

using Kelo::Bpf::FormatClientEvent;

// The record placed one byte into a buffer, as it may sit in a package.
template <typename Record>
std::string Misaligned(const Record& record) {
  std::string buffer(sizeof(record) + 1, '\0');
  memcpy(buffer.data() + 1, &record, sizeof(record));
  return buffer;
}

std::string Format(const std::string& misaligned) {
  return FormatClientEvent(misaligned.data() + 1, misaligned.size() - 1);
}

// The decoder is shared with the JSON form (its tests cover every field) and
// every wide field at an odd offset is in the unaligned records test; here
// what only the text line does: key=value words, names of blanks and
// control bytes as \xNN, unknown enumerations and hex dumps.
TEST(ClientFormat, WritesOneSplittableWordPerFieldAndNamesUnknownValues) {
  kelo_task_create_event fork{};
  fork.header.type = KELO_EVENT_TASK_CREATE;
  fork.header.ts = 81234567890123ULL;
  fork.ppid = 1;
  fork.pid = 123;
  memcpy(fork.comm, "bash", 4);
  fork.kind = KELO_TASK_KIND_PROCESS;
  EXPECT_EQ(Format(Misaligned(fork)), "fork ts=81234567890123 pid=123 ppid=1 uid=0 comm=bash kind=process");

  kelo_task_exit_event exit{};
  exit.header.type = KELO_EVENT_TASK_EXIT;
  exit.pid = 9;
  memcpy(exit.comm, "Web Content\t", 12);
  exit.kind = 7;
  EXPECT_EQ(Format(Misaligned(exit)), "exit ts=0 pid=9 comm=Web\\x20Content\\x09 kind=unknown(7)");

  kelo_events_lost_client_event lost{};
  lost.type = KELO_CLIENT_EVENT_EVENTS_LOST;
  lost.lost_type = KELO_EVENT_TASK_EXIT;
  lost.site = KELO_LOSS_SITE_KERNEL;
  lost.count = 1ULL << 33;
  lost.first_ts = 81234567890123ULL;
  lost.last_ts = 81234567890124ULL;
  EXPECT_EQ(Format(Misaligned(lost)),
            "lost lost_type=3 site=kernel count=8589934592 first_ts=81234567890123 last_ts=81234567890124");
  lost.site = 9;
  EXPECT_NE(Format(Misaligned(lost)).find(" site=unknown(9) "), std::string::npos);
}

TEST(ClientFormat, DumpsShortAndUnknownRecords) {
  const uint32_t shortFork[] = {KELO_EVENT_TASK_CREATE, 0xabcdef01};
  EXPECT_EQ(FormatClientEvent(reinterpret_cast<const char*>(shortFork), sizeof(shortFork)),
            "fork short record size=8 bytes=02 00 00 00 01 ef cd ab");
  const uint32_t unknown[] = {42};
  EXPECT_EQ(FormatClientEvent(reinterpret_cast<const char*>(unknown), sizeof(unknown)),
            "unknown type=42 size=4 bytes=2a 00 00 00");
  EXPECT_EQ(FormatClientEvent("\x05\x06", 2), "unknown size=2 bytes=05 06");
}

}  // namespace
