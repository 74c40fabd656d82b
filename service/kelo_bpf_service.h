// The service: the library's entry function and the process-wide
// KeloBpfService with its threads.
//
// Threads:
//  - "BpfServicePoll" starts the client endpoint, waits until the platform has
//    pinned the kernel side (property "sys.kelo_bpf_ready" other than "0"),
//    starts "BpfServicePGpl", attaches the normal program set and pumps the
//    normal ring buffer;
//  - "BpfServicePGpl" attaches the GPL program set and pumps the GPL ring
//    buffer;
//  - "BpfServiceTr", the IPC endpoint's loop, runs every client callback;
//  - "BpfServiceDump" runs the dumps requested by signals 50 to 54;
//  - "BpfServiceLoss" reads the kernel's lost counts and tells subscribers
//    of type 50005 what was lost (LossReporter).
// All of them are bound to processors 0, 1 and 2.
//
// A pump switches the kernel side on in two steps through its ring buffer's
// status array: core events first, then its seeding step, then all other
// events, so that nothing that happens during the seeding is missed. Every
// drained record is counted, forwarded to the clients subscribed to its type
// and handed to the handler of its type.
//
// Locks (outermost first):
//  - EventManager::keloRawEventManagerLock: subscriptions and the
//    per-connection queues, all owned by the registry;
//  - servicelock: the singleton pointer, start/stop, the rings and every
//    read-modify-write of a status array;
//  - mutex: the two producer thread slots.
// Each queue, the IPC endpoint and the counters lock themselves.
//
// There is no orderly shutdown: stop() ends the IPC loop and clears
// `running`; each pump sees that only when its poll next returns.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "helper/kelo_bpf_attach_tables.h"
#include "service/kelo_bpf_event_loss.h"
#include "service/kelo_bpf_event_manager.h"
#include "service/kelo_bpf_event_ring.h"
#include "service/kelo_bpf_protocol.h"
#include "service/kelo_bpf_service_heal.h"
#include "service/kelo_bpf_service_loss.h"
#include "service/kelo_bpf_service_lost_counters.h"
#include "utils/kelo_bpf_ipc_package.h"
#include "utils/kelo_bpf_ipc_package_handler.h"
#include "utils/kelo_bpf_ipc_package_manager.h"
#include "utils/kelo_bpf_ipc_unix_manager.h"
#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

// Entry of the hosting daemon, called once on one of its threads. Starts the
// service unless the property "persist.sys.stability.bpfframework.disable"
// is exactly "1"; true when the service was started.
bool BpfServiceMain();

// Task dumps requested by signals 51 to 54; the argument is ignored. They
// run on the service's dump thread, never in signal context.
void HandleDumpSignal(int signal);
void HandleNonKernelDumpSignal(int signal);
void HandleDumpSignalNormal(int signal);
void HandleNonKernelDumpSignalNormal(int signal);

// The client protocol's constants (request codes, socket name, package types
// and frame sizes) are in service/kelo_bpf_protocol.h; the IPC framework must
// agree with them.
static_assert(IPC_PACKAGE_TYPE_REQUEST == KELO_BPF_PACKAGE_TYPE_REQUEST &&
                  IPC_PACKAGE_TYPE_RESPONSE == KELO_BPF_PACKAGE_TYPE_RESPONSE &&
                  IPC_PACKAGE_TYPE_EVENT == KELO_BPF_PACKAGE_TYPE_EVENT,
              "package types of the client protocol");
static_assert(IPC_FRAME_HEADER_SIZE == KELO_BPF_FRAME_LENGTH_SIZE &&
                  sizeof(KeloIpcSecondLevelPackageHeader) == KELO_BPF_PACKAGE_HEADER_SIZE &&
                  sizeof(KeloReqIpcPackageHeader) == KELO_BPF_REQUEST_HEADER_SIZE,
              "frame layout of the client protocol");

// Where the service finds its clients and the pinned kernel side. The
// defaults are the platform's; other values serve tests.
struct KeloBpfServiceConfig {
  std::string socketName = KELO_BPF_CLIENT_SOCKET_NAME;
  // Pinned programs and maps; ends in "/".
  std::string bpfFsDir = KELO_BPF_FS_DIR "/";
  // Called on a pump's thread right before its seeding step, with the ring
  // buffer index; lets tests look at the status array at that moment.
  std::function<void(int ringbufIndex)> beforeSeed;
  // How long a record may wait in its ring before the pump hands it on, in
  // milliseconds (see PollTimer); 0 wakes the pump for every record.
  // Negative: the property "persist.sys.stability.bpfframework.latency_budget_ms",
  // or 10 when it is unset or not a number from 0 to 1000.
  int latencyBudgetMs = -1;
};

// The property that sets the delivery-latency budget, its default and its
// largest value.
inline constexpr char LATENCY_BUDGET_PROPERTY[] = "persist.sys.stability.bpfframework.latency_budget_ms";
inline constexpr int DEFAULT_LATENCY_BUDGET_MS = 10;
inline constexpr int MAX_LATENCY_BUDGET_MS = 1000;

// Name and parent of one process, read from its status file.
struct UpdateProcessExdata {
  int32_t pid;
  int32_t ppid;
  char name[KELO_COMM_LEN];
};

class KeloBpfService {
 public:
  // Handler of one raw event type: (record, record length).
  using EventHandler = std::function<int(char* record, long long size)>;

  // procfs paths and the prefixes of the lines read from its files.
  static constexpr char PROC_FS_PATH[] = "/proc";
  static constexpr char SUBTASK_PATH_TEMPLATE[] = "/proc/%s/task";
  static constexpr char TASK_STATUS_TEMPLATE[] = "/proc/%s/status";
  static constexpr char TASK_STATUS_PID_TEMPLATE[] = "/proc/%d/status";
  static constexpr char TASK_STAT_TEMPLATE[] = "/proc/%s/stat";
  static constexpr char TASK_MAPS_TEMPLATE[] = "/proc/%s/maps";
  static constexpr char TASK_FD_TEMPLATE[] = "/proc/%s/fd";
  static constexpr char TASK_FDINFO_TEMPLATE[] = "/proc/%s/fdinfo/%s";
  static constexpr char TASK_COMM_PREFIX[] = "Name:\t";
  static constexpr char TASK_PPID_PREFIX[] = "PPid:\t";
  static constexpr char TASK_PROC_UID_PREFIX[] = "Uid:\t";
  static constexpr char TASK_RSS_ANON_PREFIX[] = "RssAnon:\t";
  static constexpr char TASK_RSS_FILE_PREFIX[] = "RssFile:\t";
  static constexpr char TASK_RSS_SHMEM_PREFIX[] = "RssShmem:\t";
  static constexpr char TASK_VM_SWAP_PREFIX[] = "VmSwap:\t";
  static constexpr char TASK_DMABUF_SIZE_PREFIX[] = "size:\t";
  static constexpr char TASK_DMABUF_INO_PREFIX[] = "ino:\t";
  static constexpr char TASK_DMABUF_PREFIX[] = "/dmabuf";

  // The pinned kernel side. Paths below are given for the platform's
  // directory; a service configured with another directory resolves them
  // there (pinnedPath).
  static constexpr char BPF_FS_PATH[] = KELO_BPF_FS_DIR "/";
  static constexpr char RINGBUF_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_map");
  static constexpr char RINGBUF_STATUS_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_status");
  static constexpr char GPL_RINGBUF_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_map");
  static constexpr char GPL_RINGBUF_STATUS_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_status");
  static constexpr char RINGBUF_LOST_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_lost");
  static constexpr char GPL_RINGBUF_LOST_MAP_PATH[] = KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_lost");
  static constexpr char DMABUF_BPF_PROCESS_INODE_MAP_PATH[] =
      KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "process_inode_map");
  static constexpr char DMABUF_BPF_PROCESS_MMAP_INFOS_PATH[] =
      KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "process_mmap_infos");

  // Set by the platform once everything is pinned; "0" or unset means not yet.
  static constexpr char KELO_BPF_READY[] = "sys.kelo_bpf_ready";
  static constexpr char KELO_BPF_NOT_READY[] = "0";

  // Ring-buffer indexes, as taken by the status operations.
  static constexpr int NORMAL_RINGBUF_INDEX = 0;
  static constexpr int GPL_RINGBUF_INDEX = 1;
  static constexpr int RINGBUF_COUNT = 2;

  // Thread names.
  static constexpr char POLL_THREAD_NAME[] = "BpfServicePoll";
  static constexpr char GPL_POLL_THREAD_NAME[] = "BpfServicePGpl";
  static constexpr char IPC_THREAD_NAME[] = "BpfServiceTr";
  static constexpr char DUMP_THREAD_NAME[] = "BpfServiceDump";
  static constexpr char LOSS_THREAD_NAME[] = "BpfServiceLoss";
  // Every service thread runs on processors 0, 1 and 2.
  static constexpr unsigned SERVICE_CPU_MASK = 0x7;

  // The client endpoint: per-connection buffer bytes, epoll size hint and
  // events taken per wait.
  static constexpr int IPC_BUFFER_SIZE = KELO_BPF_MAX_FRAME_SIZE;
  static constexpr int IPC_EPOLL_SIZE = 10;
  static constexpr int IPC_MAX_EVENTS = 32;

  // Pause of the readiness wait, of a pump after a failed poll, and of Wait.
  static constexpr std::chrono::seconds READY_POLL_INTERVAL{1};
  static constexpr std::chrono::seconds POLL_FAILURE_PAUSE{1};
  static constexpr std::chrono::seconds WAIT_CHECK_INTERVAL{60};
  // Consecutive failed polls tolerated; the next one ends the pump.
  static constexpr int MAX_POLL_FAILURES = 5;
  // An unforced ring-buffer status check runs at most this often per ring.
  static constexpr int64_t STATUS_CHECK_INTERVAL_SECONDS = 30;

  // The attach tables of the normal and the GPL program set. Never
  // destroyed: a producer thread may still read them while the process exits.
  static const BpfAttachTable& PROG_EVENT_MAP;
  static const BpfAttachTable& PROG_GPL_EVENT_MAP;

  // The singleton, made with the platform's configuration on first call;
  // never null, never destroyed.
  static KeloBpfService* GetInstance() EXCLUDES(servicelock);
  // The same, but a first call makes it with `config`.
  static KeloBpfService* GetInstance(const KeloBpfServiceConfig& config) EXCLUDES(servicelock);
  // The singleton if it was made, else null.
  static KeloBpfService* FindInstance() EXCLUDES(servicelock);

  KeloBpfService(const KeloBpfService&) = delete;
  KeloBpfService& operator=(const KeloBpfService&) = delete;

  // Sets `running` and starts "BpfServicePoll"; true. Calling it while that
  // thread's slot is occupied terminates the process.
  bool start() EXCLUDES(servicelock, mutex);
  // Stops the client endpoint and clears `running`; 0. Does not wait: each
  // pump ends after its current poll returns.
  int stop() EXCLUDES(servicelock);
  // For the hosting daemon's thread. Not running: stops the endpoint, joins
  // the producers and returns 0. Running: every 60 s restarts a producer
  // whose slot never held a thread, until `running` is cleared; then stops
  // the endpoint, joins the producers and returns 0.
  int Wait() EXCLUDES(mutex);

  // Thread bodies of "BpfServicePoll" and "BpfServicePGpl"; they return the
  // number of failed attachments.
  int eventProduceThread() EXCLUDES(mutex, servicelock);
  int gpleventProduceThread() EXCLUDES(servicelock);

  // Asks the endpoint to write to each connection, in order; the
  // connections that could not be asked (their descriptor is no longer
  // watched, or epoll refused). The registry's sender waker.
  std::vector<int> notifyClientEventReady(const std::vector<int>& fds);

  // Ring-buffer callback: counts the record, refuses a type above 7 (-1),
  // forwards it to its subscribers and runs its type's handler (0 when there
  // is none). ctx is the service, or null for the singleton.
  static int handleBpfRingBuffEvent(void* ctx, void* data, size_t size);
  // A handler that only forwards the record to its subscribers; 0.
  int handleBpfPassthrough(char* data, long long size);
  // Overflow watchdog of ring buffer `index`: when its full flag is set, logs
  // the ring's figures, clears the flag (and nothing else) and returns false.
  // Unless forced it looks at most every 30 s; true when it found no
  // overflow or did not look.
  bool checkBpfRingBuffStatus(int index, bool force) EXCLUDES(servicelock);
  // Set or clear the core / normal enable flag of ring buffer `index`; true
  // when the status array was updated.
  bool enableCoreBpf(int index, bool enable) EXCLUDES(servicelock);
  bool enableNormalBpf(int index, bool enable) EXCLUDES(servicelock);
  // The pumps of the normal and the GPL ring buffer: 0 after a stop, -1
  // after a set-up failure or the sixth consecutive failed poll.
  int eventMonitor() EXCLUDES(servicelock);
  int gpleventMonitor() EXCLUDES(servicelock);

  // Client endpoint; every callback runs on the IPC thread.
  int onClientLibReadable(int fd, BufferState* readBufferState);
  int onClientLibWriteable(int fd, BufferState* writeBufferState);
  int onClientLibConnection(int fd);
  int onClientLibClose(int fd);
  // Handles one request package (12-byte request header, then its data) and
  // queues the response; 0. A header whose dataSize disagrees with `size` is
  // logged as a failed check and refused with -1, which closes the
  // connection.
  int onEventProvideReqCallBack(int fd, char* payload, unsigned int size);

  // The delivery-latency budget the pumps keep, fixed by the constructor.
  std::chrono::milliseconds latencyBudget() const { return budget; }

  // Loss accounting (the state file's loss lines read it; tests too).
  LossLedger& lossLedger() { return losses; }
  // Connections closed because they sent a damaged frame or request.
  uint64_t badFramesClosed() const { return badFrames.load(std::memory_order_relaxed); }

  // Task event handlers of raw types 0 to 3.
  int handleKeloTaskInitEvent(char* data, long long size);
  int handleSched_SchedProcessFork(char* data, long long size);
  int handleSched_SchedProcessExit(char* data, long long size);
  int handleKmem_RssStat(char* data, long long size);

  // Tracking-map set-up and procfs readers.
  int initBpfMap();
  // Writes every process's descriptor count and name into the pinned
  // open_fd_caller_map (key pid, BPF_ANY); 0 after the scan (failed updates
  // are logged and skipped), -1 when the map cannot be opened. Not called by
  // the service; safe on any thread.
  int initFdBpfProg();
  // Seeds the pinned dma-buf maps from the descriptors of every process in
  // /proc: dmabuf_allocate_map (inode -> holder and size) and both size maps
  // (pid -> total of distinct buffers). 0 after the scan (failed updates are
  // logged and skipped); -1 when one of the five dma-buf maps cannot be
  // opened, and then nothing is written. On "BpfServicePGpl" only: it alone
  // uses the unlocked scratch members.
  int initDmabufBpfProg();
  int initTaskInfo();
  // Reconciles the task table with /proc now: drops the records of pids
  // that are gone (made before the walk of /proc began), telling each as
  // 50002 and leaving a heal mark so that its exit record, if still queued,
  // is not told again; reads each live process missing from the table and
  // feeds it through the dispatcher as the start-up scan does (leaving a
  // mark so that a queued creation record is still told as 50001). Runs on
  // the loss thread, which calls it through taskHealer; tests call it too.
  TaskHealResult healTaskTable();
  // Task table heals and their counts.
  TaskHealer& taskHeals() { return *taskHealer; }
  int getProcessInfo(int pid, UpdateProcessExdata* out);
  // The number on the first "size:\t" / "ino:\t" line of an fdinfo file; 0
  // when the file cannot be opened (warning "Unable to open <path>") or the
  // line is missing or holds no number. A size beyond long (2 GiB and more on
  // the 32-bit target) is reported as LONG_MAX with a warning. Any thread.
  long GetFdSize(const std::string& fdinfoPath);
  unsigned long long GetFdInode(const std::string& fdinfoPath);

 private:
  // What differs between the two pumps.
  struct PumpTraits {
    int index;
    const char* method;    // log prefix "[KeloBpfService][<method>]"
    const char* stopText;  // logged when the pump sees `running` cleared
    const char* ringbufPath;
    const char* statusPath;
    const char* lostPath;
    // Brings the kernel's tracking state up to date between the two enable
    // steps.
    int (KeloBpfService::*seed)();
  };
  static const PumpTraits NORMAL_PUMP;
  static const PumpTraits GPL_PUMP;

  explicit KeloBpfService(const KeloBpfServiceConfig& config);

  // Names the calling thread and binds it to the service's processors;
  // false (errno set) when the binding failed.
  static bool NameAndBindThread(const char* name);
  static cpu_set_t ServiceCpuSet();
  // Routes signals 50 to 54 to the dump thread (made on first call). When
  // the thread or its pipe cannot be made, the signals are still caught:
  // each is refused, and logged by ReportRefusedDumps.
  static void InstallDumpSignalHandlers();
  // Logs the dump requests refused since the last call; a pump calls it
  // after every poll (one atomic load when there is nothing to log).
  static void ReportRefusedDumps();
  // Body of "BpfServiceDump": runs one dump per signal number read.
  static void DumpThread(int requestFd);

  // designedPath (under BPF_FS_PATH) moved to the configured directory.
  std::string pinnedPath(const char* designedPath) const;
  // Starts a thread on body; an exception from it is logged and ends it.
  std::thread spawnProducer(int (KeloBpfService::*body)(), const char* method);
  // Sleeps while the readiness property is unset or "0".
  void waitUntilReady();
  void initBaseTimeLogged();
  // Step of "BpfServicePoll": starts "BpfServicePGpl" unless its slot is taken.
  void startGplProducer() EXCLUDES(mutex);
  void joinProducers() EXCLUDES(mutex);

  int runPump(const PumpTraits& pump) EXCLUDES(servicelock);
  // Starts "BpfServiceLoss" once.
  void startLossReporter();
  // The loss lines of the state file.
  std::string stateSupplement();
  // The task-initialisation record of process `pid` (directory `name` under
  // /proc) as the start-up scan makes it, stamped now; false when its status
  // file could not be read (the record then holds what stat gave).
  static bool ReadTaskInit(const std::string& name, int32_t pid, long ticks, std::string* text,
                           kelo_task_init_event* record);
  // Feeds a synthesised record through the dispatcher, as a pump would.
  void submitTaskInit(const kelo_task_init_event& record);
  // fd's queue in the registry, made (with its trim listener) when it has
  // none. IPC thread only.
  IpcPackageManager* openClientQueue(int fd);
  int dispatchRecord(char* data, size_t size);
  // Sets (enable) or clears `flag` in status entry 0 of ring `index`; true
  // when the update succeeded.
  bool updateStatusFlag(int index, uint64_t flag, bool enable) EXCLUDES(servicelock);

  // Event type -> handler; fixed by the constructor.
  std::map<int, EventHandler> eventHandlers;
  // From start() until stop(); the loops read it without a lock.
  std::atomic<bool> running{false};
  // Wall-clock second of the last status check, per ring buffer; each
  // pump's watchdog is the only writer of its entry.
  std::atomic<int64_t> lastStatusCheckTime[RINGBUF_COUNT] = {};
  // The pinned ring buffers with their status arrays and consumers, by ring
  // index; each made by its pump and kept until the process ends.
  std::unique_ptr<EventRing> rings[RINGBUF_COUNT] GUARDED_BY(servicelock);
  const std::chrono::milliseconds budget;
  // Scratch state of initDmabufBpfProg, which alone (on "BpfServicePGpl")
  // touches them.
  std::map<uint64_t, dmabuf_allocate_info> dmabufInodeStats;
  std::map<int, dmabuf_stat> dmabufProcessStats;
  std::map<int, std::map<uint32_t, int>> dmabufProcessInodes;
  std::map<int, std::map<uint32_t, int>> dmabufProcessMmaps;
  // Names a freshly forked application process carries before it gets its
  // own; fixed by the constructor.
  std::set<std::string> startingProcessNames;
  // Guards the two thread slots below.
  Mutex mutex;
  std::thread produceThread GUARDED_BY(mutex);
  std::thread gplProduceThread GUARDED_BY(mutex);
  std::unique_ptr<UnixIpcManager> ipcManager;
  // Spare queue; nothing is queued on it.
  std::unique_ptr<IpcPackageManager> packageManager;
  // Dispatches incoming client packages by type; IPC thread only.
  std::unique_ptr<IpcPackageHandler> packageHandler;
  // Pinned dma-buf tracking maps, opened by initBpfMap.
  android::base::unique_fd processInodeMapFd;
  android::base::unique_fd processMmapInfosMapFd;
  const KeloBpfServiceConfig config;

  // What was lost where, the kernel's lost counts and the thread telling
  // clients; the reporter outlives every queue's trim listener (never
  // destroyed, like the service).
  LossLedger losses;
  KernelLostCounters kernelLostCounters;
  std::unique_ptr<TaskHealer> taskHealer;
  std::unique_ptr<LossReporter> lossReporter;
  std::atomic<uint64_t> badFrames{0};

  // Guards `instance`, start/stop, the rings and every read-modify-write of
  // a status array. Never held while polling.
  static Mutex servicelock;
  static KeloBpfService* instance GUARDED_BY(servicelock);
};

}  // namespace Bpf
}  // namespace Kelo
