#include "service/kelo_bpf_event_manager.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "service/kelo_bpf_service.h"

namespace Kelo {
namespace Bpf {

Mutex EventManager::keloRawEventManagerLock;
EventManager* EventManager::instance = nullptr;

EventManager* EventManager::GetInstance() {
  MutexLock lock(keloRawEventManagerLock);
  if (instance == nullptr) instance = new EventManager();
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
}

void EventManager::DelObserverEvent(int fd, int type) {
  MutexLock lock(keloRawEventManagerLock);
  RemoveAll(&observersByType[type], fd);
  RemoveAll(&observersByFd[fd], type);
}

void EventManager::EraseObserver(int fd) {
  MutexLock lock(keloRawEventManagerLock);
  auto entry = observersByFd.find(fd);
  if (entry == observersByFd.end()) return;
  for (int type : entry->second) RemoveAll(&observersByType[type], fd);
  observersByFd.erase(entry);
}

int EventManager::AppendEvent(char* data, unsigned int size) {
  int32_t type = 0;
  if (size < sizeof(type)) return 0;
  memcpy(&type, data, sizeof(type));

  MutexLock lock(keloRawEventManagerLock);
  auto subscribers = observersByType.find(type);
  if (subscribers == observersByType.end() || subscribers->second.empty()) return 0;

  if (clientQueues != nullptr) {
    for (int fd : subscribers->second) {
      auto queue = clientQueues->find(fd);
      // A subscriber always has a queue: it is made when the connection is
      // accepted and erased only after the subscriptions.
      if (queue == clientQueues->end()) continue;
      queue->second.buildAndAppendSecondIpcPackage(IPC_PACKAGE_TYPE_EVENT, data, size);
    }
  }
  // Every package of the event is queued before the first connection is told.
  KeloBpfService* service = KeloBpfService::FindInstance();
  if (service != nullptr) service->notifyClientEventReady(subscribers->second);
  return 0;
}

void EventManager::setClientQueues(ClientPackageManagers* queues) { clientQueues = queues; }

}  // namespace Bpf
}  // namespace Kelo
