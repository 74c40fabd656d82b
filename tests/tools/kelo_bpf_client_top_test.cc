// The process table of `top`: loaded from a dump, moved by derived events,
// and laid out for a terminal or for plain text.
#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "bpf/kelo_bpf_events.h"
#include "tests/support/ipc_client.h"
#include "tools/kelo_bpf_client_feed.h"
#include "tools/kelo_bpf_client_top_table.h"

namespace {

using namespace Kelo::Bpf;
using kelo_test::Frame;
using kelo_test::U32;

template <typename Record>
void Apply(TopTable* table, const Record& record) {
  table->apply(reinterpret_cast<const char*>(&record), sizeof(record));
}

TaskDumpRow Row(int32_t pid, const char* comm, int64_t anonKb, int32_t threads) {
  TaskDumpRow row;
  row.pid = pid;
  row.ppid = 1;
  row.comm = comm;
  row.anonKb = anonKb;
  row.fileKb = 10;
  row.threads = threads;
  return row;
}

kelo_rss_change_client_event RssChange(int32_t pid, const char* comm, int64_t anonBytes) {
  kelo_rss_change_client_event e{};
  e.type = KELO_CLIENT_EVENT_RSS_CHANGE;
  e.pid = pid;
  e.ppid = 1;
  strncpy(e.comm, comm, sizeof(e.comm));
  e.rss[KELO_RSS_ANON] = anonBytes;
  e.rss[KELO_RSS_FILE] = 10 * 1024;
  return e;
}

TEST(ClientTop, TheDumpSeedsTheTableAndDerivedEventsMoveIt) {
  TopTable table;
  // Before the dump: kept, applied after it.
  kelo_process_exit_client_event gone{};
  gone.type = KELO_CLIENT_EVENT_PROCESS_EXIT;
  gone.pid = 30;
  Apply(&table, gone);
  TaskDump dump;
  dump.rows = {Row(10, "small", 100, 1), Row(20, "big", 5000, 4), Row(30, "exiting", 9000, 1), Row(40, "tied", 100, 2)};
  table.load(dump);

  TopSnapshot first = table.snapshot();
  ASSERT_EQ(first.rows.size(), 3u);
  EXPECT_EQ(first.rows[0].comm, "big");  // largest total first, ties by pid
  EXPECT_EQ(first.rows[1].pid, 10);
  EXPECT_EQ(first.rows[2].pid, 40);
  EXPECT_EQ(first.rows[0].changeKb, 0);
  EXPECT_EQ(first.threads, 7);
  EXPECT_EQ(first.anonKb, 5200);
  EXPECT_EQ(first.events, 1u);

  kelo_process_create_client_event created{};
  created.type = KELO_CLIENT_EVENT_PROCESS_CREATE;
  created.pid = 50;
  created.ppid = 20;
  memcpy(created.comm, "newcomer", 8);
  Apply(&table, created);
  Apply(&table, created);  // a second report does not reset the row
  Apply(&table, RssChange(50, "renamed", 2048 * 1024 + 1023));
  Apply(&table, RssChange(10, "small", 50 * 1024));
  kelo_thread_count_client_event threads{};
  threads.type = KELO_CLIENT_EVENT_THREAD_COUNT;
  threads.pid = 20;
  threads.thread_num = 15;
  Apply(&table, threads);
  const uint32_t shortRecord[] = {KELO_CLIENT_EVENT_RSS_CHANGE, 10};
  table.apply(reinterpret_cast<const char*>(shortRecord), sizeof(shortRecord));

  TopSnapshot second = table.snapshot();
  ASSERT_EQ(second.rows.size(), 4u);
  EXPECT_EQ(second.rows[0].pid, 20);
  EXPECT_EQ(second.rows[0].threads, 15);
  EXPECT_EQ(second.rows[1].pid, 50);
  EXPECT_EQ(second.rows[1].comm, "renamed");
  EXPECT_EQ(second.rows[1].anonKb, 2048);    // bytes to KiB, truncated
  EXPECT_EQ(second.rows[1].changeKb, 2058);  // new since the last snapshot
  EXPECT_EQ(second.rows[3].pid, 10);
  EXPECT_EQ(second.rows[3].changeKb, -50);
  EXPECT_EQ(second.events, 5u);  // the short record is not counted

  // The interval starts again at each snapshot.
  EXPECT_EQ(table.snapshot().rows[1].changeKb, 0);
}

TEST(ClientTop, RendersHeaderAndRowsCutToTheTerminal) {
  TopSnapshot snapshot;
  TopRow row;
  row.pid = 1234;
  row.ppid = 1;
  row.threads = 3;
  row.anonKb = 1000;
  row.changeKb = 24;
  row.comm = "caf\xc3\xa9\x1b[2Jx\xff";  // an escape sequence must not reach the terminal
  snapshot.rows = {row, row, row};
  snapshot.threads = 9;
  snapshot.anonKb = 3000;
  snapshot.events = 2;
  TopScreen screen;
  screen.clock = "12:00:00";
  const std::string all = RenderTop(snapshot, screen);
  EXPECT_EQ(all.substr(0, all.find('\n')),
            "kelobpf top - 12:00:00, 3 processes, 9 threads, 2 events in the last 1.0 s");
  EXPECT_NE(all.find("RSS KiB: anon 3000, file 0, shmem 0, swap 0, total 3000\n\n"), std::string::npos);
  EXPECT_NE(
      all.find("    PID    PPID   THR       ANON       FILE      SHMEM       SWAP      TOTAL     CHANGE COMMAND\n"),
      std::string::npos);
  EXPECT_NE(all.find("   1234       1     3       1000          0          0          0       1000        +24 "
                     "caf\xc3\xa9\\x1b[2Jx\\xff\n"),
            std::string::npos);
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 4 + 3);

  screen.height = 6;  // four header lines, two rows
  screen.width = 20;
  const std::string cut = RenderTop(snapshot, screen);
  EXPECT_EQ(std::count(cut.begin(), cut.end(), '\n'), 6);
  EXPECT_EQ(cut.substr(0, cut.find('\n')), "kelobpf top - 12:00:");
  screen.width = 92;  // the name starts in column 88: the cut keeps its two-byte character whole
  const std::string wide = RenderTop(snapshot, screen);
  EXPECT_NE(wide.find(" caf\xc3\xa9\n"), std::string::npos) << wide;
}

// The feed over a socket pair, the test playing the service.
TEST(ClientFeed, SubscribesThenHandsOverWholeEventsHoweverTheBytesArrive) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  android::base::unique_fd service(pair[1]);
  EventFeed feed{android::base::unique_fd(pair[0])};
  std::vector<std::string> events;
  const EventFeed::EventFn collect = [&](const char* record, size_t size) { events.emplace_back(record, size); };
  std::string problem;

  // Answers given before the requests are read: an event, then the two
  // responses (result 0) out of order.
  const std::string answers =
      Frame(3, "early") + Frame(1, U32(1) + U32(0) + U32(0)) + Frame(1, U32(0) + U32(0) + U32(0));
  ASSERT_TRUE(android::base::WriteFully(service.get(), answers.data(), answers.size()));
  ASSERT_TRUE(feed.subscribe({50001, 50004}, 5, collect, &problem)) << problem;
  EXPECT_EQ(events, std::vector<std::string>{"early"});
  // The two requests: code 51, request ids 0 and 1, the types.
  char requests[2 * 28];
  ASSERT_EQ(read(service.get(), requests, sizeof(requests)), static_cast<ssize_t>(sizeof(requests)));
  EXPECT_EQ(std::string(requests, 28), kelo_test::Request(0, 51, 50001));
  EXPECT_EQ(std::string(requests + 28, 28), kelo_test::Request(1, 51, 50004));

  // Frames cut at every byte: each event is handed over once it is whole.
  const std::string stream = Frame(3, std::string(96, 'r')) + Frame(1, U32(7) + U32(0) + U32(0)) + Frame(3, "x");
  events.clear();
  for (char byte : stream) {
    ASSERT_EQ(write(service.get(), &byte, 1), 1);
    ASSERT_TRUE(feed.drain(collect, &problem)) << problem;
  }
  EXPECT_EQ(events, (std::vector<std::string>{std::string(96, 'r'), "x"}));
  EXPECT_TRUE(feed.drain(collect, &problem));  // nothing new: no wait

  const std::string bad = U32(4) + U32(3) + U32(0);  // shorter than its own header
  ASSERT_TRUE(android::base::WriteFully(service.get(), bad.data(), bad.size()));
  EXPECT_FALSE(feed.drain(collect, &problem));
  EXPECT_NE(problem.find("malformed frame"), std::string::npos) << problem;
}

TEST(ClientFeed, ReportsARefusedSubscriptionAClosedConnectionAndSilence) {
  std::string problem;
  const EventFeed::EventFn ignore = [](const char*, size_t) {};
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  {
    android::base::unique_fd service(pair[1]);
    EventFeed feed{android::base::unique_fd(pair[0])};
    const std::string refused = Frame(1, U32(0) + U32(static_cast<uint32_t>(-1)) + U32(0));
    ASSERT_TRUE(android::base::WriteFully(service.get(), refused.data(), refused.size()));
    EXPECT_FALSE(feed.subscribe({7}, 5, ignore, &problem));
    EXPECT_EQ(problem, "subscription of type 7 refused: result -1");
    service.reset();
    EXPECT_FALSE(feed.drain(ignore, &problem));
    EXPECT_EQ(problem, "the service closed the connection");
  }
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  android::base::unique_fd silent(pair[1]);
  EventFeed feed{android::base::unique_fd(pair[0])};
  EXPECT_FALSE(feed.subscribe({7, 8}, 0.05, ignore, &problem));
  EXPECT_NE(problem.find("did not answer the subscriptions within 0.1 s"), std::string::npos) << problem;
}

}  // namespace
