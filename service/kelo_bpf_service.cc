#include "service/kelo_bpf_service.h"

#include <android-base/properties.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>

#include "helper/kelo_bpf_helper_strings.h"
#include "service/kelo_bpf_state.h"
#include "utils/kelo_bpf_error_log.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr char DISABLE_PROPERTY[] = "persist.sys.stability.bpfframework.disable";
constexpr char DISABLE_PROPERTY_DEFAULT[] = "0";
constexpr char DISABLED[] = "1";

// Names a freshly forked application process carries in the kernel's task
// name before it gets its own; the second is compared with 15-character
// kernel names, hence its cut.
constexpr char STARTING_PROCESS_MAIN[] = "main";
constexpr char STARTING_PROCESS_REINITIALIZED[] = "re-initialized>";

std::chrono::milliseconds ChooseLatencyBudget(int configured) {
  if (configured >= 0) return std::chrono::milliseconds(std::min(configured, MAX_LATENCY_BUDGET_MS));
  const int fromProperty =
      android::base::GetIntProperty(LATENCY_BUDGET_PROPERTY, DEFAULT_LATENCY_BUDGET_MS, 0, MAX_LATENCY_BUDGET_MS);
  return std::chrono::milliseconds(fromProperty);
}

}  // namespace

const BpfAttachTable& KeloBpfService::PROG_EVENT_MAP = *new BpfAttachTable(NormalAttachTable());
const BpfAttachTable& KeloBpfService::PROG_GPL_EVENT_MAP = *new BpfAttachTable(GplAttachTable());

Mutex KeloBpfService::servicelock;
KeloBpfService* KeloBpfService::instance = nullptr;

bool BpfServiceMain() {
  if (android::base::GetProperty(DISABLE_PROPERTY, DISABLE_PROPERTY_DEFAULT) == DISABLED) {
    KELO_LOGI(LOG_TAG_SERVICE, "[BpfServiceMain] Starting KELO Bpf Service disabled!");
    return false;
  }
  KELO_LOGI(LOG_TAG_SERVICE, "[BpfServiceMain] Starting KELO Bpf Service");
  InitBpfServiceErrorLog();
  KeloBpfService::GetInstance()->start();
  return true;
}

KeloBpfService* KeloBpfService::GetInstance() {
  if (KeloBpfService* service = FindInstance()) return service;
  return GetInstance(KeloBpfServiceConfig());
}

KeloBpfService* KeloBpfService::GetInstance(const KeloBpfServiceConfig& config) {
  static std::once_flag made;
  std::call_once(made, [&config] {
    // Built without servicelock held: the constructor takes
    // keloRawEventManagerLock, which must never nest inside servicelock.
    KeloBpfService* service = new KeloBpfService(config);
    MutexLock lock(servicelock);
    instance = service;
  });
  return FindInstance();
}

KeloBpfService* KeloBpfService::FindInstance() {
  MutexLock lock(servicelock);
  return instance;
}

KeloBpfService::KeloBpfService(const KeloBpfServiceConfig& config)
    : budget(ChooseLatencyBudget(config.latencyBudgetMs)), config(config) {
  IpcHandlerState handlerState;
  handlerState.compactReadBuffer = true;
  handlerState.closeOnError = true;
  handlerState.extraFlag = true;
  handlerState.onReadable = [this](int fd, BufferState* buffer) { return onClientLibReadable(fd, buffer); };
  handlerState.onWriteable = [this](int fd, BufferState* buffer) { return onClientLibWriteable(fd, buffer); };
  handlerState.onConnection = [this](int fd) { return onClientLibConnection(fd); };
  handlerState.onClose = [this](int fd) { return onClientLibClose(fd); };

  ipcManager = std::make_unique<UnixIpcManager>(true, IPC_BUFFER_SIZE, config.socketName, std::move(handlerState),
                                                IPC_THREAD_NAME, ServiceCpuSet(), IPC_EPOLL_SIZE, IPC_MAX_EVENTS);
  packageManager = std::make_unique<IpcPackageManager>();

  // Requests are the only packages a client sends; packages of the other
  // known types are accepted and dropped.
  std::map<uint32_t, IpcPackageHandlerFunc> packageHandlers;
  for (uint32_t type = 0; type <= IPC_PACKAGE_TYPE_MAX; ++type) packageHandlers[type] = nullptr;
  packageHandlers[IPC_PACKAGE_TYPE_REQUEST] = [this](int fd, char* data, uint32_t size) {
    return onEventProvideReqCallBack(fd, data, size);
  };
  packageHandler = std::make_unique<IpcPackageHandler>(packageHandlers);

  startingProcessNames = {STARTING_PROCESS_MAIN, STARTING_PROCESS_REINITIALIZED};

  eventHandlers[KELO_EVENT_TASK_INIT] = [this](char* data, long long size) {
    return handleKeloTaskInitEvent(data, size);
  };
  eventHandlers[KELO_EVENT_TASK_CREATE] = [this](char* data, long long size) {
    return handleSched_SchedProcessFork(data, size);
  };
  eventHandlers[KELO_EVENT_TASK_EXIT] = [this](char* data, long long size) {
    return handleSched_SchedProcessExit(data, size);
  };
  eventHandlers[KELO_EVENT_RSS_STAT] = [this](char* data, long long size) { return handleKmem_RssStat(data, size); };

  EventManager* registry = EventManager::GetInstance();
  taskHealer = std::make_unique<TaskHealer>([this] { return healTaskTable(); });
  lossReporter = std::make_unique<LossReporter>(&losses, &kernelLostCounters, registry, taskHealer.get());
  KeloBpfDataState::GetInstance()->SetSupplement([this] { return stateSupplement(); });
  registry->SetSenderWaker([this](const std::vector<int>& fds) { return notifyClientEventReady(fds); });
}

std::string KeloBpfService::pinnedPath(const char* designedPath) const {
  return config.bpfFsDir + (designedPath + sizeof(BPF_FS_PATH) - 1);
}

bool KeloBpfService::start() {
  startLossReporter();
  MutexLock lock(servicelock);
  running = true;
  MutexLock slots(mutex);
  produceThread = spawnProducer(&KeloBpfService::eventProduceThread, "eventProduceThread");
  return true;
}

int KeloBpfService::stop() {
  MutexLock lock(servicelock);
  ipcManager->stop();
  running = false;
  return 0;
}

int KeloBpfService::Wait() {
  while (running) {
    {
      MutexLock slots(mutex);
      if (!produceThread.joinable()) {
        produceThread = spawnProducer(&KeloBpfService::eventProduceThread, "eventProduceThread");
      }
      if (!gplProduceThread.joinable()) {
        gplProduceThread = spawnProducer(&KeloBpfService::gpleventProduceThread, "gpleventProduceThread");
      }
    }
    std::this_thread::sleep_for(WAIT_CHECK_INTERVAL);
  }
  ipcManager->stop();
  joinProducers();
  return 0;
}

void KeloBpfService::joinProducers() {
  // The normal producer is the only other writer of the GPL slot, so the GPL
  // slot is taken only once the normal producer has ended.
  std::thread normal;
  {
    MutexLock slots(mutex);
    normal = std::move(produceThread);
  }
  if (normal.joinable()) normal.join();
  std::thread gpl;
  {
    MutexLock slots(mutex);
    gpl = std::move(gplProduceThread);
  }
  if (gpl.joinable()) gpl.join();
}

std::vector<int> KeloBpfService::notifyClientEventReady(const std::vector<int>& fds) {
  std::vector<int> failed;
  for (int fd : fds) {
    if (!ipcManager->notifyNeedWriteData(fd)) failed.push_back(fd);
  }
  return failed;
}

void KeloBpfService::startLossReporter() {
  static std::once_flag started;
  std::call_once(started, [this] {
    try {
      std::thread([this] {
        if (!NameAndBindThread(LOSS_THREAD_NAME)) {
          KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][lossReporter] set thread affinity failed. %s", strerror(errno));
        }
        try {
          lossReporter->Run();
        } catch (const std::exception& e) {
          KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][lossReporter] Loss report thread ended by error: %s", e.what());
        }
      }).detach();
    } catch (const std::system_error& e) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] Start loss report thread failed: %s", e.what());
    }
  });
}

IpcPackageManager* KeloBpfService::openClientQueue(int fd) {
  // The listener runs on the appending thread, which holds the registry's
  // lock: the connection cannot close meanwhile.
  return EventManager::GetInstance()->OpenConnection(fd, [this, fd](const std::deque<KeloIpcPackage>& removed) {
    losses.QueueTrimmed(fd, removed, MonotonicNowNs());
    lossReporter->NoteQueueLoss();
  });
}

std::string KeloBpfService::stateSupplement() {
  return KeloBpfDataState::GetInstance()->TotalsLines() + losses.StateLines() +
         StringPrintf("BadFramesClosed, %" PRIu64 ", \r\n", badFramesClosed()) +
         StringPrintf("PacingWaits, %" PRIu64 ", \r\n", EventManager::GetInstance()->PacingWaits()) +
         taskHealer->StateLines();
}

}  // namespace Bpf
}  // namespace Kelo
