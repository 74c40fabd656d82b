#include "service/kelo_bpf_event_manager.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "service/kelo_bpf_event_loss.h"
#include "service/kelo_bpf_event_pacing.h"

namespace Kelo {
namespace Bpf {

Mutex EventManager::keloRawEventManagerLock;

namespace {

thread_local EventStaging* threadStaging = nullptr;

}  // namespace

EventManager* EventManager::GetInstance() {
  static EventManager* const instance = new EventManager();
  return instance;
}

void EventManager::RemoveAll(std::vector<int>* values, int value) {
  values->erase(std::remove(values->begin(), values->end(), value), values->end());
}

void EventManager::AddObserverEvent(int fd, int type) {
  MutexLock lock(keloRawEventManagerLock);
  std::vector<int>& types = observersByFd[fd];
  if (std::find(types.begin(), types.end(), type) != types.end()) return;
  types.push_back(type);
  observersByType[type].push_back(fd);
  ++generation;
}

void EventManager::DelObserverEvent(int fd, int type) {
  MutexLock lock(keloRawEventManagerLock);
  RemoveAll(&observersByType[type], fd);
  RemoveAll(&observersByFd[fd], type);
  ++generation;
}

void EventManager::EraseObserver(int fd) {
  MutexLock lock(keloRawEventManagerLock);
  EraseObserverLocked(fd);
}

void EventManager::EraseObserverLocked(int fd) {
  ++generation;
  pacedConnections.erase(fd);
  auto entry = observersByFd.find(fd);
  if (entry == observersByFd.end()) return;
  for (int type : entry->second) RemoveAll(&observersByType[type], fd);
  observersByFd.erase(entry);
  stalledSenders.erase(fd);
}

void EventManager::SetPacing(int fd, bool paced) {
  MutexLock lock(keloRawEventManagerLock);
  ++generation;
  if (paced) {
    pacedConnections.insert(fd);
  } else {
    pacedConnections.erase(fd);
    stalledSenders.erase(fd);
  }
}

std::vector<int> EventManager::SubscribersOf(int type) {
  MutexLock lock(keloRawEventManagerLock);
  auto subscribers = observersByType.find(type);
  if (subscribers == observersByType.end()) return {};
  std::vector<int> fds = subscribers->second;
  std::sort(fds.begin(), fds.end());
  return fds;
}

std::vector<int> EventManager::LossReportSubscribers(int type) {
  int derived[2] = {};
  const int derivedCount = DerivedEventTypes(type, &derived);
  std::vector<int> fds;
  MutexLock lock(keloRawEventManagerLock);
  auto reporting = observersByType.find(KELO_CLIENT_EVENT_EVENTS_LOST);
  if (reporting == observersByType.end()) return fds;
  for (int fd : reporting->second) {
    auto types = observersByFd.find(fd);
    if (types == observersByFd.end()) continue;
    const auto subscribed = [&types](int wanted) {
      return std::find(types->second.begin(), types->second.end(), wanted) != types->second.end();
    };
    bool wants = subscribed(type);
    for (int i = 0; i < derivedCount && !wants; ++i) wants = subscribed(derived[i]);
    if (wants) fds.push_back(fd);
  }
  std::sort(fds.begin(), fds.end());
  return fds;
}

ClientConnection* EventManager::ConnectionLocked(int fd) {
  auto connection = connections.find(fd);
  return connection == connections.end() ? nullptr : connection->second.get();
}

IpcPackageManager* EventManager::OpenConnection(int fd, IpcPackageManager::TrimListener onTrim) {
  MutexLock lock(keloRawEventManagerLock);
  std::shared_ptr<ClientConnection>& connection = connections[fd];
  if (!connection) {
    connection = std::make_shared<ClientConnection>();
    connection->queue.setTrimListener(std::move(onTrim));
    connection->serial = ++connectionsOpened;
    ++generation;
  }
  return &connection->queue;
}

IpcPackageManager* EventManager::QueueOf(int fd) {
  MutexLock lock(keloRawEventManagerLock);
  ClientConnection* connection = ConnectionLocked(fd);
  return connection == nullptr ? nullptr : &connection->queue;
}

void EventManager::CloseConnection(int fd) {
  std::shared_ptr<ClientConnection> closed;
  {
    MutexLock lock(keloRawEventManagerLock);
    EraseObserverLocked(fd);
    auto connection = connections.find(fd);
    if (connection == connections.end()) return;
    closed = std::move(connection->second);
    connections.erase(connection);
  }
  // Freed outside the lock: no producer can reach it any more.
}

void EventManager::SetSenderWaker(SenderWaker waker) {
  MutexLock lock(keloRawEventManagerLock);
  senderWaker = std::move(waker);
}

bool EventManager::SendTo(int fd, const char* data, unsigned int size, bool front) {
  MutexLock lock(keloRawEventManagerLock);
  ClientConnection* connection = ConnectionLocked(fd);
  if (connection == nullptr) return false;
  IpcPackageManager& packages = connection->queue;
  if (front) {
    packages.buildAndPushFrontSecondIpcPackage(IPC_PACKAGE_TYPE_EVENT, data, size);
  } else {
    packages.buildAndAppendSecondIpcPackage(IPC_PACKAGE_TYPE_EVENT, data, size);
  }
  if (packages.requestSend()) NotifySendersLocked({fd});
  return true;
}

size_t EventManager::QueueDepth(int fd) {
  MutexLock lock(keloRawEventManagerLock);
  ClientConnection* connection = ConnectionLocked(fd);
  return connection == nullptr ? 0 : connection->queue.getIpcPackageCount();
}

void EventManager::WaitForSender(int fd) {
  using Clock = std::chrono::steady_clock;
  const RingFillGauge* ring = RingFillGauge::OfThisThread();
  if (ring != nullptr && ring->MoreThanHalfFull()) return;
  std::shared_ptr<ClientConnection> connection;
  {
    MutexLock lock(keloRawEventManagerLock);
    auto found = connections.find(fd);
    if (found != connections.end()) connection = found->second;
  }
  if (!connection) return;
  pacingWaits.fetch_add(1, std::memory_order_relaxed);
  size_t depth = QueueDepth(fd);
  const Clock::time_point start = Clock::now();
  Clock::time_point lastProgress = start;
  while (depth > PACE_RESUME_DEPTH) {
    connection->queue.waitDepthAtMost(PACE_RESUME_DEPTH, PACE_POLL_INTERVAL);
    // The kernel is about to lose events for everyone: this client takes
    // the trim instead.
    if (ring != nullptr && ring->MoreThanHalfFull()) return;
    // 0 once the connection closed.
    const size_t current = QueueDepth(fd);
    const Clock::time_point now = Clock::now();
    if (current < depth) {
      depth = current;
      lastProgress = now;
    }
    if (now - lastProgress >= PACE_STALL_LIMIT || now - start >= PACE_WAIT_LIMIT) {
      MutexLock lock(keloRawEventManagerLock);
      if (observersByFd.count(fd) != 0 && stalledSenders.insert(fd).second) ++generation;
      return;
    }
  }
}

void EventManager::NotePacingLocked(int fd, size_t depth, std::vector<int>* crowded) {
  if (depth >= PACE_START_DEPTH) {
    if (stalledSenders.count(fd) == 0 && pacedConnections.count(fd) != 0) crowded->push_back(fd);
  } else if (depth <= PACE_RESUME_DEPTH && !stalledSenders.empty() && stalledSenders.erase(fd) != 0) {
    ++generation;
  }
}

StagedType& EventManager::StagingTargetsLocked(EventStaging* staging, int type) {
  if (staging->generation_ != generation.load(std::memory_order_relaxed)) {
    staging->DropTargets();
    staging->generation_ = generation.load(std::memory_order_relaxed);
  }
  if (StagedType* cached = staging->CachedTargets(type, staging->generation_)) return *cached;
  StagedType targets;
  targets.type = type;
  auto subscribers = observersByType.find(type);
  if (subscribers != observersByType.end()) {
    for (int fd : subscribers->second) {
      // A subscriber that is no connection (the registry was told of the
      // subscription by someone other than the endpoint) has nowhere to go.
      ClientConnection* connection = ConnectionLocked(fd);
      if (connection == nullptr) continue;
      const size_t index = staging->EntryOf(fd, connection->serial, connection->queue.getIpcPackageCount());
      StagedFrames& entry = staging->staged_[index];
      entry.paced = pacedConnections.count(fd) != 0 && stalledSenders.count(fd) == 0;
      targets.entries.push_back(index);
    }
  }
  // The pacing of the entries may have changed.
  staging->pacedHeadroom_ = 0;
  staging->targets_.push_back(std::move(targets));
  return staging->targets_.back();
}

int EventManager::AppendEvent(char* data, unsigned int size) {
  int32_t type = 0;
  if (size < sizeof(type)) return 0;
  memcpy(&type, data, sizeof(type));

  // Connections whose sender was idle and must be woken (the others already
  // have a wake-up pending that covers this event too), and those whose
  // queue is filling up faster than their sender empties it.
  thread_local std::vector<int> toWake;
  thread_local std::vector<int> crowded;
  toWake.clear();
  crowded.clear();
  EventStaging* staging = EventStaging::OfThisThread();
  if (staging != nullptr) {
    // The subscribers this thread cached while the registry has not changed
    // since: no lock is taken.
    StagedType* targets = staging->CachedTargets(type, generation.load(std::memory_order_acquire));
    if (targets == nullptr) {
      MutexLock lock(keloRawEventManagerLock);
      targets = &StagingTargetsLocked(staging, type);
    }
    if (targets->entries.empty()) return 0;
    EventStaging::AddTo(targets, staging->AddFrame(data, size), IPC_FRAME_PREFIX_SIZE + size);
    ++staging->events_;
    // Each event adds at most one frame to a connection's: until the
    // headroom is used up no paced connection can be crowded.
    if (++staging->sinceLook_ >= staging->pacedHeadroom_) staging->NoteCrowded(&crowded);
  } else {
    MutexLock lock(keloRawEventManagerLock);
    auto subscribers = observersByType.find(type);
    if (subscribers == observersByType.end() || subscribers->second.empty()) return 0;
    for (int fd : subscribers->second) {
      ClientConnection* connection = ConnectionLocked(fd);
      if (connection == nullptr) continue;
      IpcPackageManager& packages = connection->queue;
      packages.appendEventToRun(IPC_PACKAGE_TYPE_EVENT, data, size);
      if (packages.requestSend()) toWake.push_back(fd);
      NotePacingLocked(fd, packages.getIpcPackageCount(), &crowded);
    }
    // Every package of the event is queued before the first connection is
    // told.
    if (!toWake.empty()) NotifySendersLocked(toWake);
  }
  // A sender is only waited for once it has been told.
  if (staging != nullptr && (staging->Due() || !crowded.empty())) staging->Flush();
  for (int fd : crowded) WaitForSender(fd);
  return 0;
}

void EventManager::NotifySendersLocked(const std::vector<int>& fds) {
  if (!senderWaker) {
    for (int fd : fds) CancelSendRequestLocked(fd);
    return;
  }
  for (int fd : senderWaker(fds)) CancelSendRequestLocked(fd);
}

void EventManager::CancelSendRequestLocked(int fd) {
  ClientConnection* connection = ConnectionLocked(fd);
  if (connection != nullptr) connection->queue.cancelSendRequest();
}

bool EventManager::AppendStaged(const FrameBlock& block, std::vector<StagedFrames>* staged) {
  thread_local std::vector<int> toWake;
  toWake.clear();
  bool shared = false;
  SenderWaker waker;
  {
    MutexLock lock(keloRawEventManagerLock);
    for (auto entry = staged->begin(); entry != staged->end();) {
      ClientConnection* connection = ConnectionLocked(entry->fd);
      // A connection that closed since its frames were staged has nothing
      // left to send, and a new one on its descriptor gets none of them.
      if (connection == nullptr || connection->serial != entry->serial) {
        entry = staged->erase(entry);
        continue;
      }
      if (entry->count != 0) {
        const bool copy = entry->bytes * 2 < block->size();
        connection->queue.appendSharedFrames(block, entry->slices, copy);
        shared = shared || !copy;
        if (connection->queue.requestSend()) toWake.push_back(entry->fd);
        entry->slices.clear();
        entry->count = 0;
        entry->bytes = 0;
      }
      entry->queued = connection->queue.getIpcPackageCount();
      // A sender given up on is waited for again once its queue drained;
      // the changed generation makes publishers look at its pacing again.
      if (entry->queued <= PACE_RESUME_DEPTH && !stalledSenders.empty() && stalledSenders.erase(entry->fd) != 0) {
        ++generation;
      }
      ++entry;
    }
    waker = senderWaker;
  }
  if (!toWake.empty()) {
    // Woken outside the lock, so that producers are not held up meanwhile.
    const std::vector<int> failed = waker ? waker(toWake) : toWake;
    if (!failed.empty()) {
      MutexLock lock(keloRawEventManagerLock);
      for (int fd : failed) CancelSendRequestLocked(fd);
    }
  }
  return shared;
}

EventStaging::EventStaging() : block_(std::make_shared<std::string>()) { threadStaging = this; }

EventStaging::~EventStaging() {
  threadStaging = nullptr;
  Flush();
}

EventStaging* EventStaging::OfThisThread() { return threadStaging; }

size_t EventStaging::EntryOf(int fd, uint64_t serial, size_t queued) {
  auto entry = std::find_if(staged_.begin(), staged_.end(), [fd](const StagedFrames& s) { return s.fd == fd; });
  if (entry == staged_.end()) {
    entry = staged_.emplace(staged_.end());
    entry->fd = fd;
    entry->serial = serial;
    entry->queued = queued;
  } else if (entry->serial != serial) {
    *entry = StagedFrames{fd, serial, {}, 0, 0, queued};
  }
  return static_cast<size_t>(entry - staged_.begin());
}

size_t EventStaging::AddFrame(const char* record, uint32_t size) {
  const size_t offset = block_->size();
  char prefix[IPC_FRAME_PREFIX_SIZE];
  WriteFramePrefix(IPC_PACKAGE_TYPE_EVENT, size, prefix);
  block_->append(prefix, sizeof(prefix));
  block_->append(record, size);
  return offset;
}

void EventStaging::AddTo(StagedType* targets, size_t offset, size_t bytes) {
  std::vector<FrameSlice>& slices = targets->slices;
  // Frames that follow each other in the block form one slice, up to a run.
  if (slices.empty() || slices.back().offset + slices.back().bytes != offset ||
      slices.back().bytes + bytes > EVENT_RUN_BYTES) {
    slices.push_back(FrameSlice{offset, 0, 0});
  }
  FrameSlice& slice = slices.back();
  slice.bytes += bytes;
  ++slice.frames;
  ++targets->count;
  targets->bytes += bytes;
}

StagedType* EventStaging::CachedTargets(int type, uint64_t generation) {
  if (generation != generation_) return nullptr;
  for (StagedType& targets : targets_) {
    if (targets.type == type) return &targets;
  }
  return nullptr;
}

void EventStaging::Distribute() {
  typesTaken_.assign(staged_.size(), 0);
  firstNew_.resize(staged_.size());
  bool any = false;
  for (StagedType& targets : targets_) {
    if (targets.count == 0) continue;
    any = true;
    for (size_t index : targets.entries) {
      StagedFrames& entry = staged_[index];
      if (typesTaken_[index]++ == 0) firstNew_[index] = entry.slices.size();
      entry.slices.insert(entry.slices.end(), targets.slices.begin(), targets.slices.end());
      entry.count += targets.count;
      entry.bytes += targets.bytes;
    }
    targets.slices.clear();
    targets.count = 0;
    targets.bytes = 0;
  }
  if (!any) return;
  for (size_t index = 0; index < staged_.size(); ++index) {
    if (typesTaken_[index] == 0) continue;
    std::vector<FrameSlice>& slices = staged_[index].slices;
    // Everything handed on before lies before this distribution's frames
    // in the block; frames of several types go back into block order.
    const auto first = slices.begin() + static_cast<std::ptrdiff_t>(firstNew_[index]);
    if (typesTaken_[index] > 1) {
      std::sort(first, slices.end(), [](const FrameSlice& a, const FrameSlice& b) { return a.offset < b.offset; });
    }
    // Neighbours in the block join up to a run.
    size_t kept = firstNew_[index] == 0 ? 1 : firstNew_[index];
    for (size_t i = kept; i < slices.size(); ++i) {
      FrameSlice& last = slices[kept - 1];
      if (last.offset + last.bytes == slices[i].offset && last.bytes + slices[i].bytes <= EVENT_RUN_BYTES) {
        last.bytes += slices[i].bytes;
        last.frames += slices[i].frames;
      } else {
        slices[kept++] = slices[i];
      }
    }
    slices.resize(kept);
  }
}

void EventStaging::NoteCrowded(std::vector<int>* crowded) {
  Distribute();
  size_t headroom = SIZE_MAX;
  for (const StagedFrames& entry : staged_) {
    if (!entry.paced) continue;
    const size_t depth = entry.queued + entry.count;
    if (depth >= PACE_START_DEPTH) {
      crowded->push_back(entry.fd);
    } else {
      headroom = std::min(headroom, PACE_START_DEPTH - depth);
    }
  }
  sinceLook_ = 0;
  pacedHeadroom_ = headroom;
}

void EventStaging::DropTargets() {
  Distribute();
  targets_.clear();
}

void EventStaging::Flush() {
  events_ = 0;
  if (staged_.empty()) return;
  Distribute();
  // The queues' depths change.
  pacedHeadroom_ = 0;
  const size_t entries = staged_.size();
  // A block that no queue took is used again; one that a queue took is
  // never written again.
  if (EventManager::GetInstance()->AppendStaged(block_, &staged_)) {
    block_ = std::make_shared<std::string>();
  } else {
    block_->clear();
  }
  // The staged entries' indexes change when a flush drops entries.
  if (staged_.size() != entries) targets_.clear();
}

}  // namespace Bpf
}  // namespace Kelo
