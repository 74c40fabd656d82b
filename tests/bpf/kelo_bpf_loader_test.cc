// The loader pins exactly the objects the service opens, under its naming
// scheme, with the program types and map shapes the service relies on. That
// every pinned program is named by a row of the attach tables is checked by
// the attach tests.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "bpf/kelo_bpf_events.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tools/kelo_bpf_loader_lib.h"

namespace kelo_test {
namespace {

using android::base::unique_fd;

std::string PathIn(const std::string& dir, const std::string& name) { return dir + "/" + name; }

template <typename Info>
Info InfoOf(const std::string& path) {
  Info info{};
  uint32_t len = sizeof(info);
  unique_fd fd(bpf_obj_get(path.c_str()));
  EXPECT_GE(fd.get(), 0) << path << ": " << std::strerror(errno);
  EXPECT_EQ(bpf_obj_get_info_by_fd(fd.get(), &info, &len), 0) << path;
  return info;
}

TEST(KeloBpfLoaderTest, PinsEveryProgramWithItsAttachKindAndTheMapsWithTheSharedLayouts) {
  KELO_SKIP_WITHOUT_BPF();
  Kelo::Bpf::BpfLoadReport report;
  ASSERT_TRUE(LoadAndPinPrograms(KELO_BPF_FS_DIR, &report));
  // 6 tracepoint and 6 kprobe programs over both sets.
  EXPECT_EQ(report.pinnedPrograms.size(), 12u);
  for (const std::string& path : report.pinnedPrograms) {
    const bool kprobe = path.find("_kprobe_") != std::string::npos;
    EXPECT_EQ(InfoOf<bpf_prog_info>(path).type, kprobe ? BPF_PROG_TYPE_KPROBE : BPF_PROG_TYPE_TRACEPOINT) << path;
  }
  EXPECT_EQ(std::count_if(report.pinnedPrograms.begin(), report.pinnedPrograms.end(),
                          [](const std::string& path) { return path.find("_kprobe_") != std::string::npos; }),
            6);

  // Key and value sizes must match the structs of kelo_bpf_events.h that the
  // service reads and writes; max entries 0: not checked.
  const struct {
    const char* name;
    bpf_map_type type;
    uint32_t keySize, valueSize, maxEntries;
  } maps[] = {
      {"map_KeloBpfDefineset_ringbuf_map", BPF_MAP_TYPE_RINGBUF, 0, 0, KELO_RINGBUF_BYTES},
      {"map_KeloBpfDefineset_ringbuf_status", BPF_MAP_TYPE_ARRAY, 4, 8, KELO_RB_STATUS_ENTRIES},
      {"map_KeloBpfDefineset_open_fd_caller_map", BPF_MAP_TYPE_HASH, 4, sizeof(open_fd_caller_info),
       KELO_OPEN_FD_MAP_ENTRIES},
      {"map_KeloBpfGplDefineset_ringbuf_map", BPF_MAP_TYPE_RINGBUF, 0, 0, KELO_GPL_RINGBUF_BYTES},
      {"map_KeloBpfGplDefineset_ringbuf_status", BPF_MAP_TYPE_ARRAY, 4, 8, KELO_RB_STATUS_ENTRIES},
      {"map_KeloBpfDefineset_ringbuf_lost", BPF_MAP_TYPE_PERCPU_ARRAY, 4, sizeof(kelo_ringbuf_lost),
       KELO_RB_LOST_ENTRIES},
      {"map_KeloBpfGplDefineset_ringbuf_lost", BPF_MAP_TYPE_PERCPU_ARRAY, 4, sizeof(kelo_ringbuf_lost),
       KELO_RB_LOST_ENTRIES},
      {"map_KeloBpfGplDefineset_dmabuf_allocate_map", BPF_MAP_TYPE_HASH, 8, sizeof(dmabuf_allocate_info), 0},
      {"map_KeloBpfGplDefineset_dmabuf_size_map", BPF_MAP_TYPE_HASH, 4, sizeof(dmabuf_stat), 0},
      {"map_KeloBpfGplDefineset_dmabuf_perprocess_size_map", BPF_MAP_TYPE_HASH, 4, sizeof(dmabuf_stat), 0},
      {"map_KeloBpfGplDefineset_process_inode_map", BPF_MAP_TYPE_HASH, sizeof(dmabuf_process_inode_key), 4, 0},
      {"map_KeloBpfGplDefineset_process_mmap_infos", BPF_MAP_TYPE_HASH, sizeof(dmabuf_process_mmap_key), 8, 0},
  };
  for (const auto& expected : maps) {
    const bpf_map_info info = InfoOf<bpf_map_info>(PathIn(KELO_BPF_FS_DIR, expected.name));
    EXPECT_EQ(info.type, expected.type) << expected.name;
    EXPECT_EQ(info.key_size, expected.keySize) << expected.name;
    EXPECT_EQ(info.value_size, expected.valueSize) << expected.name;
    if (expected.maxEntries != 0) {
      EXPECT_EQ(info.max_entries, expected.maxEntries) << expected.name;
    }
  }
}

TEST(KeloBpfLoaderTest, CreatesNestedDirectoryAndReplacesExistingPins) {
  KELO_SKIP_WITHOUT_BPF();
  const std::string dir = "/sys/fs/bpf/a/b/kelo";
  const std::string ring = PathIn(dir, "map_KeloBpfDefineset_ringbuf_map");
  Kelo::Bpf::BpfLoadReport first, second;
  ASSERT_TRUE(LoadAndPinPrograms(dir, &first));
  const uint32_t oldId = InfoOf<bpf_map_info>(ring).id;
  // A second run succeeds and leaves fresh objects behind the same names.
  ASSERT_TRUE(LoadAndPinPrograms(dir, &second));
  EXPECT_EQ(second.pinnedPrograms, first.pinnedPrograms);
  EXPECT_EQ(second.pinnedMaps, first.pinnedMaps);
  EXPECT_NE(InfoOf<bpf_map_info>(ring).id, oldId);
}

TEST(KeloBpfLoaderTest, MissingObjectIsReportedAndTheOtherSetStillPinned) {
  KELO_SKIP_WITHOUT_BPF();
  std::vector<Kelo::Bpf::BpfObjectSet> sets = Kelo::Bpf::DefaultBpfObjectSets(KELO_BPF_OBJ_DIR);
  sets[0].objectPath = "/nonexistent/kelo_bpf_normal.bpf.o";
  Kelo::Bpf::BpfLoadReport report;
  EXPECT_EQ(Kelo::Bpf::LoadAndPinBpfSets(sets, KELO_BPF_FS_DIR, &report), 1);
  ASSERT_EQ(report.errors.size(), 1u);
  EXPECT_EQ(report.errors[0].rfind("KeloBpfDefineset: ", 0), 0u) << report.errors[0];

  struct stat st;
  EXPECT_NE(stat(KELO_BPF_PROG_PATH(KELO_BPF_DEFINESET, "tracepoint", "sched_sched_switch"), &st), 0);
  EXPECT_EQ(stat(KELO_BPF_PROG_PATH(KELO_BPF_GPL_DEFINESET, "tracepoint", "cgroup_cgroup_attach_task"), &st), 0);
  EXPECT_EQ(stat(KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_map"), &st), 0);
}

TEST(KeloBpfLoaderTest, RefusedProgramsAreReportedAndTheRestPinned) {
  KELO_SKIP_WITHOUT_BPF();
  Kelo::Bpf::BpfLoadReport report;
  EXPECT_EQ(Kelo::Bpf::LoadAndPinBpfSets({{KELO_BPF_REFUSAL_TEST_OBJ, "TestSet"}}, KELO_BPF_FS_DIR, &report), 2);
  EXPECT_TRUE(report.errors.empty());
  ASSERT_EQ(report.failedPrograms.size(), 2u);
  const auto mentions = [&](const std::string& needle) {
    return std::any_of(report.failedPrograms.begin(), report.failedPrograms.end(),
                       [&](const std::string& line) { return line.find(needle) != std::string::npos; });
  };
  EXPECT_TRUE(mentions("TestSet unattachable: section xdp"));
  EXPECT_TRUE(mentions("TestSet refused: "));

  const std::string accepted = PathIn(KELO_BPF_FS_DIR, "prog_TestSet_tracepoint_accepted");
  EXPECT_EQ(report.pinnedPrograms, std::vector<std::string>{accepted});
  EXPECT_EQ(report.pinnedMaps, std::vector<std::string>{PathIn(KELO_BPF_FS_DIR, "map_TestSet_counter")});
  EXPECT_GE(unique_fd(bpf_obj_get(accepted.c_str())).get(), 0);
}

}  // namespace
}  // namespace kelo_test
