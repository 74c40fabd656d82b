// The kernel programs, attached to the real tracepoints of this kernel the way
// the service attaches them (BCC's bpf_attach_tracepoint on the pinned
// program), produce the records of kelo_bpf_events.h and honour the status
// flags. The kprobe programs cannot be attached on this kernel and are only
// covered by the loader test.
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "bpf/kelo_bpf_events.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/process.h"

namespace kelo_test {
namespace {

using android::base::unique_fd;
using Bytes = std::vector<uint8_t>;

std::string Pinned(const std::string& name) { return std::string(KELO_BPF_FS_DIR) + "/" + name; }

// Records of one type whose decoded form satisfies pred.
template <typename T>
std::vector<T> Matching(const std::vector<Bytes>& records, uint32_t type, const std::function<bool(const T&)>& pred) {
  std::vector<T> out;
  for (const Bytes& bytes : records) {
    T record{};
    uint32_t recordType = UINT32_MAX;
    if (bytes.size() >= sizeof(recordType)) memcpy(&recordType, bytes.data(), sizeof(recordType));
    if (recordType != type) continue;
    EXPECT_EQ(bytes.size(), sizeof(T));
    memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof(T)));
    if (pred(record)) out.push_back(record);
  }
  return out;
}

std::string CommOf(const char (&comm)[KELO_COMM_LEN]) { return std::string(comm, strnlen(comm, KELO_COMM_LEN)); }

uint64_t MonotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + ts.tv_nsec;
}

// True once this process's group leader has exited while other threads
// live on. Async-signal-safe calls only: it runs in a forked child.
bool LeaderIsZombie() {
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/task/%d/stat", getpid(), getpid());
  unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
  char buf[512];
  const ssize_t n = fd.ok() ? read(fd.get(), buf, sizeof(buf) - 1) : -1;
  if (n <= 0) return false;
  buf[n] = '\0';
  const char* end = strrchr(buf, ')');
  return end != nullptr && end[1] == ' ' && end[2] == 'Z';
}

// One program set as the service sees it: its pinned ring buffer drained
// through libbpf, its status array, and attachments made by pinned name.
class ProgramSet {
 public:
  explicit ProgramSet(std::string defineset) : defineset_(std::move(defineset)) {}

  void Open() {
    ring_.reset(bpf_obj_get(Pinned("map_" + defineset_ + "_ringbuf_map").c_str()));
    ASSERT_GE(ring_.get(), 0) << std::strerror(errno);
    reader = RingBufferReader::Create(ring_.get());
    status = StatusArray::Open(Pinned("map_" + defineset_ + "_ringbuf_status"));
    ASSERT_TRUE(reader && status);
  }

  // Attaches prog_<set>_tracepoint_<category>_<event> to category:event.
  void AttachTracepoint(const std::string& category, const std::string& event) {
    const std::string path = Pinned("prog_" + defineset_ + "_tracepoint_" + category + "_" + event);
    unique_fd prog(bpf_obj_get(path.c_str()));
    ASSERT_GE(prog.get(), 0) << path << ": " << std::strerror(errno);
    unique_fd link(bpf_attach_tracepoint(prog.get(), category.c_str(), event.c_str()));
    ASSERT_GE(link.get(), 0) << "attaching " << path;
    attachments_.push_back(std::move(link));
  }

  void SetFlags(uint64_t flags) { ASSERT_TRUE(status->Set(KELO_RB_STATUS_FLAGS, flags)); }

  std::unique_ptr<RingBufferReader> reader;
  std::unique_ptr<StatusArray> status;

 private:
  const std::string defineset_;
  unique_fd ring_;
  std::vector<unique_fd> attachments_;
};

class KeloBpfProgramsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_WITHOUT_BPF();
    ASSERT_TRUE(LoadAndPinPrograms());
    ASSERT_NO_FATAL_FAILURE(normal.Open());
    ASSERT_NO_FATAL_FAILURE(gpl.Open());
  }

  ProgramSet normal{KELO_BPF_DEFINESET};
  ProgramSet gpl{KELO_BPF_GPL_DEFINESET};
};

TEST_F(KeloBpfProgramsTest, ForksAreReportedOnlyWithTheCoreFlagThreadsAgainstTheirProcess) {
  ASSERT_NO_FATAL_FAILURE(normal.AttachTracepoint("sched", "sched_process_fork"));
  for (const uint64_t flags : {uint64_t{0}, uint64_t{KELO_RB_FLAG_NORMAL}}) {
    ASSERT_NO_FATAL_FAILURE(normal.SetFlags(flags));
    RunChild();
    EXPECT_TRUE(normal.reader->Drain().empty()) << "records with flags " << flags;
  }

  ASSERT_NO_FATAL_FAILURE(normal.SetFlags(KELO_RB_FLAG_CORE));
  const uint64_t before = MonotonicNs();
  const pid_t child = RunChild();
  const uint64_t after = MonotonicNs();
  // Sanitizer runtimes may start threads of their own, so the check is that
  // ours are among the reported ones and none was taken for a process.
  std::vector<pid_t> tids(3);
  for (pid_t& tid : tids) std::thread([&] { tid = gettid(); }).join();
  const std::vector<Bytes> records = normal.reader->Drain();

  auto created = Matching<kelo_task_create_event>(records, KELO_EVENT_TASK_CREATE, [&](const auto& e) {
    return e.pid == child && e.kind == KELO_TASK_KIND_PROCESS;
  });
  ASSERT_EQ(created.size(), 1u);
  const kelo_task_create_event& e = created[0];
  EXPECT_EQ(e.header.reserved, 0u);
  EXPECT_GE(e.header.ts, before);
  EXPECT_LE(e.header.ts, after);
  EXPECT_EQ(e.ppid, getpid());
  EXPECT_EQ(e.uid, getuid());
  EXPECT_EQ(CommOf(e.comm), OwnComm());
  EXPECT_EQ(normal.status->Get(KELO_RB_STATUS_FLAGS) & KELO_RB_FLAG_FULL, 0u);

  auto threads = Matching<kelo_task_create_event>(records, KELO_EVENT_TASK_CREATE, [&](const auto& e) {
    return e.pid == getpid() && e.kind == KELO_TASK_KIND_THREAD;
  });
  ASSERT_GE(threads.size(), tids.size());
  for (const kelo_task_create_event& thread : threads) EXPECT_EQ(thread.ppid, getppid());
  EXPECT_TRUE(Matching<kelo_task_create_event>(
                  records, KELO_EVENT_TASK_CREATE,
                  [&](const auto& e) { return std::find(tids.begin(), tids.end(), e.pid) != tids.end(); })
                  .empty())
      << "a thread was reported as a process of its own";
}

TEST_F(KeloBpfProgramsTest, ExitRecordsTellThreadsFromTheEndOfTheProcess) {
  ASSERT_NO_FATAL_FAILURE(normal.AttachTracepoint("sched", "sched_process_exit"));
  std::thread([] {}).join();
  RunChild();
  EXPECT_TRUE(normal.reader->Drain().empty()) << "exit records without the core flag";

  ASSERT_NO_FATAL_FAILURE(normal.SetFlags(KELO_RB_FLAG_CORE));
  // A thread with a name of its own: the record carries the process's name.
  std::thread([] { pthread_setname_np(pthread_self(), "kelo-worker"); }).join();
  const pid_t child = RunChild();
  const std::vector<Bytes> records = normal.reader->Drain();

  auto ours =
      Matching<kelo_task_exit_event>(records, KELO_EVENT_TASK_EXIT, [&](const auto& e) { return e.pid == getpid(); });
  ASSERT_FALSE(ours.empty());
  for (const kelo_task_exit_event& e : ours) {
    EXPECT_EQ(e.kind, uint32_t{KELO_TASK_KIND_THREAD});
    EXPECT_EQ(CommOf(e.comm), OwnComm());
  }
  EXPECT_EQ(
      Matching<kelo_task_exit_event>(records, KELO_EVENT_TASK_EXIT,
                                     [&](const auto& e) { return e.pid == child && e.kind == KELO_TASK_KIND_PROCESS; })
          .size(),
      1u);
}

// The process ends with its last thread, not with its group leader.
TEST_F(KeloBpfProgramsTest, ProcessWhoseLeaderExitsFirstEndsWithItsLastThread) {
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
  GTEST_SKIP() << "ThreadSanitizer's runtime does not survive its main thread exiting alone";
#endif
#endif
  ASSERT_NO_FATAL_FAILURE(normal.AttachTracepoint("sched", "sched_process_exit"));
  ASSERT_NO_FATAL_FAILURE(normal.SetFlags(KELO_RB_FLAG_CORE));

  const pid_t child = RunChild([] {
    pthread_t worker;
    pthread_create(
        &worker, nullptr,
        [](void*) -> void* {
          // Outlive the leader, then end the process by ending its last thread.
          while (!LeaderIsZombie()) usleep(1000);
          syscall(SYS_exit, 0);
          return nullptr;
        },
        nullptr);
    syscall(SYS_exit, 0);  // ends only the leader thread
  });
  auto exits = Matching<kelo_task_exit_event>(normal.reader->Drain(), KELO_EVENT_TASK_EXIT,
                                              [&](const auto& e) { return e.pid == child; });
  ASSERT_EQ(exits.size(), 2u);
  EXPECT_EQ(exits[0].kind, uint32_t{KELO_TASK_KIND_THREAD});
  EXPECT_EQ(exits[1].kind, uint32_t{KELO_TASK_KIND_PROCESS});
}

TEST_F(KeloBpfProgramsTest, RssGrowthIsReportedWhileNormalEventsAreEnabled) {
  ASSERT_NO_FATAL_FAILURE(normal.AttachTracepoint("kmem", "rss_stat"));
  constexpr size_t kTouch = 8 << 20;
  std::vector<void*> touched;
  const auto touch = [&] {
    void* mem = mmap(nullptr, kTouch, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    memset(mem, 1, kTouch);
    touched.push_back(mem);
  };

  ASSERT_NO_FATAL_FAILURE(normal.SetFlags(KELO_RB_FLAG_CORE));
  touch();
  EXPECT_TRUE(normal.reader->Drain().empty()) << "rss records without the normal flag";

  ASSERT_NO_FATAL_FAILURE(normal.SetFlags(KELO_RB_FLAG_CORE | KELO_RB_FLAG_NORMAL));
  touch();
  auto anon = Matching<kelo_rss_stat_event>(normal.reader->Drain(), KELO_EVENT_RSS_STAT, [&](const auto& e) {
    return e.pid == getpid() && e.member == KELO_RSS_ANON;
  });
  ASSERT_FALSE(anon.empty());
  // The kernel's counters are per-CPU approximations; two touches of 8 MiB
  // are well beyond their slack.
  EXPECT_GE(anon.back().size, static_cast<int64_t>(kTouch));
  for (size_t i = 1; i < anon.size(); ++i) {
    const int64_t step = anon[i].size - anon[i - 1].size;
    EXPECT_GE(step < 0 ? -step : step, KELO_RSS_REPORT_STEP) << "record " << i;
  }
  for (void* mem : touched) munmap(mem, kTouch);
}

TEST_F(KeloBpfProgramsTest, SchedSwitchKeepsTheStatusEntriesCurrent) {
  ASSERT_NO_FATAL_FAILURE(normal.AttachTracepoint("sched", "sched_switch"));
  // Any context switch refreshes the entries the first time.
  for (int i = 0; i < 100 && normal.status->Get(KELO_RB_STATUS_RING_SIZE) == 0; ++i) usleep(1000);
  EXPECT_EQ(normal.status->Get(KELO_RB_STATUS_RING_SIZE), uint64_t{KELO_RINGBUF_BYTES});
  EXPECT_EQ(normal.status->Get(KELO_RB_STATUS_AVAIL_DATA), 0u);
  EXPECT_EQ(normal.status->Get(KELO_RB_STATUS_FLAGS), 0u) << "flags are the service's";
}

TEST_F(KeloBpfProgramsTest, ExitOfADmaBufHolderDropsItsTrackingEntries) {
  ASSERT_NO_FATAL_FAILURE(gpl.AttachTracepoint("sched", "sched_process_exit"));
  ASSERT_NO_FATAL_FAILURE(gpl.SetFlags(KELO_RB_FLAG_CORE | KELO_RB_FLAG_NORMAL));
  const auto open = [](const char* name) { return unique_fd(bpf_obj_get(Pinned(name).c_str())); };
  unique_fd allocate = open("map_KeloBpfGplDefineset_dmabuf_allocate_map");
  unique_fd sizes = open("map_KeloBpfGplDefineset_dmabuf_size_map");
  unique_fd perProcess = open("map_KeloBpfGplDefineset_dmabuf_perprocess_size_map");
  unique_fd inodes = open("map_KeloBpfGplDefineset_process_inode_map");
  unique_fd mmaps = open("map_KeloBpfGplDefineset_process_mmap_infos");
  ASSERT_TRUE(allocate.ok() && sizes.ok() && perProcess.ok() && inodes.ok() && mmaps.ok());

  // A child that lives until it is let go.
  auto holder = std::make_unique<Sleeper>();
  const pid_t child = holder->pid;
  ASSERT_GT(child, 0);

  // The child and this process share buffer 77; the child also owns it.
  const uint64_t inode = 77;
  const int32_t self = getpid();
  const dmabuf_allocate_info owner{child, 0, 4096};
  const dmabuf_stat stat{4096, 0};
  const int32_t one = 1;
  const auto refOf = [&](int32_t pid) { return dmabuf_process_inode_key{pid, 0, inode}; };
  const auto mapOf = [](int32_t pid) { return dmabuf_process_mmap_key{pid, 0, 0x7f0000001000ULL}; };
  ASSERT_EQ(bpf_map_update_elem(allocate.get(), &inode, &owner, BPF_ANY), 0);
  for (const int32_t pid : {static_cast<int32_t>(child), self}) {
    const auto ref = refOf(pid);
    const auto map = mapOf(pid);
    ASSERT_EQ(bpf_map_update_elem(sizes.get(), &pid, &stat, BPF_ANY), 0);
    ASSERT_EQ(bpf_map_update_elem(perProcess.get(), &pid, &stat, BPF_ANY), 0);
    ASSERT_EQ(bpf_map_update_elem(inodes.get(), &ref, &one, BPF_ANY), 0);
    ASSERT_EQ(bpf_map_update_elem(mmaps.get(), &map, &inode, BPF_ANY), 0);
  }

  // A thread ending is not the end of this process.
  std::thread([] {}).join();
  holder.reset();

  const auto present = [](const unique_fd& map, const auto& key) {
    std::vector<uint8_t> value(64);
    return bpf_map_lookup_elem(map.get(), &key, value.data()) == 0;
  };
  for (const int32_t pid : {static_cast<int32_t>(child), self}) {
    const bool kept = pid == self;
    EXPECT_EQ(present(sizes, pid), kept) << pid;
    EXPECT_EQ(present(perProcess, pid), kept) << pid;
    EXPECT_EQ(present(inodes, refOf(pid)), kept) << pid;
    EXPECT_EQ(present(mmaps, mapOf(pid)), kept) << pid;
  }
  EXPECT_TRUE(present(allocate, inode)) << "the buffer itself lives on until it is released";

  auto reports = Matching<kelo_dmabuf_size_event>(gpl.reader->Drain(), KELO_EVENT_DMABUF_SIZE,
                                                  [&](const auto& e) { return e.pid == child || e.pid == self; });
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].pid, child);
  EXPECT_EQ(reports[0].allocated_size, 0);
  EXPECT_EQ(reports[0].referenced_size, 0);
}

// A new child cgroup of the cpuset hierarchy (cgroup v1, as on Android) or,
// without one, of the unified hierarchy, ready to take tasks; "" if none.
std::string MakeCgroup(const std::string& name) {
  for (const std::string root : {"/sys/fs/cgroup/cpuset", "/sys/fs/cgroup/unified", "/sys/fs/cgroup"}) {
    struct statfs fs;
    const std::string dir = root + "/" + name;
    if (statfs(root.c_str(), &fs) != 0 || (fs.f_type != CGROUP_SUPER_MAGIC && fs.f_type != CGROUP2_SUPER_MAGIC) ||
        mkdir(dir.c_str(), 0755) != 0) {
      continue;
    }
    // A v1 cpuset takes no task before it has processors and memory nodes.
    for (const char* file : {"cpuset.cpus", "cpuset.mems"}) {
      std::ifstream parent(root + "/" + file);
      std::string value;
      if (std::getline(parent, value)) std::ofstream(dir + "/" + file) << value << std::flush;
    }
    return dir;
  }
  return "";
}

TEST_F(KeloBpfProgramsTest, CgroupMoveIsReportedWithItsDestination) {
  const std::string name = "kelo-bpf-test-" + std::to_string(getpid());
  const std::string dir = MakeCgroup(name);
  if (dir.empty()) GTEST_SKIP() << "no writable cgroup hierarchy";
  struct RemoveAtEnd {
    const std::string& dir;
    ~RemoveAtEnd() { EXPECT_EQ(rmdir(dir.c_str()), 0) << dir << ": " << std::strerror(errno); }
  } removeAtEnd{dir};
  ASSERT_NO_FATAL_FAILURE(gpl.AttachTracepoint("cgroup", "cgroup_attach_task"));

  const auto moveSelf = [&] {
    std::ofstream out(dir + "/cgroup.procs");
    out << 0 << std::flush;
    _exit(out ? 0 : 1);
  };
  RunChild(moveSelf);
  EXPECT_TRUE(gpl.reader->Drain().empty()) << "records without the normal flag";

  ASSERT_NO_FATAL_FAILURE(gpl.SetFlags(KELO_RB_FLAG_NORMAL));
  const pid_t child = RunChild(moveSelf);
  auto moves = Matching<kelo_cgroup_attach_event>(gpl.reader->Drain(), KELO_EVENT_CGROUP_ATTACH,
                                                  [&](const auto& e) { return e.pid == child; });
  ASSERT_EQ(moves.size(), 1u);
  EXPECT_EQ(std::string(moves[0].path), "/" + name);
  EXPECT_EQ(std::string(moves[0].comm), OwnComm());
  EXPECT_EQ(moves[0].dst_level, 1);
  EXPECT_NE(moves[0].dst_id, 0u);
}

// Per type, the lost counts of all CPUs added up.
std::vector<uint64_t> LostByType(const LostCounts& lost) {
  std::vector<uint64_t> totals;
  for (uint32_t type = 0; type < KELO_RB_LOST_ENTRIES; ++type) totals.push_back(lost.Total(type));
  return totals;
}

// With a ring buffer too small for the load, the programs flag the overflow,
// count every record they could not write under its type and leave the
// ring's positions where the service's watchdog reads them.
TEST(KeloBpfOverflowTest, FullRingBufferSetsTheFullFlagCountsLossesAndRecordsPositions) {
  KELO_SKIP_WITHOUT_BPF();
  constexpr uint32_t kTinyRing = 4096;
  constexpr char kFork[] = "sched_sched_process_fork";
  std::unique_ptr<bpf_object, void (*)(bpf_object*)> object(bpf_object__open_file(KELO_BPF_NORMAL_OBJ, nullptr),
                                                            bpf_object__close);
  ASSERT_EQ(libbpf_get_error(object.get()), 0);
  bpf_map* ring = bpf_object__find_map_by_name(object.get(), "ringbuf_map");
  ASSERT_NE(ring, nullptr);
  ASSERT_EQ(bpf_map__set_max_entries(ring, kTinyRing), 0);
  bpf_program* prog;
  bpf_object__for_each_program(prog, object.get()) {
    bpf_program__set_autoload(prog, bpf_program__name(prog) == std::string(kFork));
  }
  ASSERT_EQ(bpf_object__load(object.get()), 0);
  auto status = StatusArray::Of(bpf_map__fd(bpf_object__find_map_by_name(object.get(), "ringbuf_status")));
  auto lost = LostCounts::Of(bpf_map__fd(bpf_object__find_map_by_name(object.get(), "ringbuf_lost")));
  ASSERT_TRUE(status && lost && status->Set(KELO_RB_STATUS_FLAGS, KELO_RB_FLAG_CORE));
  unique_fd link(bpf_attach_tracepoint(bpf_program__fd(bpf_object__find_program_by_name(object.get(), kFork)), "sched",
                                       "sched_process_fork"));
  ASSERT_GE(link.get(), 0);

  ASSERT_EQ(LostByType(*lost), std::vector<uint64_t>(KELO_RB_LOST_ENTRIES, 0));

  constexpr size_t kRecordSpace = sizeof(kelo_task_create_event) + 8;  // plus ring header
  constexpr size_t kChildren = 2 * kTinyRing / kRecordSpace;
  for (size_t i = 0; i < kChildren; ++i) RunChild();
  link.reset();

  EXPECT_EQ(status->Get(KELO_RB_STATUS_FLAGS), uint64_t{KELO_RB_FLAG_CORE | KELO_RB_FLAG_FULL});
  EXPECT_EQ(status->Get(KELO_RB_STATUS_RING_SIZE), kTinyRing);
  const uint64_t avail = status->Get(KELO_RB_STATUS_AVAIL_DATA);
  EXPECT_GT(avail, kTinyRing - kRecordSpace);
  EXPECT_EQ(status->Get(KELO_RB_STATUS_PROD_POS) - status->Get(KELO_RB_STATUS_CONS_POS), avail);
  auto reader = RingBufferReader::Create(bpf_map__fd(ring));
  ASSERT_NE(reader, nullptr);
  const size_t stored = reader->Drain().size();
  EXPECT_EQ(stored, avail / kRecordSpace);

  // Forks of other processes on this machine are counted too, so the
  // children are a lower bound of what the program tried to write.
  std::vector<uint64_t> lostByType = LostByType(*lost);
  EXPECT_GE(stored + lostByType[KELO_EVENT_TASK_CREATE], kChildren);
  lostByType[KELO_EVENT_TASK_CREATE] = 0;
  EXPECT_EQ(lostByType, std::vector<uint64_t>(KELO_RB_LOST_ENTRIES, 0)) << "only fork records were lost";
}

}  // namespace
}  // namespace kelo_test
