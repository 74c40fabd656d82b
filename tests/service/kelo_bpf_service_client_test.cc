// Clients over the service's real socket. The kernel side is never declared
// ready here, so the only events are those published through the registry,
// as the task handlers publish theirs.
#include <android-base/file.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "service/kelo_bpf_service.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/wait.h"

namespace Kelo {
namespace Bpf {
namespace {

using namespace std::chrono_literals;
using kelo_test::Request;

struct Client : kelo_test::IpcClient {
  Client() : IpcClient(KELO_BPF_CLIENT_SOCKET_NAME) {}
};

std::string Publish(int32_t type, const std::string& payload = "") {
  std::string record = kelo_test::Bytes(type) + payload;
  EventManager::GetInstance()->AppendEvent(record.data(), static_cast<unsigned int>(record.size()));
  return record;
}

// Socket descriptor numbers of this process (the service's and the clients').
std::set<std::string> SocketFds() {
  std::set<std::string> fds;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/proc/self/fd"), closedir);
  for (std::string target; dirent* entry = readdir(dir.get());) {
    if (android::base::Readlink(std::string("/proc/self/fd/") + entry->d_name, &target) &&
        target.rfind("socket:", 0) == 0) {
      fds.insert(entry->d_name);
    }
  }
  return fds;
}

// Lines of the log at error priority that end in `text`.
int LoggedAsError(const kelo_test::LogCapture& log, const std::string& text) {
  std::istringstream lines(log.text());
  int found = 0;
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.size() >= text.size() ? line.size() - text.size() : std::string::npos;
    found += at != std::string::npos && line.compare(at, text.size(), text) == 0 && line.find(" E ") < at;
  }
  return found;
}

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KeloBpfService::GetInstance()->start();
    ASSERT_TRUE(client.Connect());
  }
  Client client;
};

TEST_F(ClientTest, RequestsAreAnsweredInOrderWithTheirReqIdAndOnlyKnownCodesAct) {
  // Subscribing twice subscribes once: a second copy of an event would come
  // where the answer to 74 is expected.
  EXPECT_EQ(client.Ask(69, REQ_ADD_OBSERVER_EVENT, 2), 0);
  EXPECT_EQ(client.Ask(70, REQ_ADD_OBSERVER_EVENT, 2), 0);
  // Two requests in one write, then one request across two writes.
  const std::string split = Request(73, REQ_DEL_OBSERVER_EVENT, 3);
  ASSERT_TRUE(client.Send(Request(71, 50, 3) + Request(72, 53, 2) + split.substr(0, 7)));
  std::this_thread::sleep_for(50ms);  // lets the service read the first part alone
  ASSERT_TRUE(client.Send(split.substr(7)));
  for (auto [reqId, result] : {std::pair{71u, -1}, {72u, -1}, {73u, 0}}) {
    std::optional<kelo_test::Package> response = client.Next();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->Word(0), reqId);
    EXPECT_EQ(static_cast<int32_t>(response->Word(1)), result);
  }
  Publish(3);
  client.ExpectEvent(Publish(2, std::string("fork\0\xff", 6)));

  EXPECT_EQ(client.Ask(74, REQ_DEL_OBSERVER_EVENT, 2), 0);
  Publish(2);
  // Had the unsubscribed event been queued, it would come before this answer.
  EXPECT_EQ(client.Ask(75, REQ_ADD_OBSERVER_EVENT, 50001), 0);
  client.ExpectEvent(Publish(50001));
}

TEST_F(ClientTest, TwoClientsReceiveTheSameEventsInPublishOrder) {
  Client other;
  ASSERT_TRUE(other.Connect());
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 6), 0);
  ASSERT_EQ(other.Ask(1, REQ_ADD_OBSERVER_EVENT, 6), 0);
  std::vector<std::string> published;
  std::thread([&] {
    for (int i = 0; i < 200; ++i) published.push_back(Publish(6, std::to_string(i)));
  }).join();
  for (const std::string& record : published) {
    client.ExpectEvent(record);
    other.ExpectEvent(record);
  }
}

TEST_F(ClientTest, APacedReadingClientLosesNothingOfABurstBeyondTheQueueBoundWhileAStalledOneIsTrimmed) {
  Client stalled;
  ASSERT_TRUE(stalled.Connect());
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 5), 0);
  ASSERT_EQ(client.Ask(2, REQ_SET_PACING, 1), 0);
  ASSERT_EQ(stalled.Ask(1, REQ_ADD_OBSERVER_EVENT, 5), 0);
  ASSERT_EQ(stalled.Ask(2, REQ_SET_PACING, 1), 0);
  // Published faster than one client reads: without the publisher waiting
  // for the reading client's sender, its queue would be trimmed too.
  constexpr int kRecords = 3 * static_cast<int>(IPC_QUEUE_HIGH_WATER);
  std::thread publisher([] {
    for (int i = 0; i < kRecords; ++i) Publish(5, kelo_test::Bytes(i));
  });
  for (int i = 0; i < kRecords; ++i) {
    client.ExpectEvent(kelo_test::Bytes(5) + kelo_test::Bytes(i));
    if (HasFailure()) break;
  }
  // The stalled client holds the publisher back only for a bounded time.
  publisher.join();
}

// A pump publishes with its events staged: they are queued and their
// senders told at each flush and every WAKE_BATCH_EVENTS events, a burst
// beyond the queue bound still reaches a reading client whole, and what was
// staged for a connection gone meanwhile goes to nobody, not to a new
// connection on its descriptor.
TEST_F(ClientTest, AStagingPublisherTellsSendersAtFlushesAndInBatches) {
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 4), 0);
  // The endpoint's loop may still be in the write round of that response,
  // which takes whatever was queued meanwhile.
  ASSERT_TRUE(kelo_test::WaitUntil([] { return kelo_test::ThreadIdleInEpoll(KeloBpfService::IPC_THREAD_NAME); }));
  std::thread([this] {
    EventStaging staging;
    const std::string first = Publish(4, "held");
    EXPECT_FALSE(client.Next(200ms)) << "nothing sent before the flush";
    staging.Flush();
    client.ExpectEvent(first);
    // Asked for after the publisher cached its subscribers: it must see it.
    ASSERT_EQ(client.Ask(2, REQ_SET_PACING, 1), 0);

    std::vector<std::string> batch;
    for (int i = 0; i < EventStaging::WAKE_BATCH_EVENTS; ++i) batch.push_back(Publish(4, kelo_test::Bytes(i)));
    for (const std::string& record : batch) client.ExpectEvent(record);

    // Beyond the queue bound, so the publisher is paced.
    constexpr int kRecords = 2 * static_cast<int>(IPC_QUEUE_HIGH_WATER);
    std::thread reader([this] {
      for (int i = 0; i < kRecords && !HasFailure(); ++i) client.ExpectEvent(kelo_test::Bytes(4) + kelo_test::Bytes(i));
    });
    for (int i = 0; i < kRecords; ++i) Publish(4, kelo_test::Bytes(i));
    staging.Flush();
    reader.join();

    const std::set<std::string> connected = SocketFds();
    kelo_test::LogCapture log;
    Publish(4, "stale");
    client.Close();
    EXPECT_TRUE(kelo_test::WaitUntil([] { return SocketFds().size() == 1; }));
    // A new connection on the same descriptor gets nothing staged for the
    // one before it.
    Client next;
    ASSERT_TRUE(next.Connect());
    ASSERT_EQ(next.Ask(3, REQ_ADD_OBSERVER_EVENT, 4), 0);
    ASSERT_EQ(SocketFds(), connected);
    staging.Flush();
    EXPECT_FALSE(log.contains("the socket fd does not exist"));
    const std::string fresh = Publish(4, "fresh");
    staging.Flush();
    next.ExpectEvent(fresh);
  }).join();
}

// A staging publisher frames each event once for every connection: each
// still receives exactly its own types in order, whether it shares the
// publisher's frames or (wanting less than half of them) gets copies, and a
// subscription made between two flushes applies to the very next event.
TEST_F(ClientTest, AStagingPublisherGivesEachConnectionItsOwnEventsInOrder) {
  Client fives;
  ASSERT_TRUE(fives.Connect());
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 4), 0);
  ASSERT_EQ(client.Ask(2, REQ_ADD_OBSERVER_EVENT, 5), 0);
  ASSERT_EQ(fives.Ask(1, REQ_ADD_OBSERVER_EVENT, 5), 0);
  std::thread([&] {
    EventStaging staging;
    std::vector<std::string> all, ofType5;
    for (int i = 0; i < 100; ++i) {
      all.push_back(Publish(i % 3 == 0 ? 5 : 4, kelo_test::Bytes(i)));
      if (i % 3 == 0) ofType5.push_back(all.back());
    }
    ASSERT_EQ(fives.Ask(2, REQ_ADD_OBSERVER_EVENT, 4), 0);
    const std::string late = Publish(4, "late");
    staging.Flush();
    for (const std::string& record : all) client.ExpectEvent(record);
    client.ExpectEvent(late);
    for (const std::string& record : ofType5) fives.ExpectEvent(record);
    fives.ExpectEvent(late);
  }).join();
}

// A connection whose sender could not be woken (here: one the endpoint does
// not watch) is asked again by its next event, not taken for one that has a
// wake-up pending for good.
TEST_F(ClientTest, AWakeUpThatCouldNotBeDeliveredIsAskedForAgainByTheNextEvent) {
  constexpr int kUnwatched = 1000;
  KeloBpfService* service = KeloBpfService::GetInstance();
  service->onClientLibConnection(kUnwatched);
  EventManager::GetInstance()->AddObserverEvent(kUnwatched, 6);
  kelo_test::LogCapture log;
  for (int i = 0; i < 3; ++i) Publish(6);
  std::thread([] {
    EventStaging staging;
    Publish(6);
  }).join();
  EXPECT_EQ(log.count("[EpollManager][notifyWriteEventReady] the socket fd does not exist"), 4);
  service->onClientLibClose(kUnwatched);
}

TEST_F(ClientTest, ClosingDropsSubscriptionsAndQueueAndAReusedDescriptorStartsClean) {
  // Answered, so accepted: the listening socket, the client's and the service's end.
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 1), 0);
  const std::set<std::string> connected = SocketFds();
  ASSERT_EQ(connected.size(), 3u);
  // More than the socket buffers hold, so some stays queued in the service.
  for (int i = 0; i < 1000; ++i) Publish(1, std::string(100, 'q'));
  client.Close();
  ASSERT_TRUE(kelo_test::WaitUntil([] { return SocketFds().size() == 1; }));

  Client next;
  ASSERT_TRUE(next.Connect());
  EXPECT_EQ(next.Ask(2, REQ_ADD_OBSERVER_EVENT, 7), 0);
  EXPECT_EQ(SocketFds(), connected);
  Publish(1);
  next.ExpectEvent(Publish(7));
}

// Damage a client sends costs that client its connection, logged as the
// failed check, and never the service.
TEST_F(ClientTest, DamagedFramesCloseOnlyTheirConnectionAndAreCounted) {
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 6), 0);
  kelo_test::LogCapture log;
  std::string wrongSize = Request(1, REQ_ADD_OBSERVER_EVENT, 4);
  wrongSize[8] = 99;  // the level-2 size field
  const std::pair<std::string, std::string> damages[] = {
      {Request(1, REQ_ADD_OBSERVER_EVENT, 4, 8),
       "Check failed: ((KeloReqIpcPackageHeader*)data)->dataSize == size - sizeof(KeloReqIpcPackageHeader)"},
      {wrongSize, "Check failed: packagePtr->size == size - sizeof(KeloIpcSecondLevelPackageHeader)"},
  };
  for (const auto& [bytes, logged] : damages) {
    Client damaging;
    ASSERT_TRUE(damaging.Connect());
    ASSERT_EQ(damaging.Ask(1, REQ_ADD_OBSERVER_EVENT, 6), 0);
    ASSERT_TRUE(damaging.Send(bytes + Request(2, REQ_ADD_OBSERVER_EVENT, 7)));
    EXPECT_FALSE(damaging.Next(5s)) << "closed without an answer to what followed the damage";
    EXPECT_EQ(LoggedAsError(log, logged), 1) << logged;
  }
  EXPECT_EQ(KeloBpfService::GetInstance()->badFramesClosed(), 2u);
  // The service goes on for everyone else.
  EXPECT_EQ(client.Ask(2, REQ_ADD_OBSERVER_EVENT, 7), 0);
  client.ExpectEvent(Publish(6));
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
