// Records at odd addresses. Neither the ring buffer nor a package in a
// connection's buffer gives a record any alignment, and on 32-bit ARM a
// 64-bit field read through a misaligned pointer may fault. Every record type
// with a 64-bit field is put at an odd offset and taken through the whole
// path: the dispatcher (raw forwarding, the task handlers and the derived
// event they publish), a real client connection and the client tool's
// decoder, itself fed at an odd offset. The sanitizer builds check every
// access for alignment (UBSan in the address build; traps in the armhf build),
// so a cast of a buffer pointer ends the test; the values show that each
// field was read from its own bytes.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_task_manager.h"
#include "tests/support/ipc_client.h"
#include "tests/support/sandbox.h"
#include "tools/kelo_bpf_client_format.h"

namespace Kelo {
namespace Bpf {
namespace {

// Every byte of each value differs, so a field read from a shifted offset
// shows as another number.
constexpr uint64_t TS = 0x0000123456789abcULL;
constexpr int64_t RSS_FILE = 0x0102030405060708;
constexpr int64_t RSS_ANON = 0x1112131415161718;
constexpr int64_t RSS_SHMEM = 0x2122232425262728;
constexpr int64_t RSS_SWAP = 0x3132333435363738;
constexpr int64_t INIT_TIME = 0x0a0b0c0d0e0f1011;
constexpr int64_t ALLOCATED = 0x4142434445464748;
constexpr int64_t REFERENCED = 0x5152535455565758;
constexpr uint64_t CGROUP_ID = 0x6162636465666768ULL;
constexpr uint64_t OPEN_COUNT = 0x7172737475767778ULL;
constexpr uint64_t INODE = 0x0818283848586878ULL;
constexpr int64_t DMABUF_SIZE = 0x0919293949596979;
constexpr int32_t PID = 4242;
constexpr int64_t ANON_GROWTH = 1 << 20;

std::string N(int64_t value) { return std::to_string(value); }
std::string U(uint64_t value) { return std::to_string(value); }

// The bytes of record one byte past an 8-byte boundary.
template <typename Record>
struct OddCopy {
  explicit OddCopy(const Record& record) { memcpy(storage + 1, &record, sizeof(record)); }
  char* data() { return storage + 1; }
  alignas(8) char storage[sizeof(Record) + 8];
};

// The client tool's line for a payload, decoded from an odd address.
std::string Decode(const std::string& payload) {
  std::string shifted = "x" + payload;
  return FormatClientEvent(shifted.data() + 1, payload.size());
}

class UnalignedRecordsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    kelo_test::MakeLogDirs();
    // Never ready: no pump runs and nothing touches the kernel's BPF, so the
    // dispatcher sees only what the test hands it.
    android::base::SetProperty(KeloBpfService::KELO_BPF_READY, KeloBpfService::KELO_BPF_NOT_READY);
    service = KeloBpfService::GetInstance(KeloBpfServiceConfig{});
    service->start();
    ASSERT_TRUE(client.Connect());
    for (int type = KELO_EVENT_TASK_INIT; type <= KELO_EVENT_TYPE_MAX; ++type) {
      ASSERT_EQ(client.Ask(type, REQ_ADD_OBSERVER_EVENT, type), 0);
    }
    ASSERT_EQ(client.Ask(99, REQ_ADD_OBSERVER_EVENT, KELO_CLIENT_EVENT_RSS_CHANGE), 0);
  }

  // Dispatches record from an odd address; the decoded line of the event
  // package that comes back, after checking it carries the record unchanged.
  template <typename Record>
  std::string Dispatch(const Record& record) {
    OddCopy<Record> odd(record);
    EXPECT_EQ(KeloBpfService::handleBpfRingBuffEvent(service, odd.data(), sizeof(Record)), 0);
    return NextEvent(std::string(odd.data(), sizeof(Record)));
  }

  // The decoded line of the next event package; its payload must be
  // `expected` when that is given.
  std::string NextEvent(const std::optional<std::string>& expected = std::nullopt) {
    std::optional<kelo_test::Package> package = client.Next();
    if (!package) return "no package";
    if (expected) {
      EXPECT_EQ(package->payload, *expected);
    }
    return Decode(package->payload);
  }

  KeloBpfService* service = nullptr;
  kelo_test::IpcClient client{KELO_BPF_CLIENT_SOCKET_NAME};
};

TEST_F(UnalignedRecordsTest, EveryWideFieldAtAnOddOffsetPassesDispatcherHandlersAndClientDecoder) {
  kelo_task_init_event init{};
  init.header.type = KELO_EVENT_TASK_INIT;
  init.header.ts = TS;
  init.pid = PID;
  init.ppid = 1;
  init.uid = 10001;
  init.thread_num = 3;
  memcpy(init.comm, "oddproc", 7);
  init.rss_file = RSS_FILE;
  init.rss_anon = RSS_ANON;
  init.rss_shmem = RSS_SHMEM;
  init.rss_swap = RSS_SWAP;
  init.init_time = INIT_TIME;
  EXPECT_EQ(Dispatch(init), "task_init ts=" + U(TS) + " pid=4242 ppid=1 uid=10001 threads=3 comm=oddproc rss_file=" +
                                N(RSS_FILE) + " rss_anon=" + N(RSS_ANON) + " rss_shmem=" + N(RSS_SHMEM) +
                                " rss_swap=" + N(RSS_SWAP) + " init_time=" + N(INIT_TIME));
  {
    KeloTaskManager* tasks = KeloTaskManager::GetInstance();
    MutexLock lock(tasks->lock());
    const KeloTask* task = tasks->GetKeloTaskLocked(PID);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->createTimeNs, static_cast<int64_t>(TS));
    EXPECT_EQ(task->initTimeStamp, INIT_TIME);
    EXPECT_TRUE(task->rssFileSize == RSS_FILE && task->rssAnonSize == RSS_ANON && task->rssShmemSize == RSS_SHMEM &&
                task->rssSwapSize == RSS_SWAP);
  }

  // Old enough and grown enough: forwarded raw, then told as 50004 with the
  // figures before and after.
  kelo_rss_stat_event rss{};
  rss.header.type = KELO_EVENT_RSS_STAT;
  rss.header.ts = TS + 4000000000ULL;
  rss.pid = PID;
  rss.member = KELO_RSS_ANON;
  rss.size = RSS_ANON + ANON_GROWTH;
  EXPECT_EQ(Dispatch(rss),
            "rss_stat ts=" + U(TS + 4000000000ULL) + " pid=4242 member=anon size=" + N(RSS_ANON + ANON_GROWTH));
  EXPECT_EQ(NextEvent(), "rss_change pid=4242 ppid=1 uid=10001 comm=oddproc file=" + N(RSS_FILE) +
                             " anon=" + N(RSS_ANON + ANON_GROWTH) + " swap=" + N(RSS_SWAP) + " shmem=" + N(RSS_SHMEM) +
                             " old_file=" + N(RSS_FILE) + " old_anon=" + N(RSS_ANON) + " old_swap=" + N(RSS_SWAP) +
                             " old_shmem=" + N(RSS_SHMEM));

  kelo_dmabuf_size_event dmabufSize{};
  dmabufSize.header.type = KELO_EVENT_DMABUF_SIZE;
  dmabufSize.header.ts = TS + 1;
  dmabufSize.pid = PID;
  dmabufSize.allocated_size = ALLOCATED;
  dmabufSize.referenced_size = REFERENCED;
  EXPECT_EQ(Dispatch(dmabufSize),
            "dmabuf_size ts=" + U(TS + 1) + " pid=4242 allocated=" + N(ALLOCATED) + " referenced=" + N(REFERENCED));

  kelo_cgroup_attach_event cgroup{};
  cgroup.header.type = KELO_EVENT_CGROUP_ATTACH;
  cgroup.header.ts = TS + 2;
  cgroup.pid = PID;
  cgroup.dst_root = 3;
  cgroup.dst_level = 1;
  cgroup.dst_id = CGROUP_ID;
  memcpy(cgroup.comm, "oddproc", 7);
  memcpy(cgroup.path, "/top-app", 8);
  EXPECT_EQ(Dispatch(cgroup), "cgroup_attach ts=" + U(TS + 2) +
                                  " pid=4242 comm=oddproc root=3 level=1 id=" + U(CGROUP_ID) + " path=/top-app");

  kelo_fd_update_event fd{};
  fd.header.type = KELO_EVENT_FD_UPDATE;
  fd.header.ts = TS + 3;
  fd.pid = PID;
  fd.fd = 77;
  fd.open_count = OPEN_COUNT;
  memcpy(fd.comm, "oddproc", 7);
  EXPECT_EQ(Dispatch(fd),
            "fd_update ts=" + U(TS + 3) + " pid=4242 fd=77 open_count=" + U(OPEN_COUNT) + " comm=oddproc");

  kelo_dmabuf_update_event dmabuf{};
  dmabuf.header.type = KELO_EVENT_DMABUF_UPDATE;
  dmabuf.header.ts = TS + 4;
  dmabuf.op = KELO_DMABUF_OP_MMAP;
  dmabuf.pid = PID;
  dmabuf.inode = INODE;
  dmabuf.size = DMABUF_SIZE;
  dmabuf.owner_pid = 1;
  memcpy(dmabuf.comm, "oddproc", 7);
  EXPECT_EQ(Dispatch(dmabuf), "dmabuf_update ts=" + U(TS + 4) + " op=mmap pid=4242 inode=" + U(INODE) +
                                  " size=" + N(DMABUF_SIZE) + " owner=1 comm=oddproc");
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
