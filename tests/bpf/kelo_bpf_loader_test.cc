// The loader pins exactly the objects the service opens, under its naming
// scheme, with the program types and map shapes the service relies on.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "bpf/kelo_bpf_events.h"
#include "tests/support/bpf_fixture.h"
#include "tools/kelo_bpf_loader_lib.h"

namespace kelo_test {
namespace {

using android::base::unique_fd;

constexpr char kDir[] = "/sys/fs/bpf/kelo";

struct ExpectedProgram {
  const char* path;
  bpf_prog_type type;
};

// Every program of both attach tables, by the path the service builds.
const ExpectedProgram kPrograms[] = {
    {"prog_KeloBpfDefineset_tracepoint_sched_sched_switch", BPF_PROG_TYPE_TRACEPOINT},
    {"prog_KeloBpfDefineset_tracepoint_sched_sched_process_exit", BPF_PROG_TYPE_TRACEPOINT},
    {"prog_KeloBpfDefineset_tracepoint_sched_sched_process_fork", BPF_PROG_TYPE_TRACEPOINT},
    {"prog_KeloBpfDefineset_tracepoint_kmem_rss_stat", BPF_PROG_TYPE_TRACEPOINT},
    {"prog_KeloBpfDefineset_kprobe_enter_fd_install", BPF_PROG_TYPE_KPROBE},
    {"prog_KeloBpfGplDefineset_tracepoint_sched_sched_process_exit", BPF_PROG_TYPE_TRACEPOINT},
    {"prog_KeloBpfGplDefineset_tracepoint_cgroup_cgroup_attach_task", BPF_PROG_TYPE_TRACEPOINT},
    {"prog_KeloBpfGplDefineset_kprobe_dma_buf_file_release", BPF_PROG_TYPE_KPROBE},
    {"prog_KeloBpfGplDefineset_kprobe_dma_buf_stats_setup", BPF_PROG_TYPE_KPROBE},
    {"prog_KeloBpfGplDefineset_kprobe_dma_buf_dynamic_attach", BPF_PROG_TYPE_KPROBE},
    {"prog_KeloBpfGplDefineset_kprobe_dma_buf_vmap", BPF_PROG_TYPE_KPROBE},
    {"prog_KeloBpfGplDefineset_kprobe_dma_buf_mmap_internal", BPF_PROG_TYPE_KPROBE},
};

struct ExpectedMap {
  const char* path;
  bpf_map_type type;
  uint32_t keySize;
  uint32_t valueSize;
  uint32_t maxEntries;  // 0: not checked
};

// The maps whose layouts user space shares: key and value sizes must match
// the structs of kelo_bpf_events.h that the service reads and writes.
const ExpectedMap kMaps[] = {
    {"map_KeloBpfDefineset_ringbuf_map", BPF_MAP_TYPE_RINGBUF, 0, 0, KELO_RINGBUF_BYTES},
    {"map_KeloBpfDefineset_ringbuf_status", BPF_MAP_TYPE_ARRAY, 4, 8, KELO_RB_STATUS_ENTRIES},
    {"map_KeloBpfDefineset_open_fd_caller_map", BPF_MAP_TYPE_HASH, 4,
     sizeof(open_fd_caller_info), KELO_OPEN_FD_MAP_ENTRIES},
    {"map_KeloBpfGplDefineset_ringbuf_map", BPF_MAP_TYPE_RINGBUF, 0, 0, KELO_GPL_RINGBUF_BYTES},
    {"map_KeloBpfGplDefineset_ringbuf_status", BPF_MAP_TYPE_ARRAY, 4, 8, KELO_RB_STATUS_ENTRIES},
    {"map_KeloBpfGplDefineset_dmabuf_allocate_map", BPF_MAP_TYPE_HASH, 8,
     sizeof(dmabuf_allocate_info), 0},
    {"map_KeloBpfGplDefineset_dmabuf_size_map", BPF_MAP_TYPE_HASH, 4, sizeof(dmabuf_stat), 0},
    {"map_KeloBpfGplDefineset_dmabuf_perprocess_size_map", BPF_MAP_TYPE_HASH, 4,
     sizeof(dmabuf_stat), 0},
    {"map_KeloBpfGplDefineset_process_inode_map", BPF_MAP_TYPE_HASH,
     sizeof(dmabuf_process_inode_key), 4, 0},
    {"map_KeloBpfGplDefineset_process_mmap_infos", BPF_MAP_TYPE_HASH,
     sizeof(dmabuf_process_mmap_key), 8, 0},
};

std::string PathIn(const std::string& dir, const char* name) {
  return dir + "/" + name;
}

TEST(KeloBpfLoaderTest, PinsEveryProgramOfBothSetsWithItsAttachKind) {
  Kelo::Bpf::BpfLoadReport report;
  ASSERT_TRUE(LoadAndPinPrograms(kDir, &report));
  EXPECT_EQ(report.pinnedPrograms.size(), std::size(kPrograms));

  for (const ExpectedProgram& expected : kPrograms) {
    std::string path = PathIn(kDir, expected.path);
    EXPECT_NE(std::find(report.pinnedPrograms.begin(), report.pinnedPrograms.end(), path),
              report.pinnedPrograms.end())
        << path << " missing from the report";
    unique_fd fd(bpf_obj_get(path.c_str()));
    ASSERT_GE(fd.get(), 0) << path << ": " << std::strerror(errno);
    bpf_prog_info info{};
    uint32_t len = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fd.get(), &info, &len), 0) << path;
    EXPECT_EQ(info.type, expected.type) << path;
  }
}

TEST(KeloBpfLoaderTest, PinsMapsUnderTheirFullNamesWithTheSharedLayouts) {
  Kelo::Bpf::BpfLoadReport report;
  ASSERT_TRUE(LoadAndPinPrograms(kDir, &report));

  for (const ExpectedMap& expected : kMaps) {
    std::string path = PathIn(kDir, expected.path);
    unique_fd fd(bpf_obj_get(path.c_str()));
    ASSERT_GE(fd.get(), 0) << path << ": " << std::strerror(errno);
    bpf_map_info info{};
    uint32_t len = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fd.get(), &info, &len), 0) << path;
    EXPECT_EQ(info.type, expected.type) << path;
    EXPECT_EQ(info.key_size, expected.keySize) << path;
    EXPECT_EQ(info.value_size, expected.valueSize) << path;
    if (expected.maxEntries != 0) {
      EXPECT_EQ(info.max_entries, expected.maxEntries) << path;
    }
  }
  // The pinned status array is the one the programs use: reachable through
  // the fixture as a service would see it.
  auto status = StatusArray::Open(PathIn(kDir, "map_KeloBpfDefineset_ringbuf_status"));
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(status->Get(KELO_RB_STATUS_FLAGS), 0u);
}

TEST(KeloBpfLoaderTest, CreatesNestedDirectoryAndReplacesExistingPins) {
  const std::string dir = "/sys/fs/bpf/a/b/kelo";
  Kelo::Bpf::BpfLoadReport first;
  ASSERT_TRUE(LoadAndPinPrograms(dir, &first));
  unique_fd oldRing(bpf_obj_get(PathIn(dir, "map_KeloBpfDefineset_ringbuf_map").c_str()));
  ASSERT_GE(oldRing.get(), 0);

  // A second run succeeds and leaves fresh objects behind the same names.
  Kelo::Bpf::BpfLoadReport second;
  ASSERT_TRUE(LoadAndPinPrograms(dir, &second));
  EXPECT_EQ(second.pinnedPrograms, first.pinnedPrograms);
  EXPECT_EQ(second.pinnedMaps, first.pinnedMaps);
  unique_fd newRing(bpf_obj_get(PathIn(dir, "map_KeloBpfDefineset_ringbuf_map").c_str()));
  ASSERT_GE(newRing.get(), 0);
  bpf_map_info oldInfo{}, newInfo{};
  uint32_t len = sizeof(oldInfo);
  ASSERT_EQ(bpf_obj_get_info_by_fd(oldRing.get(), &oldInfo, &len), 0);
  len = sizeof(newInfo);
  ASSERT_EQ(bpf_obj_get_info_by_fd(newRing.get(), &newInfo, &len), 0);
  EXPECT_NE(oldInfo.id, newInfo.id);
}

TEST(KeloBpfLoaderTest, MissingObjectIsReportedAndTheOtherSetStillPinned) {
  std::vector<Kelo::Bpf::BpfObjectSet> sets = Kelo::Bpf::DefaultBpfObjectSets(KELO_BPF_OBJ_DIR);
  sets[0].objectPath = "/nonexistent/kelo_bpf_normal.bpf.o";
  Kelo::Bpf::BpfLoadReport report;
  EXPECT_EQ(Kelo::Bpf::LoadAndPinBpfSets(sets, kDir, &report), 1);
  ASSERT_EQ(report.errors.size(), 1u);
  EXPECT_EQ(report.errors[0].rfind("KeloBpfDefineset: ", 0), 0u) << report.errors[0];

  struct stat st;
  EXPECT_NE(stat(PathIn(kDir, "prog_KeloBpfDefineset_tracepoint_sched_sched_switch").c_str(), &st), 0);
  EXPECT_EQ(stat(PathIn(kDir, "prog_KeloBpfGplDefineset_tracepoint_cgroup_cgroup_attach_task").c_str(), &st), 0);
  EXPECT_EQ(stat(PathIn(kDir, "map_KeloBpfGplDefineset_ringbuf_map").c_str(), &st), 0);
}

TEST(KeloBpfLoaderTest, RefusedProgramsAreReportedAndTheRestPinned) {
  Kelo::Bpf::BpfLoadReport report;
  EXPECT_EQ(Kelo::Bpf::LoadAndPinBpfSets({{KELO_BPF_REFUSAL_TEST_OBJ, "TestSet"}}, kDir, &report), 2);
  EXPECT_TRUE(report.errors.empty());
  ASSERT_EQ(report.failedPrograms.size(), 2u);
  auto mentions = [&](const std::string& needle) {
    return std::any_of(report.failedPrograms.begin(), report.failedPrograms.end(),
                       [&](const std::string& line) { return line.find(needle) != std::string::npos; });
  };
  EXPECT_TRUE(mentions("TestSet unattachable: section xdp"));
  EXPECT_TRUE(mentions("TestSet refused: "));

  EXPECT_EQ(report.pinnedPrograms,
            std::vector<std::string>{PathIn(kDir, "prog_TestSet_tracepoint_accepted")});
  EXPECT_EQ(report.pinnedMaps, std::vector<std::string>{PathIn(kDir, "map_TestSet_counter")});
  unique_fd accepted(bpf_obj_get(PathIn(kDir, "prog_TestSet_tracepoint_accepted").c_str()));
  EXPECT_GE(accepted.get(), 0);
}

}  // namespace
}  // namespace kelo_test
