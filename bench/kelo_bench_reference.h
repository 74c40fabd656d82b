// The yardstick of the delivery benchmark: about the least a consumer has to
// do to deliver every record of a BPF ring buffer to socket clients.
//
// Its pump thread ("RefPump") drains the ring with libbpf and copies each
// record, framed as the service frames an event (u32 length, level-2 header
// of type 3, the record), into a deque of byte vectors per client, all under
// one mutex; it signals an eventfd only when the sender is not already due to
// look. Its sender thread ("RefTr") accepts clients and moves each deque into
// a 32 KiB buffer that it sends, asking for EPOLLOUT only while a socket is
// full. Every accepted connection receives every record; clients send
// nothing. Queues are unbounded: nothing is ever dropped.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "utils/kelo_bpf_mutex.h"

struct ring_buffer;

namespace kelo_bench {

class ReferencePipeline {
 public:
  // Thread names; THREAD_PREFIX selects both.
  static constexpr char THREAD_PREFIX[] = "Ref";
  static constexpr char PUMP_THREAD_NAME[] = "RefPump";
  static constexpr char SENDER_THREAD_NAME[] = "RefTr";
  // Send buffer per client, and SO_SNDBUF / SO_RCVBUF of every connection.
  static constexpr size_t SEND_BUFFER_BYTES = 32 * 1024;

  // Consumes the ring `ringFd` and serves clients on the abstract socket
  // `socketName`; null after a failure reported on stderr.
  static std::unique_ptr<ReferencePipeline> Start(int ringFd, const std::string& socketName);
  // Stops and joins both threads; connections are closed.
  ~ReferencePipeline();

  ReferencePipeline(const ReferencePipeline&) = delete;
  ReferencePipeline& operator=(const ReferencePipeline&) = delete;

  // Connections accepted so far and still open.
  int clientCount() EXCLUDES(mutex_);
  // The queues' lock. Whoever holds it stops the pump at its next record,
  // which lets the benchmark fill the ring before the drain it times.
  Kelo::Bpf::Mutex& dispatchGate() RETURN_CAPABILITY(mutex_) { return mutex_; }

 private:
  // Sender-side state of one connection; sender thread only.
  struct Connection {
    android::base::unique_fd fd;
    std::vector<char> buffer;
    size_t sent = 0;
    size_t filled = 0;
    bool waitingForRoom = false;
  };

  ReferencePipeline() = default;
  bool setUp(int ringFd, const std::string& socketName);
  // Starts a named thread running body; an exception ends it with a message.
  std::thread spawn(const char* name, void (ReferencePipeline::*body)());
  // libbpf's callback: frames the record and queues it for every client.
  static int onRecord(void* ctx, void* data, size_t size);
  void queueRecord(const void* data, size_t size) EXCLUDES(mutex_);
  void pumpLoop();
  void senderLoop();
  void accept();
  void drop(int fd) EXCLUDES(mutex_);
  // Sends what is buffered and queued for the connection until its queue is
  // empty or its socket full.
  void flush(Connection* connection) EXCLUDES(mutex_);
  bool watch(int fd, uint32_t events, int op);

  android::base::unique_fd listenFd_;
  android::base::unique_fd pumpEpollFd_;
  android::base::unique_fd senderEpollFd_;
  // Written once to end both threads.
  android::base::unique_fd stopFd_;
  // Signalled by the pump when the sender has queues to drain.
  android::base::unique_fd wakeFd_;
  ring_buffer* ring_ = nullptr;
  // Guards the queues and wakePending_.
  Kelo::Bpf::Mutex mutex_;
  std::map<int, std::deque<std::vector<char>>> queues_ GUARDED_BY(mutex_);
  // The pump has signalled wakeFd_ and the sender has not yet looked.
  bool wakePending_ GUARDED_BY(mutex_) = false;
  // Sender thread only.
  std::map<int, Connection> connections_;
  std::thread pump_;
  std::thread sender_;
};

}  // namespace kelo_bench
