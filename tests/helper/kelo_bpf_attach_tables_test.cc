// The name-driven helpers and the loader derive hooks from program names, so
// every row must follow the naming rule: <subsystem>_<event> for tracepoints,
// the probed function (behind its direction in the normal set) for probes.
#include <gtest/gtest.h>

#include "helper/kelo_bpf_attach_tables.h"

namespace Kelo {
namespace Bpf {
namespace {

TEST(AttachTablesTest, RowsAreWellFormedAndFollowTheNamingRule) {
  for (const BpfAttachTable* table : {&NormalAttachTable(), &GplAttachTable()}) {
    for (const auto& [defineset, kinds] : *table) {
      for (const auto& [kind, rows] : kinds) {
        for (const std::vector<std::string>& row : rows) {
          ASSERT_EQ(row.size(), ATTACH_ROW_COLUMNS) << defineset;
          const std::string& target = row[ATTACH_COL_TARGET];
          const std::string expected = kind == ATTACH_KIND_TRACEPOINT ? target + "_" + row[ATTACH_COL_EVENT]
                                       : defineset == NORMAL_DEFINESET ? "enter_" + target
                                                                       : target;
          EXPECT_EQ(row[ATTACH_COL_PROG_NAME], expected) << defineset << " kind " << kind;
        }
      }
    }
  }
  EXPECT_TRUE(NormalAttachTable().at(NORMAL_DEFINESET).at(ATTACH_KIND_KRETPROBE).empty());
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
