// The outgoing package queue of one connection. Producers on any thread
// serialise requests, responses and application packages into the queue; the
// connection's writeable hook moves whole packages from it into the
// connection's write buffer.
//
// The queue is bounded: an append that finds more than IPC_QUEUE_HIGH_WATER
// packages queued first drops the oldest ones down to IPC_QUEUE_LOW_WATER and
// records the event in the error log, so a slow or dead peer loses a burst of
// old packages at once instead of growing the queue without limit.
//
// Every append copies what it is given; serialisation happens before the
// queue's lock is taken, so the critical section is the trim and one push.
// Trimmed packages are freed, and shown to the queue's trim listener, after
// the lock is let go.
//
// Events appended with appendEventToRun are framed straight into a run at
// the queue's tail: up to EVENT_RUN_BYTES of consecutive whole frames, which
// the sender copies into its buffer with one copy. A run either lives in a
// buffer of the queue's own, which later events may extend, or is a slice of
// a frame block that several queues share (appendSharedFrames): a publisher
// that serves many connections frames each event once. A run is one entry of
// the queue but counts as the packages it holds, towards the bound and in
// getIpcPackageCount; a trim takes whole entries and shows the listener a
// run's packages one by one.
#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "utils/kelo_bpf_ipc_package.h"
#include "utils/kelo_bpf_mutex.h"

inline constexpr size_t IPC_QUEUE_HIGH_WATER = 10000;
inline constexpr size_t IPC_QUEUE_LOW_WATER = 5000;
// Bytes of frames one run of events holds at most.
inline constexpr size_t EVENT_RUN_BYTES = 8192;

// Whole frames, back to back, that a publisher wrote once for every queue
// that takes slices of them; nobody writes to a block once it is shared.
using FrameBlock = std::shared_ptr<const std::string>;

// Consecutive whole frames of one FrameBlock: `bytes` bytes from `offset`,
// `frames` frames, at most EVENT_RUN_BYTES.
struct FrameSlice {
  size_t offset = 0;
  size_t bytes = 0;
  uint32_t frames = 0;
};

class IpcPackageManager {
 public:
  // Shown the packages one trim removed, oldest first, on the appending
  // thread after the queue's lock is let go; they are freed when it returns.
  using TrimListener = std::function<void(const std::deque<KeloIpcPackage>& removed)>;

  IpcPackageManager() = default;
  IpcPackageManager(const IpcPackageManager&) = delete;
  IpcPackageManager& operator=(const IpcPackageManager&) = delete;

  // Queues a response (type 1) / request (type 0): level-2 header, request
  // header, then resp->dataSize / req->dataSize bytes from ->data.
  void appendRespIpcPackage(KeloRespIpcPackage* resp);
  void appendReqIpcPackage(KeloReqIpcPackage* req);
  // Queues a level-2 package of `type` around `size` bytes of payload; false
  // and nothing queued when type is above IPC_PACKAGE_TYPE_MAX.
  bool buildAndAppendSecondIpcPackage(uint32_t type, const char* data, uint32_t size);
  // As buildAndAppendSecondIpcPackage, framed into the run at the queue's
  // tail (a new run when the tail is a package or has no room).
  bool appendEventToRun(uint32_t type, const char* data, uint32_t size);
  // Queues the frames of `slices`, in order, each slice as a run that
  // refers to `block` (which then lives until the sender has taken them), or,
  // with `copy`, copied into the queue's own runs.
  void appendSharedFrames(const FrameBlock& block, const std::vector<FrameSlice>& slices, bool copy);
  // Queues `size` bytes that already form a level-2 package.
  void buildAndAppendIpcPackage(const char* data, uint32_t size);
  // As buildAndAppendSecondIpcPackage, but ahead of everything queued: the
  // package is the next one sent. It counts towards the bound like any other
  // (a trim that it causes happens before it is queued).
  bool buildAndPushFrontSecondIpcPackage(uint32_t type, const char* data, uint32_t size);

  // Sets the listener of this queue's trims; call before the queue is shared
  // between threads.
  void setTrimListener(TrimListener listener) { trimListener = std::move(listener); }

  // Moves the oldest package into `buffer` if it fits in the free space (of
  // a run at the front: as many of its packages as fit, in one copy). False
  // when the queue is empty, when there is no room yet (the package stays)
  // or when the package can never fit the buffer (it is removed and error
  // code 8 recorded).
  bool fillNextIpcPackageToBuffer(BufferState* buffer);
  // Calls fillNextIpcPackageToBuffer until it returns false, taking the lock
  // once for the whole run; the number of packages moved.
  size_t fillNextIpcPackagesToBuffer(BufferState* buffer);
  // Moves as many whole packages into `buffer` as fit. False when the queue
  // is empty or when the package that stopped the filling can never fit the
  // buffer (it is removed and error code 7 recorded).
  bool fillIpcPackageToBuffer(BufferState* buffer);

  // Waits until the queue holds a package or timeoutMs milliseconds passed
  // (measured on the monotonic clock).
  void waitEventReady(int timeoutMs);
  // Wakes every waiter, e.g. at shut-down.
  void notifyEventReady();
  // Waits until the sender has taken the queue down to `depth` packages or
  // `timeout` passed; whether it holds at most `depth` now. The sender wakes
  // the waiter as soon as it gets there.
  bool waitDepthAtMost(size_t depth, std::chrono::microseconds timeout);
  // Current number of queued packages; a snapshot taken without the lock.
  size_t getIpcPackageCount() const { return count.load(std::memory_order_relaxed); }

  // Wake-up bookkeeping between producers and the queue's single sender, so
  // that a burst of appends asks the sender for a write once instead of once
  // per package. A producer calls requestSend after its append and wakes the
  // sender only when it returns true: the first request since the sender
  // last called beginSend. The sender calls beginSend before it takes
  // packages, so whatever is appended after it looked comes with a fresh
  // wake-up, also when the sender then gives up on a failed send.
  bool requestSend() {
    // Reading first spares the bus-locked exchange while a request is pending.
    if (sendRequested.load(std::memory_order_relaxed)) return false;
    return !sendRequested.exchange(true);
  }
  void beginSend() { sendRequested.store(false); }
  // For a producer whose wake-up of the sender failed after requestSend
  // returned true: the next append asks again, instead of every later one
  // taking the failed request for a pending one.
  void cancelSendRequest() { sendRequested.store(false); }

 private:
  // The four append forms differ only in their error-log code and log text.
  enum class AppendForm { BUILD_AND_APPEND, SECOND_LEVEL, REQUEST, RESPONSE };
  // One entry of the queue: a package, or (frames != 0) a run of events,
  // the `bytes` bytes of `block` from `offset`. `own` is the block while the
  // queue made it alone and may still append to it.
  struct Entry {
    KeloIpcPackage package;
    FrameBlock block;
    std::shared_ptr<std::string> own;
    size_t offset = 0;
    size_t bytes = 0;
    uint32_t frames = 0;
    const char* runData() const { return block->data() + offset; }
  };
  void appendPackage(KeloIpcPackage&& package, AppendForm form, bool front = false) EXCLUDES(mutex);
  // Appends `head` then `tail` (either may be empty), holding `frameCount`
  // frames, to the tail run if it is the queue's own and has room, else to a
  // new run of its own.
  void appendToRunLocked(const char* head, size_t headBytes, const char* tail, size_t tailBytes, uint32_t frameCount)
      REQUIRES(mutex);
  // Counts `frames` more packages queued and wakes the waiters.
  void noteAppendedLocked(uint32_t frames) REQUIRES(mutex);
  // Trims the queue when it holds more than IPC_QUEUE_HIGH_WATER packages,
  // moving what it removes into *removed (made on a trim only).
  void trimLocked(AppendForm form, std::optional<std::deque<KeloIpcPackage>>* removed) REQUIRES(mutex);
  // Shows the listener what a trim removed; outside the lock.
  void reportTrim(const std::optional<std::deque<KeloIpcPackage>>& removed);
  static KeloIpcPackage SerialiseSecondLevel(uint32_t type, const char* data, uint32_t size);
  // Removes the front package when it can never be sent through `bufferState`;
  // true if it did.
  bool dropUnsendableFront(const BufferState* bufferState, int errorCode, const char* errorText) REQUIRES(mutex);
  void popFront() REQUIRES(mutex);
  // Stores the new count after packages left the queue, waking the
  // waitDepthAtMost callers it satisfies.
  void noteTakenLocked() REQUIRES(mutex);
  // Moves the whole frames at the start of the front run that fit the free
  // space of `bufferState`, dropping the run once it is empty; the number
  // moved.
  size_t fillFromRunLocked(BufferState* bufferState) REQUIRES(mutex);
  // Takes the first `bytes` bytes, `frames` frames, of the front run `run`,
  // dropping it once it is empty.
  void consumeRunLocked(Entry* run, size_t bytes, uint32_t frames) REQUIRES(mutex);
  // One step of fillNextIpcPackageToBuffer: the number of packages moved.
  size_t fillNextLocked(BufferState* bufferState) REQUIRES(mutex);

  // Guards the queue.
  Kelo::Bpf::Mutex mutex;
  std::deque<Entry> queue GUARDED_BY(mutex);
  // Packages in the queue, a run's counted one by one.
  size_t queued GUARDED_BY(mutex) = 0;
  // Signalled on every append that finds a waiter.
  std::condition_variable eventReady;
  // Threads in waitEventReady; an append with none spares the signal.
  size_t waiters GUARDED_BY(mutex) = 0;
  // Signalled when the queue gets down to drainDepth with drainWaiters in
  // waitDepthAtMost; drainDepth is the largest depth one of them waits for.
  std::condition_variable drained;
  size_t drainWaiters GUARDED_BY(mutex) = 0;
  size_t drainDepth GUARDED_BY(mutex) = 0;
  // queued, readable without the lock.
  std::atomic<size_t> count{0};
  // A producer has asked the sender for a write that it has not begun yet.
  std::atomic<bool> sendRequested{false};
  // Fixed before the queue is shared.
  TrimListener trimListener;
};
