// Fuzzes the receiving side of the package protocol as the service runs it:
// a server UnixIpcManager accepts a real Unix stream connection and receives
// into the connection's read buffer (compacting it first and closing the
// connection on errors when the input asks for the service's settings), its
// readable hook frames the buffer with CheckIpcPackageComplete and
// dispatches level-2 packages through IpcPackageHandler, requests are
// answered through an IpcPackageManager queue, and responses go to
// IpcReqCallBackManager.
//
// The fuzzer's bytes are decoded into a script (kelo_bpf_ipc_fuzz_script.h)
// of consistent frames, damaged length fields, a final frame cut short and
// delivery steps of fuzz-chosen sizes. For each step the harness writes the
// step's bytes into the socket (up to the buffer's free space, or more, which
// later receives take) and runs the manager's readable callback once.
//
// Besides the sanitizers, the harness checks what the reader does against
// the stream it was given, and aborts with "read fuzzer oracle: ..." when
// they disagree: every handled frame arrives whole, once, in order, at a
// frame boundary; frames are lost only when the reader drops its buffer
// (damage, a handler's -1, a failed receive, a full uncompacted buffer) or,
// closing on errors, the connection (a handler's -1, a failed receive);
// damage is recorded once per damaged length in the error log; a response
// reaches exactly the callback registered for its id; every request is
// answered in order; no whole frame is left unread at the end.
//
// When the reader drops its buffer in the middle of an item, the harness
// takes the rest of that item out of the socket or never writes it, and
// after a closed connection the peer connects again and goes on with the
// next item. A reader that went on with the rest would take payload bytes
// for lengths, and such frames end in the reader's fatal size checks, which
// abort on purpose and would hide real faults.
//
// The reader's error log lives under /data: run only inside
// scripts/sandbox.sh, which mounts a private tmpfs there.
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/kelo_bpf_ipc_fuzz_script.h"
#include "utils/kelo_bpf_error_log.h"
#include "utils/kelo_bpf_ipc_helper.h"

namespace {

using kelo_fuzz::FuzzOp;
using kelo_fuzz::FuzzScript;
using kelo_fuzz::OpKind;

constexpr uint32_t SECOND_LEVEL_HEADER_SIZE = sizeof(KeloIpcSecondLevelPackageHeader);
constexpr uint32_t REQUEST_HEADER_SIZE = sizeof(KeloReqIpcPackageHeader);
constexpr uint32_t FRAME_OVERHEAD = IPC_FRAME_HEADER_SIZE + SECOND_LEVEL_HEADER_SIZE;
// The service's subscription codes; any other code is answered with -1.
constexpr uint32_t REQ_ADD_OBSERVER_EVENT = 51;
constexpr uint32_t REQ_DEL_OBSERVER_EVENT = 52;
// Bounds that keep one input fast; ops beyond them are ignored.
constexpr size_t MAX_STREAM_BYTES = 256 * 1024;
constexpr size_t MAX_ITEMS = 1024;
constexpr int MAX_DAMAGES = 8;
// Bytes written ahead of the reader, well below the socket's capacity.
constexpr size_t MAX_BYTES_IN_SOCKET = 64 * 1024;
// Ids of responses sent without a registered callback, far from the ids
// that getReqId hands out.
constexpr uint32_t UNREGISTERED_ID_BASE = 0x80000000;
constexpr char MANAGER_NAME[] = "BpfFuzzTr";
// Private to the sandbox's network namespace.
constexpr char SOCKET_NAME[] = "kelo_read_fuzzer";

#define ORACLE(cond, ...)                                  \
  do {                                                     \
    if (!(cond)) {                                         \
      fprintf(stderr, "read fuzzer oracle: " __VA_ARGS__); \
      fputc('\n', stderr);                                 \
      abort();                                             \
    }                                                      \
  } while (0)

// One item of the stream as the peer wrote it.
struct StreamItem {
  size_t offset = 0;
  // Whole frame on the wire; a truncated frame counts its full length.
  size_t wireLength = 0;
  bool damage = false;
  bool truncated = false;
  // A handler sees it: a frame of type 0-3 whose handler is not empty.
  bool handled = false;
  uint32_t type = 0;
  int handlerResult = 0;
  uint32_t reqId = 0;
  uint32_t requestCode = 0;
  int32_t responseResult = 0;
};

// Payload bytes: a pattern tied to the stream position, so that bytes read
// at the wrong place never look right.
char PatternByte(size_t position) { return static_cast<char>((position * 131u) ^ (position >> 7)); }

cpu_set_t FirstProcessor() {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  return set;
}

int CountRecords(const std::string& text, int code) {
  const std::string needle = "ErrorCode: " + std::to_string(code) + "\n";
  int found = 0;
  for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) ++found;
  return found;
}

class ReadPathHarness {
 public:
  explicit ReadPathHarness(const FuzzScript& script)
      : script_(script),
        manager_(true, static_cast<int>(script.bufferSize), SOCKET_NAME, hooks(), MANAGER_NAME, FirstProcessor(), 1, 1),
        packageHandler_(handlers()) {
    ORACLE(manager_.createServer(), "createServer failed");
    connectPeer();
  }

  void run() {
    for (const FuzzOp& op : script_.ops) {
      switch (op.kind) {
        case OpKind::DELIVER:
          if (pending()) receive(op.chunk, false);
          break;
        case OpKind::SPURIOUS_READABLE:
          receive(0, true);
          break;
        default:
          append(op);
          break;
      }
    }
    while (pending()) receive(0, false);
    checkNothingWholeLeft();
    checkPeerClose();
    checkResponses();
    checkErrorLog();
  }

 private:
  IpcHandlerState hooks() {
    IpcHandlerState state;
    state.compactReadBuffer = script_.compactReadBuffer;
    state.closeOnError = script_.closeOnError;
    state.onReadable = [this](int fd, BufferState* readBuffer) { return onReadable(fd, readBuffer); };
    state.onConnection = [this](int fd) {
      serverFd_ = fd;
      return 0;
    };
    return state;
  }

  std::map<uint32_t, IpcPackageHandlerFunc> handlers() {
    std::map<uint32_t, IpcPackageHandlerFunc> map;
    for (uint32_t type = 0; type <= IPC_PACKAGE_TYPE_MAX; ++type) {
      map[type] = [this, type](int, char* data, uint32_t size) { return onPackage(type, data, size); };
    }
    if (script_.emptyType2Handler) map[2] = IpcPackageHandlerFunc();
    return map;
  }

  // ---- Writing the stream.

  void append(const FuzzOp& op) {
    if (streamEnded_ || items_.size() >= MAX_ITEMS) return;
    if (op.kind == OpKind::DAMAGE) {
      if (damageItems_ >= MAX_DAMAGES) return;
      const size_t wire = IPC_FRAME_HEADER_SIZE + op.garbageLength;
      if (stream_.size() + wire > MAX_STREAM_BYTES) return;
      StreamItem item;
      item.offset = stream_.size();
      item.wireLength = wire;
      item.damage = true;
      appendU32(op.damagedLength);
      appendPattern(op.garbageLength);
      items_.push_back(item);
      ++damageItems_;
      return;
    }

    const size_t wire = FRAME_OVERHEAD + op.payloadLength;
    const size_t kept = op.kind == OpKind::TRUNCATED ? op.keptBytes : wire;
    if (stream_.size() + kept > MAX_STREAM_BYTES) return;
    StreamItem item;
    item.offset = stream_.size();
    item.wireLength = wire;
    item.truncated = op.kind == OpKind::TRUNCATED;
    item.type = op.type;
    item.handlerResult = op.handlerResult;
    item.handled = op.type <= IPC_PACKAGE_TYPE_MAX && !(op.type == 2 && script_.emptyType2Handler);
    item.requestCode = op.requestCode;
    item.responseResult = op.responseResult;
    if (op.kind == OpKind::REQUEST) item.reqId = nextRequestId_++;
    if (op.kind == OpKind::RESPONSE) item.reqId = responseId(op);

    appendU32(SECOND_LEVEL_HEADER_SIZE + op.payloadLength);
    appendU32(op.type);
    appendU32(op.payloadLength);
    uint32_t patternBytes = op.payloadLength;
    if (op.type <= IPC_PACKAGE_TYPE_RESPONSE) {
      const uint32_t dataSize = op.payloadLength - REQUEST_HEADER_SIZE;
      const uint32_t secondWord =
          op.type == IPC_PACKAGE_TYPE_REQUEST ? item.requestCode : static_cast<uint32_t>(item.responseResult);
      appendU32(item.reqId);
      appendU32(secondWord);
      appendU32(dataSize);
      patternBytes = dataSize;
    }
    appendPattern(patternBytes);
    if (item.truncated) {
      stream_.resize(item.offset + kept);
      streamEnded_ = true;
    }
    items_.push_back(item);
  }

  uint32_t responseId(const FuzzOp& op) {
    uint32_t id;
    if (op.reusePreviousId && haveResponseId_) {
      id = lastResponseId_;
    } else if (op.registerCallback) {
      id = callbacks_.getReqId();
      ORACLE(id == issuedIds_, "getReqId gave %u, expected %u", id, issuedIds_);
      ++issuedIds_;
    } else {
      id = UNREGISTERED_ID_BASE + unregisteredIds_++;
    }
    if (op.registerCallback) {
      const bool fresh =
          callbacks_.addIpcReqCallBack(id, [this](uint32_t reqId, int result, char* data, uint32_t dataSize) {
            return onResponseCallback(reqId, result, data, dataSize);
          });
      ORACLE(fresh == (pendingIds_.count(id) == 0), "addIpcReqCallBack(%u) returned %d", id, fresh);
      pendingIds_.insert(id);
    }
    lastResponseId_ = id;
    haveResponseId_ = true;
    return id;
  }

  void appendU32(uint32_t value) { stream_.append(reinterpret_cast<const char*>(&value), sizeof(value)); }

  void appendPattern(size_t count) {
    for (size_t i = 0; i < count; ++i) stream_.push_back(PatternByte(stream_.size()));
  }

  // ---- Delivering it.

  // A new connection, accepted by the manager as its worker would on a
  // readable listening socket.
  void connectPeer() {
    peerEnd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, SOCKET_NAME, strlen(SOCKET_NAME));
    const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + strlen(SOCKET_NAME));
    ORACLE(connect(peerEnd_.get(), reinterpret_cast<sockaddr*>(&addr), length) == 0, "connect: %s", strerror(errno));
    serverFd_ = -1;
    ORACLE(manager_.onServerReadableCallback(epoll_event{}) == 1 && serverFd_ != -1, "the manager did not accept");
    readBuffer_ = nullptr;
  }

  bool pending() const { return sent_ < stream_.size() || inSocket_ != 0; }

  // Writes the next bytes into the socket, unless told to write nothing, and
  // runs the manager's readable callback once. `chunk` 0 writes what fills
  // the free space of the buffer; a larger chunk leaves bytes in the socket
  // for later receives.
  void receive(size_t chunk, bool writeNothing) {
    const size_t bufferSize = script_.bufferSize;
    // What the manager does to the buffer before it receives.
    size_t used = 0;
    if (readBuffer_ != nullptr) {
      if (script_.compactReadBuffer) {
        bufferBase_ += readBuffer_->bufferCursor;
        used = readBuffer_->bufferDataCursor - readBuffer_->bufferCursor;
      } else if (readBuffer_->bufferDataCursor == bufferSize) {
        // A full buffer is dropped before the receive.
        resync();
      } else {
        used = readBuffer_->bufferDataCursor;
      }
    }
    ORACLE(bufferBase_ + used == sent_ - inSocket_, "harness lost track of the buffer");
    ORACLE(used < bufferSize, "the read buffer is full of unread bytes that hold no whole frame");
    const size_t free = bufferSize - used;

    size_t n = writeNothing ? 0 : std::min(stream_.size() - sent_, MAX_BYTES_IN_SOCKET - inSocket_);
    n = std::min(n, chunk != 0 ? chunk : (free > inSocket_ ? free - inSocket_ : 0));
    if (n != 0) {
      // The kernel charges a stream socket's buffer per message, not per
      // byte: after many small sends it takes fewer bytes than
      // MAX_BYTES_IN_SOCKET, or none. The oracle follows what it took.
      const ssize_t taken = send(peerEnd_.get(), stream_.data() + sent_, n, MSG_NOSIGNAL | MSG_DONTWAIT);
      ORACLE(taken > 0 || (taken == -1 && errno == EAGAIN), "send of %zu bytes failed: %s", n, strerror(errno));
      n = taken > 0 ? static_cast<size_t>(taken) : 0;
      sent_ += n;
      inSocket_ += n;
    }
    // One receive takes what is there, up to the free space.
    const size_t received = std::min(free, inSocket_);
    inSocket_ -= received;
    deliveredEnd_ = sent_ - inSocket_;

    handlerFailed_ = false;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = serverFd_;
    const int result = manager_.onClientReadableCallback(event);
    const bool failed = received == 0 || handlerFailed_;
    const int expected = failed && script_.closeOnError ? -2 : received == 0 ? -1 : 0;
    ORACLE(result == expected, "readable callback returned %d, expected %d", result, expected);
    if (failed && script_.closeOnError) {
      // The bytes still in the old connection are gone with it.
      connectPeer();
      sent_ -= inSocket_;
      inSocket_ = 0;
      resync();
      return;
    }
    int left = 0;
    ORACLE(ioctl(serverFd_, FIONREAD, &left) == 0 && static_cast<size_t>(left) == inSocket_,
           "a receive with %zu bytes free left %d bytes of %zu in the socket", free, left, inSocket_ + received);

    // Nothing the reader does besides dropping the buffer empties a buffer
    // that has just received bytes.
    const bool dropped = readBuffer_ == nullptr ? received == 0 : readBuffer_->bufferDataCursor == 0;
    if (!dropped) return;
    if (received != 0 && !handlerFailed_) expectDamageAtReader();
    resync();
  }

  // The reader dropped its buffer: it goes on with the next item, the rest
  // of the current one is taken out of the socket or never written.
  void resync() {
    const size_t readerEnd = sent_ - inSocket_;
    const size_t next = firstItemFrom(readerEnd);
    const size_t resume = next == items_.size() ? stream_.size() : items_[next].offset;
    size_t skip = std::min(resume - readerEnd, inSocket_);
    while (skip != 0) {
      char scratch[4096];
      const ssize_t got = recv(serverFd_, scratch, std::min(skip, sizeof(scratch)), MSG_DONTWAIT);
      ORACLE(got > 0, "skipping bytes in the socket failed: %s", strerror(errno));
      skip -= static_cast<size_t>(got);
      inSocket_ -= static_cast<size_t>(got);
    }
    sent_ = std::max(sent_, resume);
    nextItem_ = next;
    bufferBase_ = resume;
  }

  // Index of the first item that starts at or after `offset`.
  size_t firstItemFrom(size_t offset) const {
    const auto it = std::lower_bound(items_.begin(), items_.end(), offset,
                                     [](const StreamItem& item, size_t at) { return item.offset < at; });
    return static_cast<size_t>(it - items_.begin());
  }

  // Index of the first item from nextItem_ on that the reader may not pass
  // silently: unhandled whole frames that end by `end` are skipped.
  size_t firstNoticeableItem(size_t end) const {
    size_t i = nextItem_;
    while (i < items_.size() && !items_[i].damage && !items_[i].handled && !items_[i].truncated &&
           items_[i].offset + items_[i].wireLength <= end) {
      ++i;
    }
    return i;
  }

  void expectDamageAtReader() {
    const size_t i = firstNoticeableItem(deliveredEnd_);
    ORACLE(i < items_.size() && items_[i].damage && items_[i].offset + IPC_FRAME_HEADER_SIZE <= deliveredEnd_,
           "the read buffer was dropped at stream offset %zu without damage, handler failure or failed receive",
           deliveredEnd_);
    ++damagesSeen_;
  }

  // ---- The reader's side.

  int onReadable(int fd, BufferState* readBuffer) {
    ORACLE(readBuffer_ == nullptr || readBuffer_ == readBuffer, "the read buffer moved");
    readBuffer_ = readBuffer;
    if (script_.clientLoop) return packageHandler_.handleAllIpcPackageInBuffer(fd, readBuffer) ? 0 : -1;
    // The service's readable hook: the framing loop inline, each frame handed
    // to handleSecondIpcPackage.
    while (!readBuffer->empty()) {
      uint32_t numSize = 0;
      uint32_t dataSize = 0;
      if (!CheckIpcPackageComplete(readBuffer, &numSize, &dataSize)) return 0;
      CHECK(readBuffer->read(numSize) != nullptr);
      char* body = readBuffer->read(dataSize);
      if (packageHandler_.handleSecondIpcPackage(fd, body, dataSize) == -1) return -1;
    }
    return 0;
  }

  // A handler's view of one dispatched package; checks it is the next one the
  // stream holds, and returns the result chosen for it.
  int onPackage(uint32_t type, char* data, uint32_t size) {
    ORACLE(readBuffer_ != nullptr, "a package was dispatched outside a receive");
    ORACLE(!handlerFailed_, "a package was dispatched after a handler failed in the same receive");
    const char* frame = data - FRAME_OVERHEAD;
    const size_t offset = bufferBase_ + static_cast<size_t>(frame - readBuffer_->buffer.data());
    const size_t index = firstItemFrom(offset);
    ORACLE(index < items_.size() && items_[index].offset == offset,
           "a package was dispatched at stream offset %zu, where no frame starts", offset);
    ORACLE(index >= nextItem_, "frame %zu was dispatched again", index);
    ORACLE(firstNoticeableItem(offset) == index, "frame %zu was dispatched, an earlier one was skipped", index);
    const StreamItem& item = items_[index];
    ORACLE(!item.damage && !item.truncated && item.handled && item.type == type,
           "frame %zu (type %u) went to the handler of type %u", index, item.type, type);
    ORACLE(size == item.wireLength - FRAME_OVERHEAD && offset + item.wireLength <= deliveredEnd_ &&
               memcmp(frame, stream_.data() + offset, item.wireLength) == 0,
           "frame %zu arrived with wrong bytes", index);
    nextItem_ = index + 1;

    if (type == IPC_PACKAGE_TYPE_REQUEST) answerRequest(data, size);
    if (type == IPC_PACKAGE_TYPE_RESPONSE) deliverResponse(item, data);
    if (item.handlerResult == -1) handlerFailed_ = true;
    return item.handlerResult;
  }

  // As the service answers a request: the fatal size check, then a response
  // with the request's id queued for the connection.
  void answerRequest(char* data, uint32_t size) {
    KeloReqIpcPackageHeader request;
    memcpy(&request, data, sizeof(request));
    CHECK(request.dataSize == size - sizeof(KeloReqIpcPackageHeader));
    const bool known = request.reqType == REQ_ADD_OBSERVER_EVENT || request.reqType == REQ_DEL_OBSERVER_EVENT;
    KeloRespIpcPackage response{request.reqId, known ? 0 : -1, 0, nullptr};
    responses_.appendRespIpcPackage(&response);
    expectedResponses_.emplace_back(response.reqId, response.result);
  }

  void deliverResponse(const StreamItem& item, char* data) {
    const bool expected = pendingIds_.erase(item.reqId) != 0;
    currentResponse_ = &item;
    callbackRan_ = false;
    const bool handled = callbacks_.handleReqCallBack(reinterpret_cast<KeloRespIpcPackage*>(data));
    currentResponse_ = nullptr;
    ORACLE(handled == expected && callbackRan_ == expected, "response %u: handled %d, callback %d, expected %d",
           item.reqId, handled, callbackRan_, expected);
  }

  int onResponseCallback(uint32_t reqId, int result, char* data, uint32_t dataSize) {
    const StreamItem* item = currentResponse_;
    ORACLE(item != nullptr, "a response callback ran outside handleReqCallBack");
    const size_t dataOffset = item->offset + FRAME_OVERHEAD + REQUEST_HEADER_SIZE;
    ORACLE(reqId == item->reqId && result == item->responseResult &&
               dataSize == item->wireLength - FRAME_OVERHEAD - REQUEST_HEADER_SIZE &&
               memcmp(data, stream_.data() + dataOffset, dataSize) == 0,
           "response %u reached its callback with wrong arguments", item->reqId);
    callbackRan_ = true;
    return 0;
  }

  // ---- After the stream.

  void checkNothingWholeLeft() {
    const size_t readerAt = bufferBase_ + (readBuffer_ != nullptr ? readBuffer_->bufferCursor : 0);
    const size_t i = firstNoticeableItem(readerAt);
    if (i == items_.size()) {
      ORACLE(readerAt == stream_.size(), "the reader stopped at %zu of %zu bytes", readerAt, stream_.size());
      return;
    }
    ORACLE(items_[i].offset == readerAt && items_[i].truncated,
           "item %zu at stream offset %zu is whole but was left unread (reader at %zu)", i, items_[i].offset, readerAt);
  }

  void checkPeerClose() {
    ORACLE(shutdown(peerEnd_.get(), SHUT_WR) == 0, "shutdown: %s", strerror(errno));
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP;
    event.data.fd = serverFd_;
    const int result = manager_.onClientReadableCallback(event);
    ORACLE(result == -3, "a receive after the peer closed returned %d", result);
  }

  // Drains the response queue through a write buffer as the service's
  // writeable hook does, and checks every request was answered in order.
  void checkResponses() {
    BufferState out;
    out.allocate(script_.bufferSize);
    std::vector<std::pair<uint32_t, int32_t>> answered;
    while (responses_.getIpcPackageCount() != 0) {
      if (responses_.fillNextIpcPackageToBuffer(&out)) continue;
      ORACLE(!out.empty(), "a response does not fit an empty write buffer");
      parseResponses(&out, &answered);
    }
    parseResponses(&out, &answered);
    ORACLE(answered == expectedResponses_, "%zu responses sent for %zu requests, or out of order", answered.size(),
           expectedResponses_.size());
  }

  static void parseResponses(BufferState* out, std::vector<std::pair<uint32_t, int32_t>>* answered) {
    constexpr uint32_t responseLength = SECOND_LEVEL_HEADER_SIZE + REQUEST_HEADER_SIZE;
    while (!out->empty()) {
      // Length field, level-2 header, then reqId, result, dataSize.
      uint32_t words[6];
      const char* bytes = out->read(sizeof(words));
      ORACLE(bytes != nullptr, "a partial response in the write buffer");
      memcpy(words, bytes, sizeof(words));
      ORACLE(words[0] == responseLength && words[1] == IPC_PACKAGE_TYPE_RESPONSE && words[2] == REQUEST_HEADER_SIZE &&
                 words[5] == 0,
             "malformed response frame");
      int32_t result;
      memcpy(&result, &words[4], sizeof(result));
      answered->emplace_back(words[3], result);
    }
    out->clear();
  }

  void checkErrorLog() const {
    std::ifstream file(Kelo::Bpf::ERROR_LOG_PATH);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const int records = CountRecords(text, Kelo::Bpf::ERROR_CODE_PACKAGE_DAMAGED);
    ORACLE(records == damagesSeen_, "%d damage records for %d damaged lengths", records, damagesSeen_);
  }

  const FuzzScript& script_;
  UnixIpcManager manager_;
  IpcPackageHandler packageHandler_;
  IpcReqCallBackManager callbacks_;
  IpcPackageManager responses_;
  // The accepted connection (owned by the manager) and the peer's end.
  int serverFd_ = -1;
  android::base::unique_fd peerEnd_;

  // The peer's side: every byte it means to write, and its items in order.
  std::string stream_;
  std::vector<StreamItem> items_;
  bool streamEnded_ = false;
  int damageItems_ = 0;
  uint32_t nextRequestId_ = 0;
  uint32_t issuedIds_ = 0;
  uint32_t unregisteredIds_ = 0;
  uint32_t lastResponseId_ = 0;
  bool haveResponseId_ = false;
  // Ids with a callback that has not run yet.
  std::set<uint32_t> pendingIds_;

  // The reader as the harness follows it.
  // Stream bytes written to the socket, or skipped after the reader dropped
  // its buffer, and how many of them are still in the socket.
  size_t sent_ = 0;
  size_t inSocket_ = 0;
  // Stream offset of the end of the bytes received into the buffer.
  size_t deliveredEnd_ = 0;
  // Stream offset of the read buffer's first byte.
  size_t bufferBase_ = 0;
  // First item the reader has not passed yet.
  size_t nextItem_ = 0;
  BufferState* readBuffer_ = nullptr;
  bool handlerFailed_ = false;
  int damagesSeen_ = 0;
  const StreamItem* currentResponse_ = nullptr;
  bool callbackRan_ = false;
  std::vector<std::pair<uint32_t, int32_t>> expectedResponses_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* sandboxed = getenv("KELO_IN_SANDBOX");
  if (sandboxed == nullptr || strcmp(sandboxed, "1") != 0) {
    fprintf(stderr, "the read fuzzer writes the error log under /data: run it through scripts/sandbox.sh\n");
    exit(2);
  }
  mkdir("/data/kelolog", 0775);
  mkdir("/data/kelolog/stability", 0775);
  Kelo::Bpf::InitBpfServiceErrorLog();
  // Damage and failed receives are logged with hex dumps; keep them out of
  // the fuzzer's output unless asked for.
  if (getenv("KELO_FUZZ_LOG") == nullptr) __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const FuzzScript script = kelo_fuzz::DecodeFuzzScript(data, size);
  unlink(Kelo::Bpf::ERROR_LOG_PATH);
  ReadPathHarness harness(script);
  harness.run();
  return 0;
}
