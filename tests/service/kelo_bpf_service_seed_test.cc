// Seeding of the dma-buf and open-fd tracking maps against real hash maps
// pinned in the sandbox's bpffs. This kernel cannot make dma-bufs, so the
// processes are fixture trees bind-mounted over /proc in the test's private
// mount namespace.
#include "service/kelo_bpf_service_seed.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <map>
#include <sstream>

#include "service/kelo_bpf_service.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace Kelo {
namespace Bpf {
namespace {

using android::base::WriteStringToFile;
using kelo_test::Bytes;
using Entries = std::map<std::string, std::string>;  // key bytes -> value bytes

struct MapShape {
  const char* path;
  const char* name;  // as the service's error line names it
  uint32_t keySize, valueSize;
};
const MapShape DMABUF_MAPS[] = {
    {KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "dmabuf_allocate_map"), "dmabufAllocateMap", 8, 16},
    {KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "dmabuf_size_map"), "dmabufSizeMap", 4, 16},
    {KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "dmabuf_perprocess_size_map"), "dmabufPerprocessSizeMap", 4, 16},
    {KeloBpfService::DMABUF_BPF_PROCESS_INODE_MAP_PATH, "processInodeMap", sizeof(dmabuf_process_inode_key), 4},
    {KeloBpfService::DMABUF_BPF_PROCESS_MMAP_INFOS_PATH, "processMmapInfos", sizeof(dmabuf_process_mmap_key), 8},
};
const MapShape OPEN_FD_MAP = {KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "open_fd_caller_map"), "", 4, 48};

void CreateMap(const MapShape& shape) {
  ASSERT_TRUE(kelo_test::MakeDirs(KELO_BPF_FS_DIR));
  android::base::unique_fd fd(bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, shape.keySize, shape.valueSize, 64, nullptr));
  ASSERT_EQ(bpf_obj_pin(fd.get(), shape.path), 0) << shape.path;
}

Entries Read(const MapShape& shape) {
  Entries out;
  android::base::unique_fd fd(bpf_obj_get(shape.path));
  std::string key(shape.keySize, '\0'), next = key, value(shape.valueSize, '\0');
  for (void* prev = nullptr; bpf_map_get_next_key(fd.get(), prev, next.data()) == 0; prev = key.data()) {
    EXPECT_EQ(bpf_map_lookup_elem(fd.get(), next.data(), value.data()), 0);
    out[key = next] = value;
  }
  return out;
}

// Lines "BpfService <priority> <date> <time> <pid> <tid> <text>" with exactly this priority and text.
int Logged(const kelo_test::LogCapture& log, char priority, const std::string& text) {
  std::istringstream lines(log.text());
  int found = 0;
  for (std::string line; std::getline(lines, line);) {
    found += line.rfind(std::string("BpfService ") + priority, 0) == 0 && line.size() > text.size() &&
             line.compare(line.size() - text.size() - 1, std::string::npos, " " + text) == 0;
  }
  return found;
}

std::string Fdinfo(const std::string& size, const std::string& ino) {
  return "pos:\t0\nflags:\t02\nmnt_id:\t9\n" + (ino.empty() ? "" : "ino:\t" + ino + "\n") +
         (size.empty() ? "" : "size:\t" + size + "\n") + "exp_name:\tsystem\n";
}

class SeedTest : public ::testing::Test {
 protected:
  static constexpr char ROOT[] = "/data/proc";

  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    service = KeloBpfService::GetInstance();
  }
  void TearDown() override {
    if (mounted) {
      EXPECT_EQ(umount2("/proc", MNT_DETACH), 0);
    }
  }
  static std::string Dir(const std::string& pid) { return std::string(ROOT) + "/" + pid; }
  static void Process(const std::string& pid, const char* status = "Name:\tproc\n", bool fdDir = true) {
    ASSERT_TRUE(kelo_test::MakeDirs(Dir(pid) + "/fdinfo"));
    if (fdDir) {
      ASSERT_TRUE(kelo_test::MakeDirs(Dir(pid) + "/fd"));
    }
    if (status != nullptr) {
      ASSERT_TRUE(WriteStringToFile(status, Dir(pid) + "/status"));
    }
  }
  static void Fd(const std::string& pid, const std::string& fd, const std::string& target,
                 const std::string& info = "") {
    ASSERT_EQ(symlink(target.c_str(), (Dir(pid) + "/fd/" + fd).c_str()), 0);
    if (!info.empty()) {
      ASSERT_TRUE(WriteStringToFile(info, Dir(pid) + "/fdinfo/" + fd));
    }
  }
  // Mounts the fixture over /proc; the fixture's process ids in directory order.
  std::vector<std::string> MountOverProc() {
    std::vector<std::string> order;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(ROOT), closedir);
    while (dirent* entry = readdir(dir.get())) order.push_back(entry->d_name);
    EXPECT_EQ(mount(ROOT, "/proc", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
    mounted = true;
    return order;
  }

  kelo_test::LogCapture log;
  KeloBpfService* service = nullptr;
  bool mounted = false;
};

TEST_F(SeedTest, DmabufScanCountsBuffersOncePerProcessAndGivesSharedOnesToTheLastProcessSeen) {
  KELO_SKIP_WITHOUT_BPF();
  for (const MapShape& shape : DMABUF_MAPS) CreateMap(shape);
  Process("100");
  for (const char* fd : {"3", "4", "5"}) Fd("100", fd, "/dmabuf:", Fdinfo("4096", "1111"));
  Fd("100", "6", "/dev/null", Fdinfo("1", "9999"));
  Fd("100", "7", "socket:[123]");
  Fd("100", "8", "/dmabuf:", Fdinfo("3221225472", "2222"));  // above 2 GiB
  Fd("100", "9", "/dmabuf:", Fdinfo("", "7777"));
  Fd("100", "10", "/dmabuf:", Fdinfo("512", ""));
  Fd("100", "11", "/dmabuf:");  // no fdinfo
  Fd("100", "12", "/dmabuf:", Fdinfo("abc", "8888"));
  ASSERT_TRUE(WriteStringToFile("7f00-7f10 rw-s 00000000 00:0f 1111          /dmabuf:\n", Dir("100") + "/maps"));
  Process("200");
  Fd("200", "3", "anon_inode:/dmabuf:", Fdinfo("4096", "1111"));
  Fd("200", "4", "/dmabuf:", Fdinfo("8192", "3333"));
  ASSERT_TRUE(WriteStringToFile("", Dir("200") + "/maps"));
  Process("300");  // no dma-buf and no maps file: the file must not be tried
  Fd("300", "0", "/dev/null", Fdinfo("4096", "4444"));
  Process("400", "Name:\tgone\n", false);
  Process("500");  // a dma-buf, but the maps file is gone
  Fd("500", "3", "/dmabuf:", Fdinfo("100", "5555"));
  Process("self");
  Fd("self", "3", "/dmabuf:", Fdinfo("64", "6666"));
  const std::vector<std::string> order = MountOverProc();
  const int lastHolder =
      std::find(order.begin(), order.end(), "100") > std::find(order.begin(), order.end(), "200") ? 100 : 200;

  auto allocation = [](int pid, int64_t size) { return Bytes(pid) + Bytes(uint32_t{0}) + Bytes(size); };
  auto stat = [](int64_t size) { return Bytes(size) + Bytes(int64_t{0}); };
  const Entries allocations = {{Bytes(uint64_t{1111}), allocation(lastHolder, 4096)},
                               {Bytes(uint64_t{2222}), allocation(100, 3221225472)},
                               {Bytes(uint64_t{3333}), allocation(200, 8192)},
                               {Bytes(uint64_t{5555}), allocation(500, 100)}};
  const Entries sizes = {
      {Bytes(100), stat(3221225472 + 4096)}, {Bytes(200), stat(4096 + 8192)}, {Bytes(500), stat(100)}};
  // The second run must find the same: nothing of the first run's scratch state is left.
  for (int run = 1; run <= 2; ++run) {
    ASSERT_EQ(service->initDmabufBpfProg(), 0);
    EXPECT_EQ(Read(DMABUF_MAPS[0]), allocations);
    EXPECT_EQ(Read(DMABUF_MAPS[1]), sizes);
    EXPECT_EQ(Read(DMABUF_MAPS[2]), sizes);
    EXPECT_TRUE(Read(DMABUF_MAPS[3]).empty() && Read(DMABUF_MAPS[4]).empty());
    EXPECT_EQ(Logged(log, 'W', "Unable to open /proc/100/fdinfo/11"), run);
    EXPECT_EQ(Logged(log, 'W', "[KeloBpfService][IMIT] Task not exists, so we skip it (/proc/500/maps)"), run);
    EXPECT_EQ(log.count("Task not exists"), run);
  }
}

TEST_F(SeedTest, MissingMapAbortsBeforeTheScanAndWritesNothing) {
  KELO_SKIP_WITHOUT_BPF();
  Process("100");
  Fd("100", "3", "/dmabuf:", Fdinfo("4096", "1111"));
  Fd("100", "4", "/dmabuf:");  // reported if the scan ran
  MountOverProc();
  for (const MapShape& missing : DMABUF_MAPS) {
    for (const MapShape& shape : DMABUF_MAPS) {
      unlink(shape.path);
      if (&shape != &missing) CreateMap(shape);
    }
    EXPECT_EQ(service->initDmabufBpfProg(), -1);
    EXPECT_EQ(
        Logged(log, 'E',
               std::string("[KeloBpfService][INIT] get ") + missing.name + "(-1) failed! No such file or directory"),
        1);
    for (const MapShape& shape : DMABUF_MAPS) EXPECT_TRUE(&shape == &missing || Read(shape).empty()) << shape.path;
  }
  EXPECT_FALSE(log.contains("Unable to open"));
}

TEST_F(SeedTest, FdinfoReadersSaturateOnlyThePublicSizeAndMapsLinesNeedSixFields) {
  const std::string big = "/data/big", bad = "/data/bad";
  ASSERT_TRUE(WriteStringToFile(Fdinfo("3221225472", "1234"), big) && WriteStringToFile(Fdinfo("x", "-5"), bad));
  EXPECT_EQ(service->GetFdSize(big), static_cast<long>(std::min<int64_t>(3221225472, LONG_MAX)));
  EXPECT_EQ(log.count("does not fit"), sizeof(long) < 8 ? 1 : 0);
  EXPECT_EQ(service->GetFdInode(big), 1234u);
  EXPECT_EQ(service->GetFdSize(bad) + service->GetFdInode(bad), 0u);
  EXPECT_EQ(service->GetFdSize("/data/none") + service->GetFdInode("/data/none"), 0u);
  EXPECT_EQ(Logged(log, 'W', "Unable to open /data/none"), 2);

  DmabufMapping mapping{};
  ASSERT_TRUE(ParseDmabufMapsLine("7f00-7f10 rw-s 00000000 00:0f 1234 /dmabuf:", &mapping));
  EXPECT_TRUE(mapping.start == 0x7f00 && mapping.inode == 1234);
  ASSERT_TRUE(
      ParseDmabufMapsLine("ffff12345678-ffff12346000 rw-s 0 00:0f   4294967297   anon_inode:/dmabuf:", &mapping));
  EXPECT_TRUE(mapping.start == 0x12345678 && mapping.inode == 1);
  EXPECT_FALSE(ParseDmabufMapsLine("7f00-7f10 rw-s 00000000 00:0f 1234 /dmabuf: x", &mapping));
  EXPECT_FALSE(ParseDmabufMapsLine("7f00-7f10 rw-s 00000000 00:0f 1234 /dev/ashmem", &mapping));
}

TEST_F(SeedTest, FdCountsCarryPidCountTwiceAndNameAndSkipOnlyProcessesThatVanished) {
  KELO_SKIP_WITHOUT_BPF();
  EXPECT_EQ(service->initFdBpfProg(), -1);
  EXPECT_EQ(Logged(log, 'E', "[KeloBpfService][INIT] update open_fd_caller_map !"), 1);
  EXPECT_EQ(Logged(log, 'E',
                   "[KeloBpfService][INIT] get map_KeloBpfDefineset_open_fd_caller_map(-1) failed! "
                   "No such file or directory"),
            1);

  CreateMap(OPEN_FD_MAP);
  Process("100", "Name:\tsurfaceflinger_main\nState:\tS\n");
  for (const char* fd : {"0", "1", "2", ".hidden"}) Fd("100", fd, "/dev/null");
  Process("200", "Name:\tvanished\n", false);  // no fd directory
  Process("300", "State:\tS\n");               // no "Name:" line
  Fd("300", "0", "/dev/null");
  Process("400", nullptr);  // no status file
  Process("500", "Name:\tinit\n");
  const std::vector<std::string> order = MountOverProc();
  // Something is scanned after the process that vanished.
  ASSERT_TRUE(std::any_of(std::find(order.begin(), order.end(), "200"), order.end(),
                          [](const std::string& pid) { return pid == "100" || pid == "300" || pid == "500"; }));

  ASSERT_EQ(service->initFdBpfProg(), 0);
  auto record = [](int pid, uint64_t count, const std::string& name) {
    return Bytes(pid) + Bytes(uint32_t{0}) + Bytes(count) + Bytes(count) + Bytes(uint64_t{0}) + name +
           std::string(16 - name.size(), '\0');
  };
  EXPECT_EQ(Read(OPEN_FD_MAP), (Entries{{Bytes(100), record(100, 3, "surfaceflinger_")},
                                        {Bytes(300), record(300, 1, "")},
                                        {Bytes(500), record(500, 0, "init")}}));
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
