#include "utils/kelo_bpf_ipc_unix_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ipc_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait.h"
#include "utils/kelo_bpf_ipc_package_handler.h"
#include "utils/kelo_bpf_ipc_package_manager.h"

namespace {

using kelo_test::ErrorLogCount;
using kelo_test::Frame;
using kelo_test::WaitUntil;
using ::testing::ElementsAre;

constexpr int BUFFER_SIZE = 32768;
constexpr auto QUIET_PERIOD = std::chrono::milliseconds(200);
constexpr char SOCKET_NAME[] = "kelo_ipc_test";

// One endpoint wired the way an application wires it: frames dispatched by an
// IpcPackageHandler, one outgoing queue per connection drained by the
// writeable hook. Type-2 packages are recorded; "fail" makes the handler fail.
class Endpoint {
 public:
  explicit Endpoint(bool isServer, std::map<uint32_t, IpcPackageHandlerFunc> handlers = {})
      : handler(withRecorder(std::move(handlers))) {
    IpcHandlerState hooks;
    hooks.compactReadBuffer = true;
    hooks.closeOnError = true;
    hooks.onReadable = [this](int fd, BufferState* readBuffer) {
      const bool handled = handler.handleAllIpcPackageInBuffer(fd, readBuffer);
      ++reads;
      return handled ? 0 : -1;
    };
    hooks.onWriteable = [this](int fd, BufferState* writeBuffer) {
      queue(fd)->fillIpcPackageToBuffer(writeBuffer);
      return 0;
    };
    hooks.onConnection = [this](int fd) {
      std::lock_guard<std::mutex> lock(mutex);
      queues[fd] = std::make_shared<IpcPackageManager>();
      connections.push_back(fd);
      return 0;
    };
    hooks.onClose = [this](int fd) {
      std::lock_guard<std::mutex> lock(mutex);
      queues.erase(fd);
      closes.push_back(fd);
      return 0;
    };
    manager = std::make_unique<UnixIpcManager>(isServer, BUFFER_SIZE, SOCKET_NAME, hooks,
                                               isServer ? "ipc-server" : "ipc-client", 10, 32);
  }
  // The worker uses the members below until it is joined.
  ~Endpoint() { manager.reset(); }

  std::shared_ptr<IpcPackageManager> queue(int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = queues.find(fd);
    return it == queues.end() ? std::make_shared<IpcPackageManager>() : it->second;
  }
  void send(int fd, const std::string& payload) {
    queue(fd)->buildAndAppendSecondIpcPackage(2, payload.data(), payload.size());
    manager->notifyNeedWriteData(fd);
  }
  template <typename T>
  T locked(const T& member) {
    std::lock_guard<std::mutex> lock(mutex);
    return member;
  }
  std::vector<int> connected() { return locked(connections); }
  std::vector<int> closed() { return locked(closes); }
  std::vector<std::string> received() { return locked(packages); }

  std::unique_ptr<UnixIpcManager> manager;
  std::atomic<int> reads{0};

 private:
  std::map<uint32_t, IpcPackageHandlerFunc> withRecorder(std::map<uint32_t, IpcPackageHandlerFunc> handlers) {
    handlers[2] = [this](int, char* data, uint32_t size) {
      const std::string payload(data, size);
      std::lock_guard<std::mutex> lock(mutex);
      packages.push_back(payload);
      return payload == "fail" ? -1 : 0;
    };
    return handlers;
  }

  IpcPackageHandler handler;
  std::mutex mutex;
  std::map<int, std::shared_ptr<IpcPackageManager>> queues;
  std::vector<int> connections;
  std::vector<int> closes;
  std::vector<std::string> packages;
};

// The listening socket of the server, found among the process's descriptors.
int ListeningSocket() {
  for (int fd = 0; fd < 1024; ++fd) {
    int listening = 0;
    socklen_t len = sizeof(listening);
    sockaddr_un addr{};
    socklen_t addrLen = sizeof(addr);
    if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) == 0 && listening != 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &addrLen) == 0 &&
        std::string(addr.sun_path + 1, strlen(SOCKET_NAME)) == SOCKET_NAME) {
      return fd;
    }
  }
  return -1;
}

class UnixIpcManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    kelo_test::ResetErrorLog();
  }
  // A started server with `clients` raw clients connected, in order.
  void serve(int clients) {
    server = std::make_unique<Endpoint>(true);
    ASSERT_TRUE(server->manager->start());
    for (int i = 0; i < clients; ++i) {
      raw.emplace_back(SOCKET_NAME);
      ASSERT_TRUE(raw.back().Connect());
      ASSERT_TRUE(WaitUntil([&] { return server->connected().size() == raw.size(); }));
    }
  }
  std::unique_ptr<Endpoint> server;
  std::vector<kelo_test::IpcClient> raw;
};

TEST_F(UnixIpcManagerTest, ResponsesReachTheCallbackOfTheirRequest) {
  // The server answers request code c with result c + 1000 and the data
  // reversed; code 99 is answered twice.
  auto answer = [this](int fd, char* data, uint32_t) {
    KeloReqIpcPackageHeader req;
    memcpy(&req, data, sizeof(req));
    std::string reply(data + sizeof(req), req.dataSize);
    std::reverse(reply.begin(), reply.end());
    KeloRespIpcPackage resp{req.reqId, static_cast<int32_t>(req.reqType) + 1000, req.dataSize, reply.data()};
    for (int i = 0; i < (req.reqType == 99 ? 2 : 1); ++i) server->queue(fd)->appendRespIpcPackage(&resp);
    server->manager->notifyNeedWriteData(fd);
    return 0;
  };
  server =
      std::make_unique<Endpoint>(true, std::map<uint32_t, IpcPackageHandlerFunc>{{IPC_PACKAGE_TYPE_REQUEST, answer}});
  IpcReqCallBackManager pending;
  std::atomic<int> refused{0};
  Endpoint client(false, {{IPC_PACKAGE_TYPE_RESPONSE, [&](int, char* data, uint32_t) {
                             if (!pending.handleReqCallBack(reinterpret_cast<KeloRespIpcPackage*>(data))) ++refused;
                             return 0;
                           }}});
  ASSERT_TRUE(server->manager->start());
  ASSERT_TRUE(WaitUntil([] { return ListeningSocket() != -1; }));
  ASSERT_TRUE(client.manager->start());
  ASSERT_TRUE(WaitUntil([&] { return client.connected().size() == 1; }));
  const int link = client.connected()[0];

  std::mutex answersMutex;
  std::map<uint32_t, std::string> answers;
  kelo_test::LogCapture log;
  for (uint32_t code : {51u, 52u, 99u}) {
    const uint32_t id = pending.getReqId();
    ASSERT_TRUE(pending.addIpcReqCallBack(id, [&](uint32_t reqId, int result, char* data, uint32_t dataSize) {
      std::lock_guard<std::mutex> lock(answersMutex);
      answers[reqId] += std::to_string(result) + ":" + std::string(data, dataSize) + ";";
      return 0;
    }));
    const std::string args = "args" + std::to_string(code);
    KeloReqIpcPackage req{id, code, static_cast<uint32_t>(args.size()), args.data()};
    client.queue(link)->appendReqIpcPackage(&req);
    // Both ways of asking for the write: from the loop and right here.
    ASSERT_TRUE(code == 52u ? client.manager->writeDataNow(link) : client.manager->notifyNeedWriteData(link));
  }
  ASSERT_TRUE(WaitUntil([&] { return refused == 1; }));
  std::lock_guard<std::mutex> lock(answersMutex);
  EXPECT_EQ(answers, (std::map<uint32_t, std::string>{{0, "1051:15sgra;"}, {1, "1052:25sgra;"}, {2, "1099:99sgra;"}}));
  EXPECT_EQ(log.count("[IRCB Manager] Unknow request callback functuin: reqId: 2"), 1) << "the repeated answer";
}

TEST_F(UnixIpcManagerTest, FramesAreCutOutOfWhateverTheReceivesDeliver) {
  serve(1);
  std::vector<std::string> expected;
  std::string burst;
  for (int i = 0; i < 300; ++i) {
    expected.push_back("frame" + std::to_string(i));
    burst += Frame(2, expected.back());
  }
  const std::string split = Frame(2, "split into single bytes");
  expected.push_back("split into single bytes");
  // Many frames in one receive, then one frame over one receive per byte.
  ASSERT_TRUE(raw[0].Send(burst + split.substr(0, 1)));
  ASSERT_TRUE(WaitUntil([&] { return server->reads == 1; }));
  EXPECT_EQ(server->received().size(), 300u);
  for (size_t i = 1; i < split.size(); ++i) {
    ASSERT_TRUE(raw[0].Send(split.substr(i, 1)));
    ASSERT_TRUE(WaitUntil([&] { return server->reads == static_cast<int>(i + 1); }));
  }
  EXPECT_EQ(server->received(), expected);
}

TEST_F(UnixIpcManagerTest, DamagedLengthDropsTheBufferAndKeepsTheConnection) {
  serve(1);
  const std::string whole(BUFFER_SIZE - 4 - 8, 'w');
  ASSERT_TRUE(raw[0].Send(Frame(2, whole)));
  ASSERT_TRUE(WaitUntil([&] { return server->received().size() == 1; }));
  EXPECT_EQ(server->received()[0], whole) << "a frame of the whole buffer";

  int damaged = 0;
  for (uint32_t length : {static_cast<uint32_t>(BUFFER_SIZE - 4 + 1), 0xFFFFFFFCu, 0xFFFFFFFFu}) {
    ASSERT_TRUE(raw[0].Send(kelo_test::U32(length)));
    ASSERT_TRUE(WaitUntil([&] { return ErrorLogCount(Kelo::Bpf::ERROR_CODE_PACKAGE_DAMAGED) == damaged + 1; }));
    ++damaged;
    const std::string after = "after " + std::to_string(length);
    ASSERT_TRUE(raw[0].Send(Frame(2, after)));
    ASSERT_TRUE(WaitUntil([&] { return server->received().back() == after; })) << "read from a clean buffer";
  }
  EXPECT_TRUE(server->closed().empty());
}

TEST_F(UnixIpcManagerTest, SlowPeerLosesItsBufferedBytesAndOthersStayServed) {
  serve(2);
  const int slow = server->connected()[0];
  const int fast = server->connected()[1];
  kelo_test::LogCapture log;
  const std::string big(16 * 1024, 's');
  for (int i = 0; i < 200; ++i) server->queue(slow)->buildAndAppendSecondIpcPackage(2, big.data(), big.size());
  // A producer pushing on its own thread: the socket runs full and the
  // send gives up, which the write path reports as a failure.
  int pushes = 0;
  while (server->manager->writeDataNow(slow)) ASSERT_LT(++pushes, 20);
  EXPECT_EQ(ErrorLogCount(Kelo::Bpf::ERROR_CODE_SEND_RETRIES_EXHAUSTED), 1);
  EXPECT_EQ(log.count("[UnixIpcManager] Socket buffer full! tryCount: 10,"), 1);
  EXPECT_EQ(log.count("[UnixIpcManager] Socket buffer full! tryCount: 11,"), 1);
  EXPECT_EQ(log.count("[UnixIpcManager] Send data 10 times failed!"), 1);
  EXPECT_EQ(log.count("[UnixIpcManager] Clear send buffer"), 1);
  EXPECT_THAT(kelo_test::ErrorLogText(), ::testing::HasSubstr("Error: Send data 10 times failed. bufferCursor: "));

  server->send(fast, "still served");
  std::optional<kelo_test::Package> package = raw[1].Next();
  ASSERT_TRUE(package);
  EXPECT_EQ(package->payload, "still served");
  // The slow connection is still open: what was sent before is readable.
  package = raw[0].Next();
  ASSERT_TRUE(package);
  EXPECT_EQ(package->payload, big);
  EXPECT_TRUE(server->closed().empty());
}

TEST_F(UnixIpcManagerTest, IdleConnectionNeverWakesTheLoop) {
  serve(1);
  const uint64_t before = server->manager->getWakeupCount();
  server->send(server->connected()[0], "one");
  ASSERT_TRUE(raw[0].Next());
  // Write interest goes once the queue is empty; after that the loop sleeps.
  uint64_t settled = 0;
  ASSERT_TRUE(WaitUntil([&] {
    settled = server->manager->getWakeupCount();
    std::this_thread::sleep_for(QUIET_PERIOD);
    return server->manager->getWakeupCount() == settled;
  }));
  std::this_thread::sleep_for(QUIET_PERIOD);
  EXPECT_EQ(server->manager->getWakeupCount(), settled);
  EXPECT_EQ(settled - before, 1u) << "the round that sent the package also dropped write interest";
}

TEST_F(UnixIpcManagerTest, ClosedConnectionIsForgottenAndItsNumberStartsClean) {
  serve(1);
  const int first = server->connected()[0];
  // Half a frame stays in the read buffer of the connection.
  ASSERT_TRUE(raw[0].Send(Frame(2, "never completed").substr(0, 9)));
  ASSERT_TRUE(WaitUntil([&] { return server->reads == 1; }));
  raw[0].Close();
  ASSERT_TRUE(WaitUntil([&] { return server->closed().size() == 1; }));
  EXPECT_THAT(server->closed(), ElementsAre(first));
  EXPECT_FALSE(server->manager->writeDataNow(first)) << "unknown after close";

  ASSERT_TRUE(raw[0].Connect());
  ASSERT_TRUE(WaitUntil([&] { return server->connected().size() == 2; }));
  ASSERT_EQ(server->connected()[1], first) << "the kernel reuses the lowest free number";
  ASSERT_TRUE(raw[0].Send(Frame(2, "fresh")));
  ASSERT_TRUE(WaitUntil([&] { return server->received().size() == 1; }));
  EXPECT_THAT(server->received(), ElementsAre("fresh"));
  std::this_thread::sleep_for(QUIET_PERIOD);
  EXPECT_EQ(server->closed().size(), 1u) << "one close per connection";
}

TEST_F(UnixIpcManagerTest, FailingReadHandlerClosesTheConnectionOnce) {
  serve(1);
  kelo_test::LogCapture log;
  ASSERT_TRUE(raw[0].Send(Frame(2, "fail") + Frame(2, "dropped")));
  EXPECT_FALSE(raw[0].Next()) << "the server closed";
  ASSERT_TRUE(WaitUntil([&] { return server->closed().size() == 1; }));
  EXPECT_TRUE(log.contains("[UnixIpcManager] Callback ipc read handler failed"));
  std::this_thread::sleep_for(QUIET_PERIOD);
  EXPECT_EQ(server->closed().size(), 1u);
  EXPECT_THAT(server->received(), ElementsAre("fail"));
}

TEST_F(UnixIpcManagerTest, LostListeningSocketIsRecreated) {
  serve(1);
  kelo_test::LogCapture log;
  const int listening = ListeningSocket();
  ASSERT_NE(listening, -1);
  ASSERT_EQ(shutdown(listening, SHUT_RDWR), 0);
  ASSERT_TRUE(WaitUntil([&] { return server->closed().size() == 1; }));
  EXPECT_TRUE(log.contains("[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (kelo_ipc_test)"));

  kelo_test::IpcClient again(SOCKET_NAME);
  ASSERT_TRUE(again.Connect());
  ASSERT_TRUE(WaitUntil([&] { return server->connected().size() == 2; }));
  ASSERT_TRUE(again.Send(Frame(2, "new listener")));
  ASSERT_TRUE(WaitUntil([&] { return server->received().size() == 1; }));
}

TEST_F(UnixIpcManagerTest, ClientWaitsForItsServerAndStopCutsTheRetryShort) {
  kelo_test::LogCapture log;
  auto client = std::make_unique<Endpoint>(false);
  ASSERT_TRUE(client->manager->start());
  ASSERT_TRUE(WaitUntil([&] { return log.contains("[UnixIpcManager] Connect failed: "); }));
  EXPECT_TRUE(log.contains("Wait 5 senconds"));

  // Found on the next attempt, one retry interval later.
  serve(0);
  ASSERT_TRUE(WaitUntil([&] { return client->connected().size() == 1 && server->connected().size() == 1; }));
  client->send(client->connected()[0], "hello server");
  ASSERT_TRUE(WaitUntil([&] { return server->received().size() == 1; }));

  // The server goes away: the client sees the close and starts retrying.
  const int before = log.count("[UnixIpcManager] Connect failed: ");
  server.reset();
  ASSERT_TRUE(WaitUntil([&] { return client->closed().size() == 1; }));
  ASSERT_TRUE(WaitUntil([&] { return log.count("[UnixIpcManager] Connect failed: ") == before + 1; }));
  const auto stopAt = std::chrono::steady_clock::now();
  client.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - stopAt, UnixIpcManager::CONNECT_RETRY_INTERVAL)
      << "destruction ends a pending retry instead of sleeping it out";
}

}  // namespace
