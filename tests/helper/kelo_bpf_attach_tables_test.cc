// The tables against the real kernel program sets, loaded and pinned as the
// platform does: every pinned program is named by a row, and every
// tracepoint row finds its program and attaches. Rows also follow the naming
// rule the name-driven helpers rely on: <subsystem>_<event> for tracepoints,
// the probed function (behind its direction in the normal set) for probes.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>

#include "helper/kelo_bpf_helper.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr char PIN_DIR[] = "/sys/fs/bpf/kelo/";

TEST(AttachTablesTest, RowsMatchTheRealProgramSets) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  BpfLoadReport report;
  kelo_test::LoadAndPinPrograms(KELO_BPF_FS_DIR, &report);
  ASSERT_FALSE(report.pinnedPrograms.empty());

  std::set<std::string> named;
  const char* const kindWords[] = {ATTACH_KIND_WORD_TRACEPOINT, ATTACH_KIND_WORD_KPROBE, ATTACH_KIND_WORD_KRETPROBE};
  for (const BpfAttachTable* table : {&NormalAttachTable(), &GplAttachTable()}) {
    for (const auto& [defineset, kinds] : *table) {
      for (const auto& [kind, rows] : kinds) {
        for (const auto& row : rows) {
          ASSERT_EQ(row.size(), ATTACH_ROW_COLUMNS) << defineset;
          const std::string& target = row[ATTACH_COL_TARGET];
          const std::string expected = kind == ATTACH_KIND_TRACEPOINT ? target + "_" + row[ATTACH_COL_EVENT]
                                       : defineset == NORMAL_DEFINESET ? "enter_" + target
                                                                       : target;
          EXPECT_EQ(row[ATTACH_COL_PROG_NAME], expected) << defineset << " kind " << kind;
          named.insert(std::string(KELO_BPF_FS_DIR) + "/prog_" + defineset + "_" + kindWords[kind] + "_" +
                       row[ATTACH_COL_PROG_NAME]);
        }
      }
    }
  }
  EXPECT_TRUE(NormalAttachTable().at(NORMAL_DEFINESET).at(ATTACH_KIND_KRETPROBE).empty());
  for (const std::string& pinned : report.pinnedPrograms) EXPECT_EQ(named.count(pinned), 1u) << pinned;
  EXPECT_EQ(report.pinnedPrograms.size(), named.size());

  ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, "6.18"));
  kelo_test::LogCapture log;
  // Only the probe rows may fail, and only on a kernel without kprobes.
  const bool kprobes = access("/sys/bus/event_source/devices/kprobe/type", F_OK) == 0;
  EXPECT_EQ(AttachAllKeloBpfProgram(PIN_DIR, NormalAttachTable()), kprobes ? 0 : 1);
  EXPECT_EQ(AttachAllKeloBpfProgram(PIN_DIR, GplAttachTable()), kprobes ? 0 : 5);
  EXPECT_EQ(log.count("Attach bpf prog start"), 12);
  EXPECT_FALSE(log.contains("tracepoint prog failed")) << log.text();
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
