// One endpoint of the package protocol over a local stream socket: a server
// that listens on a named socket and serves any number of clients, or a
// client holding one connection to such a server (and re-establishing it when
// it is lost).
//
// All socket work runs on the worker thread of the owned EpollManager. Each
// connection has a read buffer (when the application reads) and a write
// buffer (when it writes), both `bufferSize` bytes. The manager never parses
// packages: the application's onReadable hook frames the read buffer and its
// onWriteable hook fills the write buffer, which the manager then sends.
//
// Other threads touch a connection only through notifyNeedWriteData and
// writeDataNow; a per-connection write lock makes them take turns with the
// worker on the write buffer and the socket. Lock order: bufferMutex before a
// connection's write lock.
//
// Every log line uses the manager's name as its tag.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <sched.h>
#include <sys/epoll.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "utils/kelo_bpf_ipc_epoll_manager.h"
#include "utils/kelo_bpf_ipc_package.h"
#include "utils/kelo_bpf_mutex.h"

// The application's hooks for the connections of one manager.
struct IpcHandlerState {
  // Compact the read buffer before every receive.
  bool compactReadBuffer = false;
  // Close the connection when a receive or onReadable fails.
  bool closeOnError = false;
  // Carried along for the application; the framework does not consult it.
  bool extraFlag = false;
  // New bytes are in readBuffer; -1 reports failure.
  std::function<int(int fd, BufferState* readBuffer)> onReadable;
  // The socket can take data: fill writeBuffer; -1 reports failure.
  std::function<int(int fd, BufferState* writeBuffer)> onWriteable;
  // A connection was accepted (server) or connected (client).
  std::function<int(int fd)> onConnection;
  // A connection was closed.
  std::function<int(int fd)> onClose;
};

class UnixIpcManager {
 public:
  // Pause between two attempts of a client to reach its server.
  static constexpr std::chrono::seconds CONNECT_RETRY_INTERVAL{5};
  // Sends answered by EAGAIN before ensureDataSend gives up; the last wait
  // before the final attempt is SEND_RETRY_SLEEP, the others only yield.
  static constexpr int SEND_MAX_EAGAIN_RETRIES = 10;
  // Buffers a write-ready callback sends beyond the first while the socket
  // takes them without waiting.
  static constexpr int SEND_AHEAD_ROUNDS = 1;
  // What a stream Unix socket's message may hold less than half its send
  // buffer (the kernel's allowance for its own bookkeeping).
  static constexpr int UNIX_MESSAGE_OVERHEAD = 64;
  static constexpr std::chrono::seconds SEND_RETRY_SLEEP{1};

  // `name` (borrowed, must outlive the manager) names the worker thread and
  // tags the log. The worker runs createServer() or connect() when started.
  UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlerState, const char* name,
                 cpu_set_t cpuAffinity, int epollSize, int maxEvents);
  // As above, on the processors the calling thread may run on.
  UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlerState, const char* name,
                 int epollSize, int maxEvents);
  // As above, named "BpfUtils".
  UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlerState, int epollSize,
                 int maxEvents);

  UnixIpcManager(const UnixIpcManager&) = delete;
  UnixIpcManager& operator=(const UnixIpcManager&) = delete;

  // Worker side: listen on socketName (server only).
  virtual bool createServer();
  // Worker side: connect to socketName, retrying every
  // CONNECT_RETRY_INTERVAL until it succeeds or the manager is stopped
  // (client only).
  virtual bool connect();
  // Starts the worker thread; false when there is no epoll manager.
  virtual bool start();
  // Ends the worker's loop (and a pending connect retry) without waiting;
  // sockets stay open.
  virtual bool stop();
  // Joins the worker, then closes the descriptors the manager owns.
  virtual ~UnixIpcManager();

  // Runs the write path of fd now on the calling thread.
  bool writeDataNow(int fd);
  // Asks the worker to call the write path when fd can take data; called by
  // producers after they queued packages for fd.
  bool notifyNeedWriteData(int fd);

  // Number of times the worker's loop has woken up (see EpollManager).
  uint64_t getWakeupCount() const { return epollManager ? epollManager->getWakeupCount() : 0; }

  // Worker-side callbacks registered with the epoll manager: the listening
  // socket, then each connection (in both roles).
  int onServerReadableCallback(epoll_event event);
  int onServerCloseCallback(epoll_event event);
  int onClientReadableCallback(epoll_event event);
  int onCommWriteCallback(epoll_event event);
  int onClientCloseCallback(epoll_event event);

  // Per-connection buffers, bufferSize zero bytes each.
  bool allocateReadBufferForFd(int fd);
  bool allocateWriteBufferForFd(int fd);
  bool freeBufferForFd(int fd);

  // Sends everything in writeBuffer (whose write lock the caller holds).
  // Gives up after SEND_MAX_EAGAIN_RETRIES + 1 sends answered by EAGAIN,
  // dropping the buffered bytes and recording error code 1; false also for
  // any other send error, which leaves the bytes in place.
  bool ensureDataSend(int fd, BufferState* writeBuffer);

 private:
  // The write side of one connection. Shared, so that a writer waiting for
  // the lock keeps it alive while the connection is torn down; a channel
  // found `released` belongs to a closed connection whose descriptor number
  // may already serve another one.
  struct WriteChannel {
    // Serialises everything that touches `buffer` and the socket's sending.
    Kelo::Bpf::Mutex writeLock;
    BufferState buffer GUARDED_BY(writeLock);
    bool released GUARDED_BY(writeLock) = false;
  };

  std::shared_ptr<BufferState> findReadBuffer(int fd) EXCLUDES(bufferMutex);
  std::shared_ptr<WriteChannel> findWriteChannel(int fd) EXCLUDES(bufferMutex);
  void setupConnection(int fd);
  // Makes fd's write buffer fill one message of its socket at a time.
  void limitFillsToOneMessage(int fd) EXCLUDES(bufferMutex);
  // Closes a descriptor this manager owns, reporting close()'s result.
  int closeFd(int fd);
  // Stops watching fd, frees its buffers, closes it and tells onClose; false
  // (logged) when close failed.
  bool releaseConnection(int fd);
  // Closes a connection after a failed receive or onReadable.
  int closeAfterError(int fd, const char* commFdLostText, const char* reconnectFailedText);
  // Sleeps up to `duration`, returning early (with true) once stop() was called.
  bool waitForStop(std::chrono::milliseconds duration) EXCLUDES(stopMutex);

  std::string socketName;
  bool isServer;
  // Guards the buffer maps; taken before any connection's write lock.
  Kelo::Bpf::Mutex bufferMutex;
  int bufferSize;
  std::map<int, std::shared_ptr<BufferState>> readBuffers GUARDED_BY(bufferMutex);
  std::map<int, std::shared_ptr<WriteChannel>> writeBuffers GUARDED_BY(bufferMutex);
  std::unique_ptr<EpollManager> epollManager;
  IpcHandlerState handlerState;
  // Listening socket (server) or the connection to the server (client);
  // worker only.
  android::base::unique_fd commFd;
  // Accepted connections (server); worker only.
  std::map<int, android::base::unique_fd> connections;
  const char* name;

  // Guards `stopRequested`, which cuts a client's connect retry short.
  Kelo::Bpf::Mutex stopMutex;
  bool stopRequested GUARDED_BY(stopMutex) = false;
  std::condition_variable stopCondition;
};
