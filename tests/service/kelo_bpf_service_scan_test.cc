// The start-up process scan. Its parsers of process files as the kernel's
// lines can make them: names that hold blanks and parentheses, lines cut
// short, values that are not numbers; none may throw, and what cannot be
// read counts as absent. Against the real /proc: in a pid namespace of its
// own, where every process is known and still, the table must agree with ps
// field by field; on the machine's whole process list, every record must
// reach a subscriber, and kernel threads own nothing.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_service_procfs.h"
#include "service/kelo_bpf_task_manager.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/process.h"
#include "tests/support/wait.h"
#include "utils/kelo_bpf_time.h"

namespace Kelo {
namespace Bpf {
namespace {

using kelo_test::WaitUntil;

// A stat line with `name` in its parentheses, `threads` in field 19 and
// `start` in field 21; `fields` after the name (a whole line has 50).
std::string StatLine(const std::string& name, const std::string& threads, const std::string& start,
                     size_t fields = 50) {
  std::string line = "4242 (" + name + ")";
  for (size_t field = 2; field < 2 + fields; ++field) {
    line += ' ';
    line += field == 19 ? threads : field == 21 ? start : std::to_string(field);
  }
  return line + "\n";
}

TEST(ProcFiles, StatFieldsAreCountedFromTheLastParenthesis) {
  struct Case {
    std::string name, threads, start;
    size_t fields;
    int64_t wantThreads, wantStart;
    bool complete;
  } cases[] = {
      {"sh", "7", "123456", 50, 7, 123456, true},
      // A name may hold what separates the fields.
      {"a) (b c", "12", "99", 50, 12, 99, true},
      {") 1 2 3 (", "3", "5", 50, 3, 5, true},
      // Not numbers: absent, the rest of the line still counts.
      {"sh", "x7", "12ab", 50, 0, 12, true},
      // Cut short before the start time: the threads are kept, the line is
      // incomplete.
      {"sh", "9", "1", 19, 9, 0, false},
  };
  for (const Case& c : cases) {
    const ProcStat stat = ParseProcStat(StatLine(c.name, c.threads, c.start, c.fields));
    EXPECT_EQ(stat.threads, c.wantThreads) << c.name << " / " << c.threads;
    EXPECT_EQ(stat.startTicks, c.wantStart) << c.name << " / " << c.start;
    EXPECT_EQ(stat.complete, c.complete) << c.name << " / " << c.fields;
  }
  EXPECT_FALSE(ParseProcStat("4242 sh 7 8 9").complete) << "no parenthesis";
  EXPECT_FALSE(ParseProcStat("").complete);
}

TEST(ProcFiles, DecimalsAreReadAsStrtollWithoutExceptions) {
  EXPECT_EQ(ParseDecimal("  1024 kB"), 1024);
  EXPECT_EQ(ParseDecimal("\t1000\t1000\t1000\t1000"), 1000) << "the first of the uids";
  EXPECT_EQ(ParseDecimal("-5"), -5);
  EXPECT_EQ(ParseDecimal("+5"), 5);
  EXPECT_EQ(ParseDecimal("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(ParseDecimal("-9223372036854775808"), INT64_MIN);
  for (const char* absent : {"", " ", "kB", "-", "x12", "9223372036854775808", "99999999999999999999"}) {
    EXPECT_EQ(ParseDecimal(absent), std::nullopt) << '"' << absent << '"';
  }
}

constexpr uid_t SLEEPER_UID = 1000;

// One line of `ps -e -o pid=,ppid=,nlwp=,rss=`.
struct PsRow {
  int pid, ppid, threads;
  long rssKb;
  bool operator==(const PsRow& o) const {
    return pid == o.pid && ppid == o.ppid && threads == o.threads && rssKb == o.rssKb;
  }
};

std::map<int, PsRow> Ps() {
  std::map<int, PsRow> rows;
  FILE* ps = popen("ps -e -o pid=,ppid=,nlwp=,rss=", "r");
  if (ps == nullptr) return rows;
  PsRow row;
  while (fscanf(ps, "%d %d %d %ld", &row.pid, &row.ppid, &row.threads, &row.rssKb) == 4) rows[row.pid] = row;
  pclose(ps);
  return rows;
}

// Processes that idle for the test's length, made before any thread of the
// test process exists: one under another user (SLEEPER_UID), one with three
// extra threads, one with 8 MiB of touched memory.
struct Sleepers {
  kelo_test::Sleeper otherUser{[](int) {
    if (setuid(SLEEPER_UID) != 0) _exit(2);
  }};
  kelo_test::Sleeper threaded{[](int release) {
    for (int i = 0; i < 3; ++i) std::thread([release] { kelo_test::Sleeper::WaitForRelease(release); }).detach();
  }};
  kelo_test::Sleeper touched{[](int) {
    void* memory = mmap(nullptr, 8 << 20, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) _exit(1);
    memset(memory, 'x', 8 << 20);
  }};
  const std::vector<pid_t> pids = {otherUser.pid, threaded.pid, touched.pid};

  // A figure of a sleeper's status file; 0 when absent.
  long Status(size_t sleeper, const std::string& field) const {
    std::string status;
    android::base::ReadFileToString("/proc/" + std::to_string(pids[sleeper]) + "/status", &status);
    const size_t at = status.find("\n" + field + ":\t");
    return at == std::string::npos ? 0 : std::stol(status.substr(at + field.size() + 3));
  }
  // Once the threads run (a sanitizer runtime may add threads of its own)
  // and the memory is touched.
  bool Settled() const {
    return WaitUntil([&] { return Status(1, "Threads") >= 4 && Status(2, "RssAnon") >= (8 << 10); });
  }
};

// Runs the scan as pid 1 of a new pid namespace with its own /proc and
// checks the table against ps before and after. Problems go to stderr; the
// exit status is their number.
int ScanInOwnPidNamespace() {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("proc", "/proc", "proc", 0, nullptr) != 0) {
    perror("mount /proc");
    return 100;
  }
  Sleepers sleepers;
  if (!sleepers.Settled()) return 101;
  InitBasetime();
  const std::map<int, PsRow> before = Ps();
  KeloBpfService::GetInstance(KeloBpfServiceConfig{})->initTaskInfo();
  const std::map<int, PsRow> after = Ps();
  const std::vector<KeloTask> table = KeloTaskManager::GetInstance()->CopyKeloTasks();

  int problems = 0;
  const auto problem = [&](const std::string& text) {
    fprintf(stderr, "%s\n", text.c_str());
    ++problems;
  };
  // Alive then and now: this process, its sleepers and whatever a sanitizer
  // runtime started (ps itself is gone). Each is in the table; those that
  // did not change meanwhile agree field by field.
  std::map<int, const KeloTask*> byPid;
  for (const KeloTask& task : table) byPid[task.pid] = &task;
  for (pid_t sleeper : sleepers.pids) {
    if (byPid.count(sleeper) == 0) problem("sleeper " + std::to_string(sleeper) + " missing");
  }
  for (const auto& [pid, row] : before) {
    auto now = after.find(pid);
    if (now == after.end()) continue;
    auto found = byPid.find(pid);
    if (found == byPid.end()) {
      problem("pid " + std::to_string(pid) + " missing");
      continue;
    }
    const KeloTask& task = *found->second;
    const long rssKb = (task.rssAnonSize + task.rssFileSize + task.rssShmemSize) / 1024;
    const PsRow seen = {task.pid, task.ppid, task.threadNum, rssKb};
    // This process allocates while it scans.
    const bool still = pid == 1 ? row.ppid == now->second.ppid : row == now->second;
    if (still && (pid == 1 ? seen.ppid != row.ppid : !(seen == row))) {
      problem(
          android::base::StringPrintf("pid %d: table ppid %d threads %d rss %ld kB, ps ppid %d threads %d rss %ld kB",
                                      pid, seen.ppid, seen.threads, seen.rssKb, row.ppid, row.threads, row.rssKb));
    }
    const uint32_t uid = pid == sleepers.pids[0] ? SLEEPER_UID : 0;
    if (task.uid != uid || task.oldThreadNum != task.threadNum || task.rssAnonOldSize != task.rssAnonSize ||
        task.initTimeStamp < GetBasetime() || task.initTimeStamp > time(nullptr) + 1) {
      problem("pid " + std::to_string(pid) + ": uid, old figures or start time wrong");
    }
  }
  return problems;
}

TEST(ProcessScan, TableAgreesWithPsInAPidNamespaceOfItsOwn) {
  // The namespace's first process runs the scan; its parent only waits.
  const pid_t outer = fork();
  ASSERT_GE(outer, 0);
  if (outer == 0) {
    if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) _exit(102);
    const pid_t first = fork();
    if (first == 0) _exit(ScanInOwnPidNamespace());
    int status = 0;
    waitpid(first, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 103);
  }
  int status = 0;
  ASSERT_EQ(waitpid(outer, &status, 0), outer);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "see the problems printed above";
}

TEST(ProcessScan, EveryProcessReachesSubscribersAndKernelThreadsOwnNothing) {
  KELO_SKIP_WITHOUT_BPF();
  Sleepers sleepers;  // before the service's threads exist
  ASSERT_TRUE(sleepers.Settled());
  std::unique_ptr<kelo_test::ServiceRingBuffers> rings = kelo_test::ServiceRingBuffers::Create();
  ASSERT_TRUE(rings);
  android::base::SetProperty(KeloBpfService::KELO_BPF_READY, "0");
  KeloBpfService* service = KeloBpfService::GetInstance(KeloBpfServiceConfig{});
  service->start();
  kelo_test::IpcClient client(KELO_BPF_CLIENT_SOCKET_NAME);
  ASSERT_TRUE(client.Connect());
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, KELO_EVENT_TASK_INIT), 0);
  const std::map<int, PsRow> before = Ps();
  android::base::SetProperty(KeloBpfService::KELO_BPF_READY, "1");

  // The scan is over once normal events are switched on; a record injected
  // then comes after every synthesised one.
  ASSERT_TRUE(WaitUntil([&] { return (rings->normalStatus->Get(KELO_RB_STATUS_FLAGS) & KELO_RB_FLAG_NORMAL) != 0; }));
  kelo_task_init_event marker = {};
  marker.header.type = KELO_EVENT_TASK_INIT;
  marker.pid = 100001;
  ASSERT_TRUE(rings->normal->Inject(&marker, sizeof(marker)));
  std::map<int, kelo_task_init_event> records;
  while (true) {
    std::optional<kelo_test::Package> package = client.Next();
    ASSERT_TRUE(package);
    ASSERT_EQ(package->payload.size(), sizeof(kelo_task_init_event));
    kelo_task_init_event record;
    memcpy(&record, package->payload.data(), sizeof(record));
    if (record.pid == marker.pid) break;
    EXPECT_EQ(records.count(record.pid), 0u) << record.pid;
    records[record.pid] = record;
  }
  const std::map<int, PsRow> after = Ps();

  for (const auto& [pid, row] : before) {
    if (after.count(pid) != 0 && after.at(pid).ppid == row.ppid) {
      ASSERT_EQ(records.count(pid), 1u) << "pid " << pid;
      EXPECT_EQ(records[pid].ppid, row.ppid) << "pid " << pid;
    }
  }
  int kernelThreads = 0;
  for (const auto& [pid, record] : records) {
    if (pid != 2 && record.ppid != 2) continue;
    ++kernelThreads;
    EXPECT_EQ(record.rss_anon | record.rss_file | record.rss_shmem | record.rss_swap, 0) << record.comm;
  }
  EXPECT_GT(kernelThreads, 1);
  // A known process: every field.
  const kelo_task_init_event& threaded = records[sleepers.pids[1]];
  EXPECT_EQ(threaded.ppid, getpid());
  EXPECT_EQ(threaded.thread_num, sleepers.Status(1, "Threads"));
  EXPECT_EQ(threaded.uid, getuid());
  EXPECT_STREQ(threaded.comm, records[getpid()].comm);
  EXPECT_GT(records[sleepers.pids[2]].rss_anon, 8 << 20);
  EXPECT_EQ(records[sleepers.pids[2]].rss_anon % 1024, 0);
  EXPECT_EQ(KeloTaskManager::GetInstance()->GetKeloTaskCount(), records.size() + 1);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
