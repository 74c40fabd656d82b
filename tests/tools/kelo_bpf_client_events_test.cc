// The client tool's view of events: type names, JSON and text forms and the
// filters of `watch`.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "bpf/kelo_bpf_events.h"
#include "tools/kelo_bpf_client_filter.h"
#include "tools/kelo_bpf_client_format.h"
#include "tools/kelo_bpf_client_json.h"
#include "tools/kelo_bpf_client_types.h"

namespace {

using namespace Kelo::Bpf;

// The record one byte into a buffer, as it may sit in a package.
template <typename Record>
std::string Misaligned(const Record& record) {
  std::string buffer(sizeof(record) + 1, '\0');
  memcpy(buffer.data() + 1, &record, sizeof(record));
  return buffer;
}

template <typename Record>
Json ToJson(const Record& record) {
  const std::string buffer = Misaligned(record);
  return EventToJson(buffer.data() + 1, sizeof(record));
}

template <typename Record>
std::string Text(const Record& record) {
  const std::string buffer = Misaligned(record);
  return FormatClientEvent(buffer.data() + 1, sizeof(record));
}

template <typename Record>
EventFacts Facts(const Record& record) {
  const std::string buffer = Misaligned(record);
  return DescribeEvent(buffer.data() + 1, sizeof(record));
}

TEST(ClientTypes, NamesAliasesAndNumbersAllResolveAndEveryNameIsUnique) {
  EXPECT_EQ(ParseEventType("fork"), 2);
  EXPECT_EQ(ParseEventType("sched_task_create"), 2);
  EXPECT_EQ(ParseEventType("rss"), 1);
  EXPECT_EQ(ParseEventType("rss_stat"), 1);  // the tool's earlier name
  EXPECT_EQ(ParseEventType("rss_changed"), 50004);
  EXPECT_EQ(ParseEventType("rss_change"), 50004);
  EXPECT_EQ(ParseEventType("lost"), 50005);
  EXPECT_EQ(ParseEventType("50003"), 50003);
  EXPECT_EQ(ParseEventType("123456"), 123456);  // numbers need not be known
  for (const char* bad : {"", "two", "-1", "+2", "2x", " 2", "Fork", "2147483648"}) {
    EXPECT_FALSE(ParseEventType(bad)) << bad;
  }
  std::set<std::string> seen;
  for (const ClientEventTypeInfo& info : ClientEventTypes()) {
    EXPECT_EQ(ParseEventType(info.name), static_cast<int>(info.type)) << info.name;
    EXPECT_STREQ(EventTypeName(info.type), info.name);
    EXPECT_TRUE(seen.insert(info.name).second) << info.name;
    for (const char* const* alias = info.aliases; *alias != nullptr; ++alias) {
      EXPECT_TRUE(seen.insert(*alias).second) << *alias;
    }
  }
  EXPECT_EQ(EventTypeName(9), nullptr);
  EXPECT_EQ(DefaultWatchTypes().size(), ClientEventTypes().size());
}

TEST(ClientJson, DecodesRawAndDerivedRecordsWithNamedFields) {
  kelo_task_create_event fork{};
  fork.header.type = KELO_EVENT_TASK_CREATE;
  fork.header.ts = 18446744073709551615ULL;  // the whole unsigned range survives
  fork.ppid = 1;
  fork.pid = 123;
  fork.uid = 4294967295U;
  memcpy(fork.comm, "bash", 4);
  fork.kind = KELO_TASK_KIND_THREAD;
  EXPECT_EQ(JsonLine(ToJson(fork)),
            R"({"record":"event","type":2,"name":"fork","ts":18446744073709551615,"pid":123,"ppid":1,)"
            R"("uid":4294967295,"comm":"bash","kind":"thread"})");

  kelo_rss_change_client_event rss{};
  rss.type = KELO_CLIENT_EVENT_RSS_CHANGE;
  rss.pid = 7;
  rss.rss[KELO_RSS_ANON] = 1LL << 40;
  rss.rss_old[KELO_RSS_ANON] = (1LL << 40) - 4096;
  rss.rss[KELO_RSS_FILE] = 0;
  rss.rss_old[KELO_RSS_FILE] = 8192;
  const Json json = ToJson(rss);
  EXPECT_EQ(json["name"], "rss_changed");
  EXPECT_EQ(json["rss"]["anon"], 1LL << 40);
  EXPECT_EQ(json["rss_old"]["file"], 8192);
  EXPECT_EQ(json["delta"], 4096 + 8192);
  EXPECT_EQ(Facts(rss).rssDelta, 4096u + 8192u);

  kelo_events_lost_client_event lost{};
  lost.type = KELO_CLIENT_EVENT_EVENTS_LOST;
  lost.lost_type = KELO_EVENT_FD_UPDATE;
  lost.site = KELO_LOSS_SITE_QUEUE;
  lost.count = 5001;
  lost.first_ts = 1;
  lost.last_ts = 1ULL << 40;
  EXPECT_EQ(JsonLine(ToJson(lost)),
            R"({"record":"event","type":50005,"name":"lost","lost_type":6,"site":"queue","count":5001,)"
            R"("first_ts":1,"last_ts":1099511627776})");
  lost.site = 7;
  EXPECT_EQ(ToJson(lost)["site"], 7);

  kelo_rss_stat_event stat{};
  stat.header.type = KELO_EVENT_RSS_STAT;
  stat.member = 9;  // unknown members are kept as numbers
  stat.size = -5;
  EXPECT_EQ(ToJson(stat)["member"], 9);
  EXPECT_EQ(ToJson(stat)["size"], -5);
}

TEST(ClientJson, OddProcessNamesStayValidJsonAndLosslessWhenNotUtf8) {
  kelo_process_exit_client_event exit{};
  exit.type = KELO_CLIENT_EVENT_PROCESS_EXIT;
  memcpy(exit.comm, "a\"b\\c\td", 7);
  EXPECT_EQ(JsonLine(ToJson(exit)),
            R"({"record":"event","type":50002,"name":"process_exited","pid":0,"comm":"a\"b\\c\td"})");

  // Valid UTF-8 is kept as it is.
  memset(exit.comm, 0, sizeof(exit.comm));
  memcpy(exit.comm, "caf\xc3\xa9", 5);
  EXPECT_EQ(ToJson(exit)["comm"], "caf\xc3\xa9");
  EXPECT_FALSE(ToJson(exit).contains("comm_hex"));

  // A lone byte above 127, and a name of all 16 bytes without a NUL.
  memcpy(exit.comm, "0123456789abcd\xff\xe9", 16);
  const Json odd = ToJson(exit);
  EXPECT_EQ(odd["comm"], "0123456789abcd\xef\xbf\xbd\xef\xbf\xbd");
  EXPECT_EQ(odd["comm_hex"], "3031323334353637383961626364ffe9");
  // The line parses back.
  EXPECT_EQ(Json::parse(JsonLine(odd))["comm_hex"], odd["comm_hex"]);

  for (const char* bad : {"\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\x80"}) {
    EXPECT_FALSE(IsValidUtf8(bad)) << HexBytes(bad, strlen(bad));
  }
  EXPECT_TRUE(IsValidUtf8("\xf0\x9f\x98\x80 \xe2\x82\xac"));
}

// The decoder is shared by both forms (the JSON cases cover every field, and
// every wide field at an odd offset is in the unaligned records test); the
// text line has key=value words, names of blanks and control bytes as \xNN,
// unknown enumerations and hex dumps.
TEST(ClientText, WritesOneSplittableWordPerFieldAndNamesUnknownValues) {
  kelo_task_create_event fork{};
  fork.header.type = KELO_EVENT_TASK_CREATE;
  fork.header.ts = 81234567890123ULL;
  fork.ppid = 1;
  fork.pid = 123;
  memcpy(fork.comm, "bash", 4);
  fork.kind = KELO_TASK_KIND_PROCESS;
  EXPECT_EQ(Text(fork), "fork ts=81234567890123 pid=123 ppid=1 uid=0 comm=bash kind=process");

  kelo_task_exit_event exit{};
  exit.header.type = KELO_EVENT_TASK_EXIT;
  exit.pid = 9;
  memcpy(exit.comm, "Web Content\t", 12);
  exit.kind = 7;
  EXPECT_EQ(Text(exit), "exit ts=0 pid=9 comm=Web\\x20Content\\x09 kind=unknown(7)");

  kelo_events_lost_client_event lost{};
  lost.type = KELO_CLIENT_EVENT_EVENTS_LOST;
  lost.lost_type = KELO_EVENT_TASK_EXIT;
  lost.site = KELO_LOSS_SITE_KERNEL;
  lost.count = 1ULL << 33;
  lost.first_ts = 81234567890123ULL;
  lost.last_ts = 81234567890124ULL;
  EXPECT_EQ(Text(lost), "lost lost_type=3 site=kernel count=8589934592 first_ts=81234567890123 last_ts=81234567890124");
  lost.site = 9;
  EXPECT_NE(Text(lost).find(" site=unknown(9) "), std::string::npos);
}

TEST(ClientJson, ShortAndUnknownRecordsCarryTheirBytesInBothForms) {
  const auto json = [](const auto& words) {
    return JsonLine(EventToJson(reinterpret_cast<const char*>(words), sizeof(words)));
  };
  const auto text = [](const auto& words) {
    return FormatClientEvent(reinterpret_cast<const char*>(words), sizeof(words));
  };
  const uint32_t shortFork[] = {KELO_EVENT_TASK_CREATE, 0xabcdef01};
  EXPECT_EQ(json(shortFork),
            R"({"record":"event","type":2,"name":"fork","short":true,"size":8,"bytes":"0200000001efcdab"})");
  EXPECT_EQ(text(shortFork), "fork short record size=8 bytes=02 00 00 00 01 ef cd ab");
  const uint32_t lost[] = {CLIENT_EVENT_LOST, 3};
  EXPECT_EQ(EventToJson(reinterpret_cast<const char*>(lost), sizeof(lost))["name"], "lost");
  const uint32_t unknown[] = {42};
  EXPECT_EQ(json(unknown), R"({"record":"event","type":42,"name":"unknown","size":4,"bytes":"2a000000"})");
  EXPECT_EQ(text(unknown), "unknown type=42 size=4 bytes=2a 00 00 00");
  EXPECT_EQ(JsonLine(EventToJson("\x05", 1)), R"({"record":"event","size":1,"bytes":"05"})");
  EXPECT_EQ(FormatClientEvent("\x05\x06", 2), "unknown size=2 bytes=05 06");
  EXPECT_FALSE(DescribeEvent("\x05", 1).typed);
}

class ClientFilter : public ::testing::Test {
 protected:
  static kelo_rss_stat_event Rss(int32_t pid, int32_t member, int64_t size) {
    kelo_rss_stat_event e{};
    e.header.type = KELO_EVENT_RSS_STAT;
    e.pid = pid;
    e.member = member;
    e.size = size;
    return e;
  }
  static kelo_task_exit_event Exit(int32_t pid, const char* comm) {
    kelo_task_exit_event e{};
    e.header.type = KELO_EVENT_TASK_EXIT;
    e.pid = pid;
    strncpy(e.comm, comm, sizeof(e.comm));
    e.kind = KELO_TASK_KIND_PROCESS;
    return e;
  }
};

TEST_F(ClientFilter, PidAndNameGlobUseNamesLearntFromEarlierEventsOrProc) {
  char dir[] = "/tmp/kelo_proc_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string procRoot = dir;
  mkdir((procRoot + "/77").c_str(), 0755);
  std::ofstream(procRoot + "/77/comm") << "surfaceflinger\n";

  EventFilter filter({{}, "surface*", 0}, procRoot);
  EXPECT_TRUE(filter.active());
  EXPECT_TRUE(filter.passes(Facts(Rss(77, KELO_RSS_ANON, 1))));   // from /proc
  EXPECT_FALSE(filter.passes(Facts(Rss(78, KELO_RSS_ANON, 1))));  // no name anywhere
  kelo_task_create_event fork{};
  fork.header.type = KELO_EVENT_TASK_CREATE;
  fork.pid = 78;
  memcpy(fork.comm, "surfacetool", 11);
  EXPECT_TRUE(filter.passes(Facts(fork)));
  EXPECT_TRUE(filter.passes(Facts(Rss(78, KELO_RSS_ANON, 1))));  // learnt from the fork
  EXPECT_TRUE(filter.passes(Facts(Exit(78, "surfacetool"))));
  // Forgotten with the exit; the pid may come back as another process.
  EXPECT_FALSE(filter.passes(Facts(Rss(78, KELO_RSS_ANON, 1))));

  EventFilter byPid({{5, 6}, "", 0});
  EXPECT_TRUE(byPid.passes(Facts(Exit(6, "x"))));
  EXPECT_FALSE(byPid.passes(Facts(Exit(7, "x"))));
  const uint32_t unknown[] = {42, 6};
  EXPECT_FALSE(byPid.passes(DescribeEvent(reinterpret_cast<const char*>(unknown), sizeof(unknown))));
  EXPECT_FALSE(EventFilter({}).active());
  std::remove((procRoot + "/77/comm").c_str());
  rmdir((procRoot + "/77").c_str());
  rmdir(dir);
}

TEST_F(ClientFilter, MinDeltaAddsUpSmallRssStepsPerPidAndMemberAndLetsOtherTypesPass) {
  EventFilter filter({{}, "", 10000});
  EXPECT_FALSE(filter.passes(Facts(Rss(5, KELO_RSS_ANON, 4000))));
  EXPECT_FALSE(filter.passes(Facts(Rss(5, KELO_RSS_ANON, 8000))));
  EXPECT_TRUE(filter.passes(Facts(Rss(5, KELO_RSS_ANON, 12000))));  // 12000 from 0
  EXPECT_FALSE(filter.passes(Facts(Rss(5, KELO_RSS_ANON, 3000))));  // 9000 down from 12000
  EXPECT_TRUE(filter.passes(Facts(Rss(5, KELO_RSS_ANON, 2000))));   // 10000 down
  EXPECT_TRUE(filter.passes(Facts(Rss(5, KELO_RSS_FILE, 10000))));  // members apart
  EXPECT_FALSE(filter.passes(Facts(Rss(6, KELO_RSS_ANON, 9999))));  // pids apart
  EXPECT_TRUE(filter.passes(Facts(Exit(5, "x"))));                  // not an RSS event
  EXPECT_TRUE(filter.passes(Facts(Rss(5, KELO_RSS_ANON, 10000))));  // forgotten at exit

  kelo_rss_change_client_event change{};
  change.type = KELO_CLIENT_EVENT_RSS_CHANGE;
  change.rss[KELO_RSS_SWAP] = 5000;
  change.rss_old[KELO_RSS_SHMEM] = 4999;
  EXPECT_FALSE(filter.passes(Facts(change)));
  change.rss_old[KELO_RSS_SHMEM] = 5000;
  EXPECT_TRUE(filter.passes(Facts(change)));
}

}  // namespace
