#include "utils/kelo_bpf_ipc_unix_manager.h"

#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "helper/kelo_bpf_helper_strings.h"
#include "utils/kelo_bpf_error_log.h"
#include "utils/kelo_bpf_ipc_socket.h"
#include "utils/kelo_bpf_log.h"

using Kelo::Bpf::LOG_TAG_UTILS;
using Kelo::Bpf::MutexLock;

namespace {

// The epoll loop of the manager waits without a time-out.
constexpr int EPOLL_WAIT_FOREVER = -1;

}  // namespace

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlerState,
                               const char* name, cpu_set_t cpuAffinity, int epollSize, int maxEvents)
    : socketName(std::move(socketName)),
      isServer(isServer),
      bufferSize(bufferSize > 0 ? bufferSize : 0),
      handlerState(std::move(handlerState)),
      name(name != nullptr ? name : LOG_TAG_UTILS) {
  epollManager = std::make_unique<EpollManager>(
      epollSize, maxEvents, [this] { return this->isServer ? createServer() : connect(); }, this->name, cpuAffinity,
      EPOLL_WAIT_FOREVER);
}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlerState,
                               const char* name, int epollSize, int maxEvents)
    : socketName(std::move(socketName)),
      isServer(isServer),
      bufferSize(bufferSize > 0 ? bufferSize : 0),
      handlerState(std::move(handlerState)),
      name(name != nullptr ? name : LOG_TAG_UTILS) {
  epollManager = std::make_unique<EpollManager>(
      epollSize, maxEvents, [this] { return this->isServer ? createServer() : connect(); }, this->name,
      EPOLL_WAIT_FOREVER);
}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlerState,
                               int epollSize, int maxEvents)
    : UnixIpcManager(isServer, bufferSize, std::move(socketName), std::move(handlerState), nullptr, epollSize,
                     maxEvents) {}

UnixIpcManager::~UnixIpcManager() {
  {
    MutexLock lock(stopMutex);
    stopRequested = true;
  }
  stopCondition.notify_all();
  // The epoll manager's destructor joins the worker, whose callbacks use
  // epollManager until they return; so the pointer is cleared only after
  // the deletion, not before it as reset() would. The buffers and
  // descriptors go after that.
  delete epollManager.get();
  (void)epollManager.release();
  // The listening socket closes before the accepted connections: a client
  // that sees its connection end and reconnects at once is refused instead
  // of landing in the backlog of a socket about to close.
  commFd.reset();
  connections.clear();
}

bool UnixIpcManager::start() {
  if (!epollManager) {
    KELO_LOGE(name, "[UnixIpcManager] epoll manager not exists!");
    return false;
  }
  KELO_LOGI(name, "[UnixIpcManager][start] Start epoll Manager...");
  if (isServer) {
    KELO_LOGI(name, "[UnixIpcManager][start] Create server: %s", socketName.c_str());
  } else {
    KELO_LOGI(name, "[UnixIpcManager][start] Connection to server: %s", socketName.c_str());
  }
  epollManager->start();
  return true;
}

bool UnixIpcManager::stop() {
  KELO_LOGI(name, "[UnixIpcManager][stop] Stop epoll Manager...");
  {
    MutexLock lock(stopMutex);
    stopRequested = true;
  }
  stopCondition.notify_all();
  if (!epollManager) return false;
  epollManager->stop();
  return true;
}

bool UnixIpcManager::waitForStop(std::chrono::milliseconds duration) {
  std::unique_lock<std::mutex> lock(stopMutex.native());
  // The analysis cannot see that `lock` holds stopMutex.
  return stopCondition.wait_for(lock, duration, [this]() NO_THREAD_SAFETY_ANALYSIS { return stopRequested; });
}

bool UnixIpcManager::writeDataNow(int fd) { return epollManager && epollManager->writeEventNow(fd); }

bool UnixIpcManager::notifyNeedWriteData(int fd) { return epollManager && epollManager->notifyWriteEventReady(fd); }

bool UnixIpcManager::createServer() {
  if (!isServer) {
    KELO_LOGE(name, "[UnixIpcManager] Create server in client manager");
    return false;
  }
  const int fd = CreateNonblockingServerSocket(socketName.c_str());
  if (fd == -1) {
    KELO_LOGE(name, "[UnixIpcManager] Create server Socket failed: %d, message: %s", errno, strerror(errno));
    return false;
  }
  commFd.reset(fd);
  EpollCallback callback;
  callback.readCallback = [this](epoll_event event) { return onServerReadableCallback(event); };
  callback.closeCallback = [this](epoll_event event) { return onServerCloseCallback(event); };
  return epollManager->addMonitorFd(fd, std::move(callback));
}

bool UnixIpcManager::connect() {
  if (isServer) {
    KELO_LOGE(name, "[UnixIpcManager] Create client in server manager");
    return false;
  }
  int fd = ConnectToServer(socketName.c_str());
  while (fd == -1) {
    KELO_LOGE(name, "[UnixIpcManager] Connect failed: %d, message: %s, clientFd: %d, Wait 5 senconds", errno,
              strerror(errno), fd);
    if (waitForStop(CONNECT_RETRY_INTERVAL)) return false;
    fd = ConnectToServer(socketName.c_str());
  }
  commFd.reset(fd);
  setupConnection(fd);
  return true;
}

void UnixIpcManager::setupConnection(int fd) {
  EpollCallback callback;
  callback.closeCallback = [this](epoll_event event) { return onClientCloseCallback(event); };
  if (handlerState.onReadable) {
    callback.readCallback = [this](epoll_event event) { return onClientReadableCallback(event); };
    allocateReadBufferForFd(fd);
  }
  if (handlerState.onWriteable) {
    callback.writeCallback = [this](epoll_event event) { return onCommWriteCallback(event); };
    allocateWriteBufferForFd(fd);
  }
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof(bufferSize)) == -1) {
    KELO_LOGE(name, "[UnixIpcManager] Set send buffer size failed: %d, message: %s, clientFd: %d", errno,
              strerror(errno), fd);
  }
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof(bufferSize)) == -1) {
    KELO_LOGE(name, "[UnixIpcManager] Set recv buffer size failed: %d, message: %s, clientFd: %d", errno,
              strerror(errno), fd);
  }
  if (handlerState.onWriteable) limitFillsToOneMessage(fd);
  epollManager->addMonitorFd(fd, std::move(callback));
  if (handlerState.onConnection) handlerState.onConnection(fd);
}

int UnixIpcManager::onServerReadableCallback(epoll_event /*event*/) {
  const int fd = accept4(commFd.get(), nullptr, nullptr, SOCK_CLOEXEC);
  if (fd == -1) {
    KELO_LOGE(name, "[UnixIpcManager] Accept client failed: %d, message: %s", errno, strerror(errno));
    return -1;
  }
  android::base::unique_fd client(fd);
  if (!Setnonblocking(fd)) {
    const int error = errno;
    client.reset();
    KELO_LOGE(name, "[UnixIpcManager] Setnonblocking (client) failed: %d, message: %s", error, strerror(error));
    return -1;
  }
  auto [slot, inserted] = connections.try_emplace(fd);
  // An entry left for this number would be a descriptor closed behind our
  // back; it must not close the new connection when replaced.
  if (!inserted) {
    [[maybe_unused]] const int stale = slot->second.release();
  }
  slot->second = std::move(client);
  setupConnection(fd);
  // Nothing to write on the listening socket.
  return 1;
}

int UnixIpcManager::closeFd(int fd) {
  int owned = -1;
  if (fd == commFd.get()) {
    owned = commFd.release();
  } else if (auto it = connections.find(fd); it != connections.end()) {
    owned = it->second.release();
    connections.erase(it);
  } else {
    errno = EBADF;
    return -1;
  }
  return close(owned);
}

bool UnixIpcManager::releaseConnection(int fd) {
  epollManager->delMonitorFd(fd);
  // Buffers go first: a writer on another thread then finds the connection
  // released instead of sending on a descriptor number about to be reused.
  freeBufferForFd(fd);
  if (closeFd(fd) == -1) {
    KELO_LOGE(name, "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd, errno,
              strerror(errno));
    return false;
  }
  if (handlerState.onClose) handlerState.onClose(fd);
  return true;
}

int UnixIpcManager::closeAfterError(int fd, const char* commFdLostText, const char* reconnectFailedText) {
  const bool isCommFd = fd == commFd.get();
  if (!releaseConnection(fd)) return -1;
  if (!isCommFd) return -2;
  KELO_LOGE(name, commFdLostText, socketName.c_str());
  if (!connect()) KELO_LOGE(name, reconnectFailedText, socketName.c_str());
  return -2;
}

int UnixIpcManager::onClientReadableCallback(epoll_event event) {
  const int fd = event.data.fd;
  const std::shared_ptr<BufferState> readBuffer = findReadBuffer(fd);
  if (!readBuffer) {
    KELO_LOGE(name, "[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(%d)!", fd);
    return -1;
  }
  if (handlerState.compactReadBuffer) readBuffer->compact();
  if (readBuffer->bufferDataCursor == readBuffer->bufferSize()) {
    // A full buffer without a whole frame in it can never make progress.
    readBuffer->clear();
    KELO_LOGE(name, "[UnixIpcManager] client readable callback buffer exception!");
    KELO_LOGE(name, "[UnixIpcManager] client readable cb buffersize: %zd, bufferDataCursor: %zd",
              static_cast<ssize_t>(readBuffer->bufferSize()), static_cast<ssize_t>(readBuffer->bufferDataCursor));
    KELO_LOGE(name, "[UnixIpcManager] client readable buffer hexdump: %s",
              Kelo::Bpf::ConvertToHexString(readBuffer->buffer.data(), static_cast<int>(readBuffer->bufferDataCursor))
                  .c_str());
  }
  const ssize_t received = recv(fd, readBuffer->buffer.data() + readBuffer->bufferDataCursor,
                                readBuffer->bufferSize() - readBuffer->bufferDataCursor, 0);
  // The peer closed: the hang-up handling cleans up.
  if (received == 0) return -3;
  if (received == -1) {
    KELO_LOGE(name, "[UnixIpcManager] Recv data failed: %d, message: %s", errno, strerror(errno));
    readBuffer->clear();
    if (!handlerState.closeOnError) return -1;
    return closeAfterError(fd, "[UnixIpcManager] Server socket abnormal close!! (%s)",
                           "[UnixIpcManager] Reconnect to server failed! (%s)");
  }
  readBuffer->bufferDataCursor += static_cast<size_t>(received);
  if (!handlerState.onReadable) return 0;
  if (handlerState.onReadable(fd, readBuffer.get()) != -1) return 0;
  KELO_LOGE(name, "[UnixIpcManager] Callback ipc read handler failed: %d, message: %s", errno, strerror(errno));
  readBuffer->clear();
  if (!handlerState.closeOnError) return 0;
  return closeAfterError(fd, "[UnixIpcManager] Server socket abnormal close! (%s)",
                         "[UnixIpcManager] Restart server failed! (%s)");
}

int UnixIpcManager::onCommWriteCallback(epoll_event event) {
  const int fd = event.data.fd;
  const std::shared_ptr<WriteChannel> channel = findWriteChannel(fd);
  if (!channel) {
    KELO_LOGE(name, "[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!", fd);
    return -1;
  }
  MutexLock writeLock(channel->writeLock);
  if (channel->released || !handlerState.onWriteable) {
    KELO_LOGE(name, "[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!", fd);
    return -1;
  }
  BufferState* const writeBuffer = &channel->buffer;
  const auto refill = [this, fd, writeBuffer]() {
    if (handlerState.onWriteable(fd, writeBuffer) != -1) return true;
    KELO_LOGE(name, "[UnixIpcManager] Callback ipc write handler failed: %d, message: %s", errno, strerror(errno));
    return false;
  };
  if (!refill()) return -1;
  // Nothing left: the loop drops write interest.
  if (writeBuffer->empty()) return -3;
  if (!ensureDataSend(fd, writeBuffer)) {
    KELO_LOGE(name, "[UnixIpcManager] Send ipc data failed: %d, message: %s", errno, strerror(errno));
    return -1;
  }
  // The socket took everything. Ask for more now rather than on the next
  // writable event: when nothing came, write interest is dropped at once
  // instead of after one more round of the loop that would find nothing.
  // What came goes out as far as the socket takes it without waiting, so
  // that the peer finds more than one buffer's worth each time it wakes;
  // the rest waits for the next writable event.
  for (int round = 0; round < SEND_AHEAD_ROUNDS; ++round) {
    if (!refill()) return -1;
    if (writeBuffer->empty()) return -3;
    const size_t leftSize = writeBuffer->bufferDataCursor - writeBuffer->bufferCursor;
    const ssize_t sent =
        send(fd, writeBuffer->buffer.data() + writeBuffer->bufferCursor, leftSize, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent <= 0) return 0;
    writeBuffer->bufferCursor += static_cast<size_t>(sent);
    if (!writeBuffer->empty()) return 0;
    writeBuffer->clear();
  }
  if (!refill()) return -1;
  return writeBuffer->empty() ? -3 : 0;
}

bool UnixIpcManager::ensureDataSend(int fd, BufferState* writeBuffer) {
  if (writeBuffer->empty()) {
    writeBuffer->clear();
    return true;
  }
  int tryCount = 0;
  int error = 0;
  while (true) {
    const size_t leftSize = writeBuffer->bufferDataCursor - writeBuffer->bufferCursor;
    // MSG_NOSIGNAL: producer threads call this too, not only the worker that
    // ignores SIGPIPE.
    const ssize_t sent = send(fd, writeBuffer->buffer.data() + writeBuffer->bufferCursor, leftSize, MSG_NOSIGNAL);
    if (sent > 0) {
      writeBuffer->bufferCursor += static_cast<size_t>(sent);
      if (writeBuffer->empty()) {
        writeBuffer->clear();
        return true;
      }
      continue;
    }
    error = errno;
    if (sent == -1 && error == EINTR) continue;
    if (sent == -1 && error != EAGAIN && error != EWOULDBLOCK) {
      KELO_LOGE(name, "[UnixIpcManager] Send data failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
                static_cast<ssize_t>(leftSize), error, strerror(error), fd);
      return false;
    }
    ++tryCount;
    KELO_LOGW(name, "[UnixIpcManager] Socket buffer full! tryCount: %d, message: %s", tryCount, strerror(error));
    if (tryCount > SEND_MAX_EAGAIN_RETRIES) break;
    if (tryCount == SEND_MAX_EAGAIN_RETRIES) {
      std::this_thread::sleep_for(SEND_RETRY_SLEEP);
    } else {
      sched_yield();
    }
  }
  const ssize_t cursor = static_cast<ssize_t>(writeBuffer->bufferCursor);
  const ssize_t dataCursor = static_cast<ssize_t>(writeBuffer->bufferDataCursor);
  KELO_LOGE(name, "[UnixIpcManager] Send data 10 times failed! leftSize: %zd, error: %d, message: %s, clientFd: %d",
            dataCursor - cursor, error, strerror(error), fd);
  KELO_LOGE(name, "[UnixIpcManager] Clear send buffer");
  Kelo::Bpf::RecordBpfServiceErrorInfo(
      Kelo::Bpf::ERROR_CODE_SEND_RETRIES_EXHAUSTED,
      Kelo::Bpf::StringPrintf("Send data 10 times failed. bufferCursor: %zd, bufferDataCursor: %zd", cursor,
                              dataCursor));
  writeBuffer->clear();
  return false;
}

int UnixIpcManager::onClientCloseCallback(epoll_event event) {
  const int fd = event.data.fd;
  const bool isCommFd = fd == commFd.get();
  if (!releaseConnection(fd)) return -1;
  if (isCommFd && !connect()) return -1;
  return 0;
}

int UnixIpcManager::onServerCloseCallback(epoll_event event) {
  const int fd = event.data.fd;
  const bool isCommFd = fd == commFd.get();
  epollManager->delMonitorFd(fd);
  if (!isCommFd) {
    if (handlerState.onClose) handlerState.onClose(fd);
    freeBufferForFd(fd);
  }
  if (closeFd(fd) == -1) {
    KELO_LOGE(name, "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd, errno,
              strerror(errno));
    return -1;
  }
  if (!isCommFd) return 0;
  KELO_LOGE(name, "[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (%s)", socketName.c_str());
  if (handlerState.onClose) handlerState.onClose(fd);
  if (!createServer()) {
    KELO_LOGE(name, "[UnixIpcManager] Restart server failed! (%s)", socketName.c_str());
    return -1;
  }
  return 0;
}

std::shared_ptr<BufferState> UnixIpcManager::findReadBuffer(int fd) {
  MutexLock lock(bufferMutex);
  auto it = readBuffers.find(fd);
  return it == readBuffers.end() ? nullptr : it->second;
}

std::shared_ptr<UnixIpcManager::WriteChannel> UnixIpcManager::findWriteChannel(int fd) {
  MutexLock lock(bufferMutex);
  auto it = writeBuffers.find(fd);
  return it == writeBuffers.end() ? nullptr : it->second;
}

bool UnixIpcManager::allocateReadBufferForFd(int fd) {
  auto readBuffer = std::make_shared<BufferState>();
  readBuffer->allocate(static_cast<size_t>(bufferSize));
  MutexLock lock(bufferMutex);
  readBuffers[fd] = std::move(readBuffer);
  return true;
}

void UnixIpcManager::limitFillsToOneMessage(int fd) {
  // A stream Unix socket cuts what it is given into messages of at most half
  // its send buffer less 64 bytes, and takes a new one while less than its
  // send buffer is in flight: fills of one message keep two in flight, so
  // the peer finds twice as much each time it wakes, and no send leaves a
  // small remainder behind.
  int sendBuffer = 0;
  socklen_t length = sizeof(sendBuffer);
  if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, &length) != 0 || sendBuffer / 2 <= UNIX_MESSAGE_OVERHEAD) {
    return;
  }
  const std::shared_ptr<WriteChannel> channel = findWriteChannel(fd);
  if (!channel) return;
  MutexLock writeLock(channel->writeLock);
  channel->buffer.fillLimit = static_cast<size_t>(sendBuffer / 2 - UNIX_MESSAGE_OVERHEAD);
}

bool UnixIpcManager::allocateWriteBufferForFd(int fd) {
  // Always a fresh channel: whatever an earlier connection with this
  // descriptor number left behind must not leak into the new one.
  auto channel = std::make_shared<WriteChannel>();
  MutexLock lock(bufferMutex);
  std::shared_ptr<WriteChannel>& slot = writeBuffers[fd];
  if (slot) {
    MutexLock oldWriteLock(slot->writeLock);
    slot->released = true;
    slot->buffer = BufferState();
  }
  {
    MutexLock writeLock(channel->writeLock);
    channel->buffer.allocate(static_cast<size_t>(bufferSize));
  }
  slot = std::move(channel);
  return true;
}

bool UnixIpcManager::freeBufferForFd(int fd) {
  MutexLock lock(bufferMutex);
  readBuffers.erase(fd);
  auto it = writeBuffers.find(fd);
  if (it != writeBuffers.end()) {
    const std::shared_ptr<WriteChannel> channel = std::move(it->second);
    writeBuffers.erase(it);
    MutexLock writeLock(channel->writeLock);
    channel->released = true;
    channel->buffer = BufferState();
  }
  return true;
}
