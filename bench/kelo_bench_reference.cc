#include "bench/kelo_bench_reference.h"

#include <bpf/libbpf.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>

#include "bench/kelo_bench_threads.h"
#include "service/kelo_bpf_event_manager.h"
#include "utils/kelo_bpf_ipc_package.h"

namespace kelo_bench {
namespace {

using Kelo::Bpf::MutexLock;

constexpr int LISTEN_BACKLOG = 16;
constexpr int MAX_EVENTS = 32;
// Header bytes in front of a record on the wire: length, level-2 header.
constexpr size_t FRAME_HEADER_BYTES = sizeof(uint32_t) + sizeof(KeloIpcSecondLevelPackageHeader);

android::base::unique_fd ListenAbstract(const std::string& name) {
  android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (fd.get() < 0 || name.size() + 1 > sizeof(address.sun_path)) return android::base::unique_fd();
  memcpy(address.sun_path + 1, name.data(), name.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
      listen(fd.get(), LISTEN_BACKLOG) != 0) {
    return android::base::unique_fd();
  }
  return fd;
}

}  // namespace

std::unique_ptr<ReferencePipeline> ReferencePipeline::Start(int ringFd, const std::string& socketName) {
  std::unique_ptr<ReferencePipeline> pipeline(new ReferencePipeline());
  if (!pipeline->setUp(ringFd, socketName)) return nullptr;
  pipeline->pump_ = pipeline->spawn(PUMP_THREAD_NAME, &ReferencePipeline::pumpLoop);
  pipeline->sender_ = pipeline->spawn(SENDER_THREAD_NAME, &ReferencePipeline::senderLoop);
  return pipeline;
}

bool ReferencePipeline::setUp(int ringFd, const std::string& socketName) {
  listenFd_ = ListenAbstract(socketName);
  pumpEpollFd_.reset(epoll_create1(EPOLL_CLOEXEC));
  senderEpollFd_.reset(epoll_create1(EPOLL_CLOEXEC));
  stopFd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  wakeFd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  ring_ = ring_buffer__new(ringFd, onRecord, this, nullptr);
  if (listenFd_.get() < 0 || pumpEpollFd_.get() < 0 || senderEpollFd_.get() < 0 || stopFd_.get() < 0 ||
      wakeFd_.get() < 0 || ring_ == nullptr) {
    fprintf(stderr, "reference pipeline set-up: %s\n", strerror(errno));
    return false;
  }
  // The pump waits on the ring (through libbpf's own epoll instance) and on
  // the stop signal; the sender on clients, the wake-up and the stop signal.
  epoll_event ringReady{};
  ringReady.events = EPOLLIN;
  ringReady.data.fd = ring_buffer__epoll_fd(ring_);
  epoll_event stop{};
  stop.events = EPOLLIN;
  stop.data.fd = stopFd_.get();
  if (epoll_ctl(pumpEpollFd_.get(), EPOLL_CTL_ADD, ringReady.data.fd, &ringReady) != 0 ||
      epoll_ctl(pumpEpollFd_.get(), EPOLL_CTL_ADD, stopFd_.get(), &stop) != 0 ||
      !watch(stopFd_.get(), EPOLLIN, EPOLL_CTL_ADD) || !watch(wakeFd_.get(), EPOLLIN, EPOLL_CTL_ADD) ||
      !watch(listenFd_.get(), EPOLLIN, EPOLL_CTL_ADD)) {
    fprintf(stderr, "reference pipeline epoll set-up: %s\n", strerror(errno));
    return false;
  }
  return true;
}

std::thread ReferencePipeline::spawn(const char* name, void (ReferencePipeline::*body)()) {
  return std::thread([this, name, body] {
    NameThisThread(name);
    try {
      (this->*body)();
    } catch (const std::exception& e) {
      fprintf(stderr, "%s ended: %s\n", name, e.what());
    }
  });
}

ReferencePipeline::~ReferencePipeline() {
  if (stopFd_.get() >= 0) eventfd_write(stopFd_.get(), 1);
  if (pump_.joinable()) pump_.join();
  if (sender_.joinable()) sender_.join();
  ring_buffer__free(ring_);
}

int ReferencePipeline::clientCount() {
  MutexLock lock(mutex_);
  return static_cast<int>(queues_.size());
}

bool ReferencePipeline::watch(int fd, uint32_t events, int op) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(senderEpollFd_.get(), op, fd, &event) == 0;
}

int ReferencePipeline::onRecord(void* ctx, void* data, size_t size) {
  // Called from libbpf's C code: nothing may be thrown through it.
  try {
    static_cast<ReferencePipeline*>(ctx)->queueRecord(data, size);
    return 0;
  } catch (const std::exception& e) {
    fprintf(stderr, "reference pump: %s\n", e.what());
    return -1;
  }
}

void ReferencePipeline::queueRecord(const void* data, size_t size) {
  std::vector<char> frame(FRAME_HEADER_BYTES + size);
  const uint32_t packageSize = static_cast<uint32_t>(sizeof(KeloIpcSecondLevelPackageHeader) + size);
  const KeloIpcSecondLevelPackageHeader header{Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT, static_cast<uint32_t>(size)};
  memcpy(frame.data(), &packageSize, sizeof(packageSize));
  memcpy(frame.data() + sizeof(packageSize), &header, sizeof(header));
  memcpy(frame.data() + FRAME_HEADER_BYTES, data, size);
  bool wake = false;
  {
    MutexLock lock(mutex_);
    for (auto& [fd, queue] : queues_) queue.push_back(frame);
    wake = !wakePending_ && !queues_.empty();
    if (wake) wakePending_ = true;
  }
  if (wake) eventfd_write(wakeFd_.get(), 1);
}

void ReferencePipeline::pumpLoop() {
  epoll_event events[2];
  while (true) {
    const int ready = epoll_wait(pumpEpollFd_.get(), events, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return;
    for (int i = 0; i < ready; ++i) {
      if (events[i].data.fd == stopFd_.get()) return;
    }
    ring_buffer__consume(ring_);
  }
}

void ReferencePipeline::senderLoop() {
  epoll_event events[MAX_EVENTS];
  while (true) {
    const int ready = epoll_wait(senderEpollFd_.get(), events, MAX_EVENTS, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return;
    for (int i = 0; i < ready; ++i) {
      const int fd = events[i].data.fd;
      if (fd == stopFd_.get()) return;
      if (fd == listenFd_.get()) {
        accept();
      } else if (fd == wakeFd_.get()) {
        eventfd_t value;
        eventfd_read(wakeFd_.get(), &value);
        {
          MutexLock lock(mutex_);
          wakePending_ = false;
        }
        // A full socket is flushed when it reports room again.
        for (auto& [clientFd, connection] : connections_) {
          if (!connection.waitingForRoom) flush(&connection);
        }
      } else if ((events[i].events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
        drop(fd);
      } else if (auto it = connections_.find(fd); it != connections_.end()) {
        flush(&it->second);
      }
    }
  }
}

void ReferencePipeline::accept() {
  android::base::unique_fd fd(accept4(listenFd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (fd.get() < 0) return;
  const int bytes = static_cast<int>(SEND_BUFFER_BYTES);
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
  if (!watch(fd.get(), EPOLLRDHUP, EPOLL_CTL_ADD)) return;
  const int key = fd.get();
  Connection& connection = connections_[key];
  connection.fd = std::move(fd);
  connection.buffer.resize(SEND_BUFFER_BYTES);
  MutexLock lock(mutex_);
  queues_[key];
}

void ReferencePipeline::drop(int fd) {
  {
    MutexLock lock(mutex_);
    queues_.erase(fd);
  }
  epoll_ctl(senderEpollFd_.get(), EPOLL_CTL_DEL, fd, nullptr);
  connections_.erase(fd);
}

void ReferencePipeline::flush(Connection* connection) {
  const int fd = connection->fd.get();
  while (true) {
    while (connection->sent < connection->filled) {
      const ssize_t n = send(fd, connection->buffer.data() + connection->sent, connection->filled - connection->sent,
                             MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        connection->sent += static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && !connection->waitingForRoom) {
        connection->waitingForRoom = watch(fd, EPOLLRDHUP | EPOLLOUT, EPOLL_CTL_MOD);
      }
      // Full (EPOLLOUT brings us back) or broken (the hang-up drops it).
      return;
    }
    connection->sent = 0;
    connection->filled = 0;
    {
      MutexLock lock(mutex_);
      auto queue = queues_.find(fd);
      if (queue == queues_.end()) return;
      while (!queue->second.empty() && queue->second.front().size() <= connection->buffer.size() - connection->filled) {
        const std::vector<char>& frame = queue->second.front();
        memcpy(connection->buffer.data() + connection->filled, frame.data(), frame.size());
        connection->filled += frame.size();
        queue->second.pop_front();
      }
    }
    if (connection->filled == 0) {
      if (connection->waitingForRoom) {
        connection->waitingForRoom = !watch(fd, EPOLLRDHUP, EPOLL_CTL_MOD);
      }
      return;
    }
  }
}

}  // namespace kelo_bench
