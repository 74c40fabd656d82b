// Fuzzes the request path of a subscribed connection as the service runs
// it: the real KeloBpfService endpoint (its IPC thread, request handling,
// per-connection queues and the observer registry) on a real Unix socket,
// while this thread publishes events through the registry as a pump does.
//
// The fuzzer's bytes are decoded by the read-path script decoder
// (kelo_bpf_ipc_fuzz_script.h) and its ops are read here as a client's:
//   request         a request of the op's code; its argument (event type or
//                   pacing switch) is picked by the op's nibble; nibble 15
//                   sends a dataSize that disagrees with the request's size
//   response, 2, 3, packages a client has no business sending: dropped by
//   unknown type    the service; a type-3 frame with nibble 15 carries a
//                   level-2 size that disagrees with its length field
//   damage          a length field that can never be received, then the
//                   client hangs up and connects again
//   truncated       the frame's first bytes, then the client hangs up
//   deliver         publishes events: (chunk % 8) + 1 records of the type
//                   picked by chunk / 8
//   spurious        waits for everything owed so far
// The oracle: every request is answered once, in order, with its reqId and
// the result its code and argument call for (0 for subscribe, unsubscribe
// and pacing 0/1 with an argument, -1 otherwise); events arrive exactly for
// the types subscribed when they were published, whole and in order,
// interleaved with the answers as they were queued; a damaged request or
// size field closes the connection and is counted once in badFramesClosed;
// no package comes that is not owed. A failed oracle aborts with "service
// fuzzer oracle: ...".
//
// The error log lives under /data: run only inside scripts/sandbox.sh.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <optional>
#include <set>
#include <string>

#include "fuzz/kelo_bpf_ipc_fuzz_script.h"
#include "service/kelo_bpf_service.h"

namespace {

using Kelo::Bpf::EventManager;
using Kelo::Bpf::KeloBpfService;
using kelo_fuzz::FuzzOp;
using kelo_fuzz::FuzzScript;
using kelo_fuzz::OpKind;

// Private to the sandbox's network namespace.
constexpr char SOCKET_NAME[] = "kelo_service_request_fuzzer";
// Event types a request's nibble picks: raw, derived, the loss report and
// types nobody publishes; 0 and 1 double as the pacing switch.
constexpr int32_t EVENT_TYPES[15] = {0, 1, 2, 3, 5, 6, 7, 50001, 50002, 50004, 50005, -1, 8, 49999, 0x7FFFFFFF};
// Types the deliver op publishes.
constexpr int32_t PUBLISHED_TYPES[8] = {0, 2, 3, 6, 50001, 50002, 50005, 12345};
constexpr uint8_t DAMAGED_NIBBLE = 15;
constexpr size_t MAX_OPS = 96;
constexpr size_t MAX_EVENTS = 2048;
constexpr uint32_t MAX_PAYLOAD = 4096;
// Long: the fuzzer runs niced beside builds, and a starved process must not
// look like a service that never answers.
constexpr int ANSWER_TIMEOUT_MS = 60000;

#define ORACLE(cond, ...)                                     \
  do {                                                        \
    if (!(cond)) {                                            \
      fprintf(stderr, "service fuzzer oracle: " __VA_ARGS__); \
      fputc('\n', stderr);                                    \
      abort();                                                \
    }                                                         \
  } while (0)

std::string U32(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), sizeof(value)); }

// A frame: length field, level-2 header, payload; `sizeSkew` is added to
// the level-2 size only.
std::string Frame(uint32_t type, const std::string& payload, uint32_t sizeSkew = 0) {
  const auto size = static_cast<uint32_t>(payload.size());
  return U32(size + 8) + U32(type) + U32(size + sizeSkew) + payload;
}

// A package owed to the client.
struct Owed {
  bool response = false;
  uint32_t reqId = 0;
  int32_t result = 0;
  std::string record;  // events: the record's bytes
};

class Connection {
 public:
  Connection() {
    fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, SOCKET_NAME, sizeof(SOCKET_NAME) - 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof(SOCKET_NAME));
    for (int attempt = 0; connect(fd_.get(), reinterpret_cast<sockaddr*>(&addr), size) != 0; ++attempt) {
      ORACLE(attempt < 1000, "cannot connect: %s", strerror(errno));
      usleep(10000);
    }
  }

  void send(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = write(fd_.get(), bytes.data() + done, bytes.size() - done);
      // The service may have closed the connection already (damage).
      if (n <= 0) return;
      done += static_cast<size_t>(n);
    }
  }

  // The next package's type and payload; false at end of stream.
  bool next(uint32_t* type, std::string* payload) {
    uint32_t size = 0;
    while (pending_.size() < 4 || pending_.size() < 4 + (memcpy(&size, pending_.data(), 4), size)) {
      pollfd readable = {fd_.get(), POLLIN, 0};
      const int ready = poll(&readable, 1, ANSWER_TIMEOUT_MS);
      ORACLE(ready > 0, "nothing came for %d ms", ANSWER_TIMEOUT_MS);
      char chunk[8192];
      const ssize_t n = read(fd_.get(), chunk, sizeof(chunk));
      if (n <= 0) return false;
      pending_.append(chunk, static_cast<size_t>(n));
    }
    ORACLE(size >= 8, "package of %u bytes", size);
    memcpy(type, pending_.data() + 4, 4);
    uint32_t payloadSize = 0;
    memcpy(&payloadSize, pending_.data() + 8, 4);
    ORACLE(payloadSize == size - 8, "level-2 size %u in a package of %u", payloadSize, size);
    payload->assign(pending_, 12, size - 8);
    pending_.erase(0, 4 + size);
    return true;
  }

 private:
  android::base::unique_fd fd_;
  std::string pending_;
};

class Harness {
 public:
  explicit Harness(KeloBpfService* service) : service_(service) {}

  void run(const FuzzScript& script) {
    size_t ops = 0;
    for (const FuzzOp& op : script.ops) {
      if (++ops > MAX_OPS) break;
      step(op);
    }
    // Whatever is owed arrives, and nothing else before a last answer.
    request(0, 0, 4, false);
    settle();
  }

 private:
  void step(const FuzzOp& op) {
    switch (op.kind) {
      case OpKind::REQUEST: {
        const int32_t argument = EVENT_TYPES[op.argument % 15];
        const uint32_t dataSize = op.payloadLength - static_cast<uint32_t>(sizeof(KeloReqIpcPackageHeader));
        request(op.requestCode, argument, dataSize > MAX_PAYLOAD ? MAX_PAYLOAD : dataSize,
                op.argument == DAMAGED_NIBBLE);
        break;
      }
      case OpKind::RESPONSE:
      case OpKind::UNKNOWN_TYPE:
        connection_->send(Frame(op.type, std::string(op.payloadLength % MAX_PAYLOAD, 'r')));
        break;
      case OpKind::APPLICATION:
        if (op.argument == DAMAGED_NIBBLE) {
          damaged(Frame(op.type, std::string(op.payloadLength % MAX_PAYLOAD, 'a'), 1));
        } else {
          connection_->send(Frame(op.type, std::string(op.payloadLength % MAX_PAYLOAD, 'a')));
        }
        break;
      case OpKind::DAMAGE:
        connection_->send(U32(op.damagedLength) + std::string(op.garbageLength, 'g'));
        reconnect();
        break;
      case OpKind::TRUNCATED: {
        const std::string frame = Frame(op.type, std::string(op.payloadLength % MAX_PAYLOAD, 't'));
        connection_->send(frame.substr(0, op.keptBytes % frame.size()));
        reconnect();
        break;
      }
      case OpKind::DELIVER:
        publish(PUBLISHED_TYPES[(op.chunk / 8) % 8], op.chunk % 8 + 1);
        break;
      case OpKind::SPURIOUS_READABLE:
        settle();
        break;
    }
  }

  void request(uint32_t code, int32_t argument, uint32_t dataSize, bool damagedSize) {
    const uint32_t reqId = nextReqId_++;
    std::string data = U32(static_cast<uint32_t>(argument));
    data.resize(dataSize, 'd');
    const std::string payload = U32(reqId) + U32(code) + U32(dataSize + (damagedSize ? 1 : 0)) + data;
    if (damagedSize) {
      damaged(Frame(IPC_PACKAGE_TYPE_REQUEST, payload));
      return;
    }
    connection_->send(Frame(IPC_PACKAGE_TYPE_REQUEST, payload));
    const bool hasArgument = dataSize >= sizeof(argument);
    int32_t result = -1;
    if (hasArgument && (code == Kelo::Bpf::REQ_ADD_OBSERVER_EVENT || code == Kelo::Bpf::REQ_DEL_OBSERVER_EVENT ||
                        (code == Kelo::Bpf::REQ_SET_PACING && (argument == 0 || argument == 1)))) {
      result = 0;
    }
    if (result == 0 && code == Kelo::Bpf::REQ_ADD_OBSERVER_EVENT) subscribed_.insert(argument);
    if (result == 0 && code == Kelo::Bpf::REQ_DEL_OBSERVER_EVENT) subscribed_.erase(argument);
    owed_.push_back(Owed{true, reqId, result, {}});
    changed_ = true;
  }

  // Events are published once every subscription change asked for so far
  // took effect, so that which of them are owed is known.
  void publish(int32_t type, uint32_t count) {
    if (changed_) settle();
    for (uint32_t i = 0; i < count && published_ < MAX_EVENTS; ++i, ++published_) {
      std::string record = U32(static_cast<uint32_t>(type)) + U32(published_);
      record.resize(8 + (published_ % 5) * 4, static_cast<char>(published_));
      std::string copy = record;
      EventManager::GetInstance()->AppendEvent(copy.data(), static_cast<unsigned int>(copy.size()));
      if (subscribed_.count(type) != 0) owed_.push_back(Owed{false, 0, 0, record});
    }
  }

  // Reads until nothing is owed.
  void settle() {
    while (!owed_.empty()) {
      uint32_t type = 0;
      std::string payload;
      ORACLE(connection_->next(&type, &payload), "connection closed with %zu packages owed", owed_.size());
      const Owed owed = owed_.front();
      owed_.pop_front();
      if (owed.response) {
        ORACLE(type == IPC_PACKAGE_TYPE_RESPONSE && payload.size() >= 12,
               "package of type %u (%zu bytes) where the answer to %u was owed", type, payload.size(), owed.reqId);
        uint32_t words[3];
        memcpy(words, payload.data(), sizeof(words));
        ORACLE(words[0] == owed.reqId && static_cast<int32_t>(words[1]) == owed.result && words[2] == 0 &&
                   payload.size() == 12,
               "answer %u/%d where %u/%d was owed", words[0], static_cast<int32_t>(words[1]), owed.reqId, owed.result);
      } else {
        ORACLE(type == Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT && payload == owed.record,
               "package of type %u (%zu bytes) where an event of %zu bytes was owed", type, payload.size(),
               owed.record.size());
      }
    }
    changed_ = false;
  }

  // A frame the service must refuse by closing the connection, counted once.
  void damaged(const std::string& frame) {
    const uint64_t before = service_->badFramesClosed();
    connection_->send(frame);
    // What was owed may come first (or be dropped with the connection).
    uint32_t type = 0;
    std::string payload;
    while (connection_->next(&type, &payload)) {
      ORACLE(!owed_.empty(), "package of type %u after a damaged frame", type);
      owed_.pop_front();
    }
    ORACLE(service_->badFramesClosed() == before + 1, "damaged frame counted %llu times",
           static_cast<unsigned long long>(service_->badFramesClosed() - before));
    owed_.clear();
    fresh();
  }

  void reconnect() {
    owed_.clear();
    fresh();
  }

  void fresh() {
    connection_.emplace();
    subscribed_.clear();
    changed_ = false;
  }

  KeloBpfService* const service_;
  std::optional<Connection> connection_{std::in_place};
  std::set<int32_t> subscribed_;
  std::deque<Owed> owed_;
  bool changed_ = false;
  uint32_t nextReqId_ = 1;
  uint32_t published_ = 0;
};

KeloBpfService* service = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  signal(SIGPIPE, SIG_IGN);
  Kelo::Bpf::KeloBpfServiceConfig config;
  config.socketName = SOCKET_NAME;
  service = KeloBpfService::GetInstance(config);
  // The kernel side is never declared ready: the endpoint runs, the pumps
  // wait, and the only events are this harness's.
  service->start();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Harness(service).run(kelo_fuzz::DecodeFuzzScript(data, size));
  return 0;
}
