// The process-wide registry of which client connection wants which event
// types. Client requests subscribe and unsubscribe a connection; every event
// the service publishes (each valid ring-buffer record and each task event the
// service derives) goes through AppendEvent, which queues one level-2 package
// per subscribed connection and asks the IPC endpoint to send them.
//
// Connections are keyed by their socket descriptor. The registry owns one
// ClientConnection per connected client: its outgoing queue (which locks
// itself). The client endpoint opens and closes them (OpenConnection,
// CloseConnection) and reaches a queue through QueueOf; the senders are
// woken through the waker the endpoint's owner binds (SetSenderWaker).
//
// Locking: keloRawEventManagerLock guards the registry, its connections and
// their subscriptions. It is the outer lock: AppendEvent calls the waker
// (which may take the service's lock) while holding it, so nothing may take
// keloRawEventManagerLock while holding the service's lock. A connection is
// erased with its subscriptions under this lock, so a producer never queues
// for a vanished queue.
#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "utils/kelo_bpf_ipc_package_manager.h"
#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

// What the registry keeps of one connected client.
struct ClientConnection {
  // Everything on its way to the client, in order.
  IpcPackageManager queue;
  // Tells this connection from earlier ones on the same descriptor.
  uint64_t serial = 0;
};

// The event frames that a publisher with an EventStaging holds for one
// connection until its next flush: slices of the publisher's frame block.
struct StagedFrames {
  int fd = -1;
  uint64_t serial = 0;
  std::vector<FrameSlice> slices;
  // Frames and bytes in the slices.
  uint32_t count = 0;
  size_t bytes = 0;
  // Packages in the connection's queue when it was last looked at.
  size_t queued = 0;
  // Whether a crowded queue holds the publisher back: the connection asked
  // to be paced and its sender is not given up on. As of the last look.
  bool paced = false;
};

// What a publisher with an EventStaging keeps of one event type: its
// subscribers (indexes of their StagedFrames, in subscription order) and the
// slices of its frames not yet handed to them.
struct StagedType {
  int type = 0;
  std::vector<size_t> entries;
  std::vector<FrameSlice> slices;
  uint32_t count = 0;
  size_t bytes = 0;
};

// Package type under which events travel to clients, the record as payload.
inline constexpr uint32_t IPC_PACKAGE_TYPE_EVENT = 3;

// Queue depths between which a publisher waits for the sender of a
// connection that asked to be paced, both well below the queue's trim mark.
inline constexpr size_t PACE_START_DEPTH = IPC_QUEUE_HIGH_WATER * 9 / 10;
inline constexpr size_t PACE_RESUME_DEPTH = IPC_QUEUE_HIGH_WATER * 5 / 10;
// How long a waiting publisher lets a sender go without progress, how long
// it waits at most, and how often it looks at the ring and for progress
// when the sender does not wake it first.
inline constexpr std::chrono::milliseconds PACE_STALL_LIMIT{20};
inline constexpr std::chrono::milliseconds PACE_WAIT_LIMIT{100};
inline constexpr std::chrono::microseconds PACE_POLL_INTERVAL{200};

class EventStaging;

class EventManager {
 public:
  // Made on first call and never destroyed. Takes no lock.
  static EventManager* GetInstance();

  // Subscribes connection fd to event type `type`; subscribing twice changes
  // nothing.
  void AddObserverEvent(int fd, int type) EXCLUDES(keloRawEventManagerLock);
  // Unsubscribes fd from `type`; nothing happens when it was not subscribed.
  void DelObserverEvent(int fd, int type) EXCLUDES(keloRawEventManagerLock);
  // Drops every subscription of fd, and its pacing (its connection closed).
  void EraseObserver(int fd) EXCLUDES(keloRawEventManagerLock);
  // Whether publishers hold back for fd's sender when its queue is crowded
  // (see AppendEvent); off for a new connection.
  void SetPacing(int fd, bool paced) EXCLUDES(keloRawEventManagerLock);

  // Connections subscribed to `type`, sorted by descriptor.
  std::vector<int> SubscribersOf(int type) EXCLUDES(keloRawEventManagerLock);
  // Connections that are to hear of a kernel loss of raw type `type`: those
  // subscribed to 50005 and to `type` or an event derived from it; sorted.
  std::vector<int> LossReportSubscribers(int type) EXCLUDES(keloRawEventManagerLock);
  // Queues one event record for connection fd alone, after everything queued
  // or, with `front`, ahead of it, and wakes its sender. False when fd has no
  // queue (it closed).
  bool SendTo(int fd, const char* data, unsigned int size, bool front) EXCLUDES(keloRawEventManagerLock);

  // Publishes one event whose first four bytes are its type: the `size`
  // bytes are queued byte for byte as a package of type 3 for every
  // connection subscribed to the type, in subscription order, and then the
  // endpoint is asked to write to each of them whose queue has no write
  // request pending already: at once, or at the next flush of the calling
  // thread's EventStaging when it has one. Always 0.
  //
  // A client that reads more slowly than events come loses its oldest
  // packages to its queue's trim, and only it does: by default nothing waits
  // for a client. A connection that asked to be paced (SetPacing) and whose
  // queue holds PACE_START_DEPTH packages or more holds the publisher back,
  // outside every lock, until its sender has brought the queue down to
  // PACE_RESUME_DEPTH, so that a client that keeps up loses nothing to a
  // burst. The publisher never waits, and stops waiting, while the ring
  // buffer that its thread drains (RingFillGauge) is more than half full. A
  // sender that makes no progress for PACE_STALL_LIMIT, or is not done within
  // PACE_WAIT_LIMIT, is given up on until its queue drains again, so a dead
  // or stalled client gets the trim and holds the others back only once.
  int AppendEvent(char* data, unsigned int size) EXCLUDES(keloRawEventManagerLock);

  // Times a publisher waited for a paced connection's sender.
  uint64_t PacingWaits() const { return pacingWaits.load(std::memory_order_relaxed); }

  // Queues the frames staged by an EventStaging, slices of `block`, for
  // the connections that are still those they were staged for, empties the
  // entries (dropping those of connections gone) and wakes the senders that
  // have no wake-up pending. A connection whose frames are less than half of
  // the block gets copies, so that its queue never keeps alive a block that
  // is mostly other connections' frames. Whether a queue took a share of
  // the block itself (which must then never change).
  bool AppendStaged(const FrameBlock& block, std::vector<StagedFrames>* staged) EXCLUDES(keloRawEventManagerLock);

  // Asks each connection's sender to write; returns the connections that
  // could not be asked. Called with keloRawEventManagerLock held.
  using SenderWaker = std::function<std::vector<int>(const std::vector<int>& fds)>;
  // Binds the waker of the senders; until then (and when none is bound) no
  // sender can be woken and every request is asked again by the next append.
  void SetSenderWaker(SenderWaker waker) EXCLUDES(keloRawEventManagerLock);

  // Makes connection fd's queue, with `onTrim` as its trim listener; a
  // connection that has one keeps it. The queue lives until CloseConnection
  // of fd, which only the caller's thread (the IPC thread) may call.
  IpcPackageManager* OpenConnection(int fd, IpcPackageManager::TrimListener onTrim) EXCLUDES(keloRawEventManagerLock);
  // fd's queue, or null when it has none. Valid as long as OpenConnection's.
  IpcPackageManager* QueueOf(int fd) EXCLUDES(keloRawEventManagerLock);
  // Drops fd's subscriptions, its pacing and its queue (its connection
  // closed). The IPC thread only.
  void CloseConnection(int fd) EXCLUDES(keloRawEventManagerLock);

  // Guards both subscription maps and the queue map
  // they point into (see the file comment for the lock order).
  static Mutex keloRawEventManagerLock;

 private:
  EventManager() = default;

  // Removes every element equal to value, keeping the order of the rest.
  static void RemoveAll(std::vector<int>* values, int value);
  // Packages queued for fd, or 0 once its queue is gone.
  size_t QueueDepth(int fd) EXCLUDES(keloRawEventManagerLock);
  // Waits, holding no lock, until the sender of fd has drained its queue to
  // PACE_RESUME_DEPTH; marks fd stalled when the sender falls behind.
  void WaitForSender(int fd) EXCLUDES(keloRawEventManagerLock);
  // Asks the senders of fds to write; a connection that could not be told
  // is asked again by the next append.
  void NotifySendersLocked(const std::vector<int>& fds) REQUIRES(keloRawEventManagerLock);
  // The sender of fd could not be woken: its next append asks again.
  void CancelSendRequestLocked(int fd) REQUIRES(keloRawEventManagerLock);

  // fd's connection, or null.
  ClientConnection* ConnectionLocked(int fd) REQUIRES(keloRawEventManagerLock);
  // The indexes of `staging`'s staged entries of the connections
  // subscribed to `type`, in subscription order, with the entries' depth
  // and pacing brought up to date; cached until the next change of
  // connections, subscriptions or pacing, or a flush that drops entries.
  StagedType& StagingTargetsLocked(EventStaging* staging, int type) REQUIRES(keloRawEventManagerLock);
  // Notes that a publisher's queue for fd is `depth` packages deep: adds fd
  // to `crowded` when the publisher is to wait for its sender.
  void NotePacingLocked(int fd, size_t depth, std::vector<int>* crowded) REQUIRES(keloRawEventManagerLock);
  // Drops every subscription of fd and its pacing.
  void EraseObserverLocked(int fd) REQUIRES(keloRawEventManagerLock);

  // Shared with a publisher that waits on a queue (WaitForSender), so that
  // the queue outlives a close meanwhile.
  std::map<int, std::shared_ptr<ClientConnection>> connections GUARDED_BY(keloRawEventManagerLock);
  // Connections opened so far; the serial of the next.
  uint64_t connectionsOpened GUARDED_BY(keloRawEventManagerLock) = 0;
  // Changes, under keloRawEventManagerLock, with every connection,
  // subscription or pacing made or dropped and every sender given up on or
  // taken back. Publishers with an EventStaging read it without the lock to
  // tell whether the subscribers they cached are still those of the
  // registry, so that a published event takes no lock.
  std::atomic<uint64_t> generation{0};
  SenderWaker senderWaker GUARDED_BY(keloRawEventManagerLock);
  // Types each connection subscribed to, in subscription order, no duplicates.
  std::map<int, std::vector<int>> observersByFd GUARDED_BY(keloRawEventManagerLock);
  // Connections subscribed to each type, in subscription order.
  std::map<int, std::vector<int>> observersByType GUARDED_BY(keloRawEventManagerLock);

  // Connections whose sender made no progress while the publisher waited;
  // not waited for again until their queue is down to PACE_RESUME_DEPTH.
  std::set<int> stalledSenders GUARDED_BY(keloRawEventManagerLock);
  // Connections that asked to be paced.
  std::set<int> pacedConnections GUARDED_BY(keloRawEventManagerLock);
  std::atomic<uint64_t> pacingWaits{0};
};

// While one lives on a thread, the AppendEvent calls of that thread stage
// their events instead of queueing them: each event is framed once into the
// publisher's frame block and noted once, for its type. At Flush, which a
// ring-buffer pump calls after every poll, and on its own every
// WAKE_BATCH_EVENTS events and before the publisher waits for a crowded
// sender, each subscribed connection gets the slices of the block of its
// types, in the order the events came, every connection's queue takes its
// slices in one append and its sender is woken once. A burst of records
// then costs each connection one queue append and one wake-up per batch
// instead of one per record, and each event is framed and noted once
// however many connections take it. Not shared between threads; at most one
// per thread.
class EventStaging {
 public:
  static constexpr int WAKE_BATCH_EVENTS = 256;

  EventStaging();
  // Queues and wakes whatever is still staged.
  ~EventStaging();
  EventStaging(const EventStaging&) = delete;
  EventStaging& operator=(const EventStaging&) = delete;

  // The instance living on the calling thread, or null.
  static EventStaging* OfThisThread();

  // Whether WAKE_BATCH_EVENTS events were published since the last Flush.
  bool Due() const { return events_ >= WAKE_BATCH_EVENTS; }
  // Queues the staged frames and wakes their senders.
  void Flush();

 private:
  friend class EventManager;

  // The index of the staged entry of connection fd (serial `serial`, its
  // queue `queued` deep), made on first use. Frames staged for an earlier
  // connection on fd are dropped: it closed.
  size_t EntryOf(int fd, uint64_t serial, size_t queued);
  // Frames one event into the block; where its frame starts.
  size_t AddFrame(const char* record, uint32_t size);
  // Stages the frame of `bytes` bytes at `offset` for the subscribers of
  // `targets`' type.
  static void AddTo(StagedType* targets, size_t offset, size_t bytes);
  // The cached subscribers of `type` while the registry is still at
  // `generation`, or null.
  StagedType* CachedTargets(int type, uint64_t generation);
  // Hands every type's staged frames to the entries of its subscribers, in
  // block order.
  void Distribute();
  // Adds the paced connections whose queue and staged frames now reach
  // PACE_START_DEPTH to `crowded`, and notes how many events may come
  // before one can.
  void NoteCrowded(std::vector<int>* crowded);
  // Forgets the cached subscribers, handing their frames on first.
  void DropTargets();

  // Frames of the events since the last flush, each once.
  std::shared_ptr<std::string> block_;
  // One entry per connection published to; emptied, not removed, by a flush.
  std::vector<StagedFrames> staged_;
  // Each published type's subscribers, valid for generation_.
  std::vector<StagedType> targets_;
  uint64_t generation_ = 0;
  int events_ = 0;
  // Events staged since NoteCrowded last looked, and how many may be before
  // a paced connection can be crowded (0: look at the next event).
  size_t sinceLook_ = 0;
  size_t pacedHeadroom_ = 0;
  // Distribute's scratch: per entry, the types it took frames of and where
  // its slices of this distribution begin.
  std::vector<uint32_t> typesTaken_;
  std::vector<size_t> firstNew_;
};

}  // namespace Bpf
}  // namespace Kelo
